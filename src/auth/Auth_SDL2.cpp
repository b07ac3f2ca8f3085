#include "auth/Auth_SDL2.h"

#include <cstdlib>
#include <cwchar>

#include "auth/SdlSteps.h"
#include "common/HeapBuffer.h"
#include "crypto/Base64.h"
#include "crypto/KeyCrypter.h"
#include "log/StringConv.h"
#include "log/WSCLog.h"

namespace {

constexpr const wchar_t* kClassName = L"Auth_SDL2";

}  // namespace

Auth_SDL2::Auth_SDL2() : m_pSoapTrans(nullptr) {
    WSCLOG(4, L"Auth_SDL2 constructor IN");
    WSCLOG(4, L"Auth_SDL2 constructor OUT");
}

Auth_SDL2::~Auth_SDL2() {
    WSCLOG(4, L"Auth_SDL2 destructor IN");
    m_pSoapTrans = nullptr;
    WSCLOG(4, L"Auth_SDL2 destructor OUT");
}

DWORD Auth_SDL2::Authentication(CSoapTrans* transport, DWORD flags, const AuthInfo* authInfo,
                                AuthCredential* credential, std::wstring servicePath, USHORT port,
                                USHORT securePort, std::wstring address, std::wstring* assertionId,
                                std::wstring* samlToken, BYTE** digest, DWORD* digestSize) {
    WSCLOG(4, L"Auth_SDL2::Authentication IN");
    // A user ID longer than kMaxUserIdLength cannot be carried by the answer
    // to the challenge, so it is refused before anything is sent.
    if (!qv::SdlArgumentsGiven(transport, flags, authInfo, credential, assertionId, samlToken, digest, digestSize) ||
        std::wcslen(credential->UserID) > kMaxUserIdLength)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"Auth_SDL2::Authentication PARAMETER ZEB_ERROR = %08x");
    m_pSoapTrans = transport;

    qv::SdlLoginSteps steps;
    steps.makeRstData = [&](std::wstring* payload) { return MakeRstData(credential, payload); };
    steps.makeRstrData = [&](const std::wstring& challenge, std::wstring* answer) {
        return MakeRstrData(flags, challenge, credential, answer, digest, digestSize);
    };
    steps.request = [&](WSRequest* message) { return Request(message, servicePath, port, securePort, address); };
    return qv::RunSdlLogin(kClassName, authInfo, steps, assertionId, samlToken, digest, digestSize);
}

DWORD Auth_SDL2::MakeRstData(const AuthCredential* credential, std::wstring* payload) {
    return qv::MakeSdlRstData(kClassName, credential, payload);
}

DWORD Auth_SDL2::MakePasswordDigest(DWORD flags, const AuthCredential* credential, BYTE** digest,
                                    DWORD* digestSize) {
    DWORD result = qv::BeginPasswordDigest(kClassName, flags, credential, digest && digestSize);
    if (result != 0) return result;
    *digest = nullptr;
    *digestSize = 0;

    qv::SecretChars text;
    DWORD textLength = 0;
    result = qv::PasswordFieldBytes(kClassName, flags, credential, text, &textLength);
    if (result != 0) return result;
    if (flags & AUTH_FLAG_DIGEST_PASSWORD) {
        // The password field holds the hex digest an earlier login returned.
        result = ToByteArray(text.get(), static_cast<DWORD>(lstrlenW(credential->Password)), digest, digestSize);
    } else {
        result = MakeMD5(reinterpret_cast<const BYTE*>(text.get()), textLength, digest, digestSize);
    }
    if (ZEB_FAILED(result)) return result;
    WSCLOG(4, L"Auth_SDL2::MakePasswordDigest OUT");
    return result;
}

DWORD Auth_SDL2::MakeMD5(const BYTE* data, DWORD size, BYTE** digest, DWORD* digestSize) {
    WSCLOG(4, L"Auth_SDL2::MakeMD5 IN");
    if (!data || !digest || !digestSize)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"Auth_SDL2::MakeMD5 PARAMETER ZEB_ERROR = %08x");
    *digest = nullptr;
    *digestSize = 0;
    // The crypter lives to the end of the step, as its release is logged.
    KeyCrypter crypter;
    DWORD result = qv::HashMD5(kClassName, crypter, data, size, digest, digestSize);
    if (ZEB_FAILED(result)) return result;
    WSCLOG(4, L"Auth_SDL2::MakeMD5 OUT");
    return 0;
}

DWORD Auth_SDL2::MakeChallengeResponseData(const wchar_t* userId, const BYTE* digest, DWORD digestSize,
                                           const BYTE* challenge, DWORD challengeSize, std::wstring* payload) {
    WSCLOG(4, L"Auth_SDL2::MakeChallengeResponseData IN");
    // The answer is formatted into a field that holds the user ID and its
    // blank in 34 characters; a longer ID cannot be answered at all.
    if (!userId || !challenge || challengeSize == 0 || !payload || std::wcslen(userId) > kMaxUserIdLength)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"Auth_SDL2::MakeChallengeResponseData PARAMETER ZEB_ERROR = %08x");

    KeyCrypter crypter;
    DWORD result = crypter.Initialize(CALG_MD5, 0);
    if (ZEB_FAILED(result))
        return QV_FAIL(result, L"Auth_SDL2::MakeChallengeResponseData KeyCrypter.Initialize ZEB_ERROR = %08x");
    // Without a digest (empty password) the key is empty, which HMAC treats
    // as an all-zero key.
    USHORT hmacLength = 0;
    qv::ByteBuffer hmac;
    result = crypter.CreateHMAC(CALG_MD5, static_cast<USHORT>(digestSize), digestSize ? digest : nullptr,
                                challengeSize, challenge, &hmacLength, qv::out_param(hmac, hmacLength));
    if (ZEB_FAILED(result)) {
        WSCLOG(1, L"Auth_SDL2::MakeChallengeResponseData KeyCrypter.CreateHMAC ZEB_ERROR = %08x", result);
        crypter.Clear();
        return result;
    }
    result = crypter.Clear();
    if (ZEB_FAILED(result))
        return QV_FAIL(result, L"Auth_SDL2::MakeChallengeResponseData KeyCrypter.Clear ZEB_ERROR = %08x");

    std::wstring text(userId);
    text.push_back(L' ');
    static const wchar_t kHexDigits[] = L"0123456789abcdef";
    for (USHORT i = 0; i < hmacLength; ++i) {
        text.push_back(kHexDigits[hmac.get()[i] >> 4]);
        text.push_back(kHexDigits[hmac.get()[i] & 0x0F]);
    }

    DWORD utf8Length = 0;
    qv::CharBuffer utf8;
    char* converted = ConvertWideToMulti(text.c_str(), CP_UTF8, &utf8Length);
    utf8.reset(converted, utf8Length);
    if (!utf8)
        return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"Auth_SDL2::MakeChallengeResponseData ConvertWideToMulti ZEB_ERROR = %08x");
    *payload = Base64Encoding(reinterpret_cast<const BYTE*>(utf8.get()), utf8Length);
    if (payload->empty())
        return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"Auth_SDL2::MakeChallengeResponseData Base64Encoding challengeResponseData ZEB_ERROR = %08x");
    WSCLOG(4, L"Auth_SDL2::MakeChallengeResponseData OUT");
    return 0;
}

DWORD Auth_SDL2::MakeRstrData(DWORD flags, const std::wstring& challenge, const AuthCredential* credential,
                              std::wstring* payload, BYTE** returnDigest, DWORD* returnDigestSize) {
    qv::ByteBuffer challengeBytes;
    DWORD result = qv::BeginSdlRstrData(kClassName, flags, challenge, credential, payload, returnDigest,
                                        returnDigestSize, challengeBytes);
    if (result != 0) return result;

    qv::SecretBytes digest;
    if (qv::HasPassword(credential)) {
        BYTE* digestRaw = nullptr;
        DWORD digestSize = 0;
        result = MakePasswordDigest(flags, credential, &digestRaw, &digestSize);
        digest.reset(digestRaw, digestSize);
        if (ZEB_FAILED(result)) return result;
        // A caller that logged in with a stored digest already holds it.
        if (!(flags & AUTH_FLAG_DIGEST_PASSWORD)) {
            result = MakeReturnDigest(digest.get(), static_cast<DWORD>(digest.bytes()), returnDigest,
                                      returnDigestSize);
            if (ZEB_FAILED(result)) return result;
        }
    }

    result = MakeChallengeResponseData(credential->UserID, digest.get(), static_cast<DWORD>(digest.bytes()),
                                       challengeBytes.get(), static_cast<DWORD>(challengeBytes.bytes()), payload);
    return qv::EndSdlRstrData(kClassName, result, returnDigest, returnDigestSize);
}

DWORD Auth_SDL2::ToHexString(const BYTE* data, DWORD size, char** text, DWORD* textSize) {
    WSCLOG(4, L"Auth_SDL2::ToHexString IN");
    if (!data || !text || !textSize)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"Auth_SDL2::ToHexString PARAMETER ZEB_ERROR = %08x");
    *text = nullptr;
    *textSize = 0;
    char* hex = qv::HexText(data, size);
    if (!hex) return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"Auth_SDL2::ToHexString malloc ZEB_ERROR = %08x");
    *text = hex;
    *textSize = size * 2;
    WSCLOG(4, L"Auth_SDL2::ToHexString OUT");
    return 0;
}

DWORD Auth_SDL2::ToByteArray(const char* text, DWORD size, BYTE** bytes, DWORD* byteSize) {
    WSCLOG(4, L"Auth_SDL2::ToByteArray IN");
    if (!text || !bytes || !byteSize || (size % 2) != 0)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"Auth_SDL2::ToByteArray PARAMETER ZEB_ERROR = %08x");
    *bytes = nullptr;
    *byteSize = 0;
    auto* buffer = static_cast<BYTE*>(std::calloc(size / 2 ? size / 2 : 1, 1));
    if (!buffer) return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"Auth_SDL2::ToByteArray malloc ZEB_ERROR = %08x");
    // Reading a pair stops at its first character that is no hex digit.
    qv::HexPairsToBytes(text, size / 2, buffer);
    *bytes = buffer;
    *byteSize = size / 2;
    WSCLOG(4, L"Auth_SDL2::ToByteArray OUT");
    return 0;
}

DWORD Auth_SDL2::MakeReturnDigest(const BYTE* digest, DWORD size, BYTE** wideText, DWORD* byteSize) {
    WSCLOG(4, L"Auth_SDL2::MakeReturnDigest IN");
    if (!digest || !wideText || !byteSize)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"Auth_SDL2::MakeReturnDigest PARAMETER ZEB_ERROR = %08x");
    *wideText = nullptr;
    *byteSize = 0;

    qv::SecretChars hex;
    DWORD hexLength = 0;
    DWORD result = ToHexString(digest, size, qv::out_param(hex, hexLength), &hexLength);
    if (ZEB_FAILED(result)) return result;

    switch (qv::MakeHostDigest(hex.get(), hexLength, wideText, byteSize)) {
        case qv::HostDigestStatus::ConvertFailed:
            WSCLOG(1, L"Auth_SDL2::MakeReturnDigest ConvertMultiToWide ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
            return ZEB_ERROR_OUTOFMEMORY;
        case qv::HostDigestStatus::AllocFailed:
            WSCLOG(1, L"Auth_SDL2::MakeReturnDigest malloc ReturnDigest ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
            return ZEB_ERROR_OUTOFMEMORY;
        case qv::HostDigestStatus::Ok:
            break;
    }
    WSCLOG(4, L"Auth_SDL2::MakeReturnDigest OUT");
    return 0;
}

DWORD Auth_SDL2::Request(WSRequest* message, const std::wstring& servicePath, USHORT port, USHORT securePort,
                         const std::wstring& address) {
    return qv::AuthRequestStep(L"Auth_SDL2", m_pSoapTrans, message, servicePath, port, securePort, address);
}
