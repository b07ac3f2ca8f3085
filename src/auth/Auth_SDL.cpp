#include "auth/Auth_SDL.h"

#include <cstdlib>
#include <cstring>

#include "common/HeapBuffer.h"
#include "crypto/Base64.h"
#include "crypto/KeyCrypter.h"
#include "log/StringConv.h"
#include "log/WSCLog.h"
#include "messages/RSTR_SDL.h"
#include "messages/RST_SDL.h"

namespace {

// ISO-8859-1: the password digest is taken over these bytes, characters
// outside it best-fitted by the platform.
constexpr UINT kPasswordCodePage = 28591;
constexpr DWORD kMD5Size = 16;

bool HasPassword(const AuthCredential* credential) {
    return credential->Password && credential->Password[0] != L'\0';
}

}  // namespace

Auth_SDL::Auth_SDL() : m_pSoapTrans(nullptr) {
    WSCLOG(4, L"Auth_SDL constructor IN");
    WSCLOG(4, L"Auth_SDL constructor OUT");
}

Auth_SDL::~Auth_SDL() {
    WSCLOG(4, L"Auth_SDL destructor IN");
    m_pSoapTrans = nullptr;
    WSCLOG(4, L"Auth_SDL destructor OUT");
}

DWORD Auth_SDL::Authentication(CSoapTrans* transport, DWORD flags, const AuthInfo* authInfo,
                               AuthCredential* credential, std::wstring servicePath, USHORT port,
                               USHORT securePort, std::wstring address, std::wstring* assertionId,
                               std::wstring* samlToken, BYTE** digest, DWORD* digestSize) {
    WSCLOG(4, L"Auth_SDL::Authentication IN");
    if (!transport || !authInfo || !credential || !credential->UserID || !assertionId || !samlToken ||
        !digest || !digestSize || (!(flags & AUTH_FLAG_DIGEST_PASSWORD) && !credential->Password)) {
        WSCLOG(1, L"Auth_SDL::Authentication PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    m_pSoapTrans = transport;

    std::wstring payload;
    DWORD result = MakeRstData(credential, &payload);
    if (result & ZEB_FAILURE_MASK) return result;

    RST_SDL challengeRequest(qv::AuthInfoText(authInfo->Info), qv::AuthInfoText(authInfo->AuthType), payload);
    result = Request(&challengeRequest, servicePath, port, securePort, address);
    if (result & ZEB_FAILURE_MASK) return result;

    std::wstring answer;
    result = MakeRstrData(flags, challengeRequest.m_challenge, credential, &answer, digest, digestSize);
    if (result & ZEB_FAILURE_MASK) return result;

    RSTR_SDL challengeAnswer(answer, challengeRequest.m_context);
    result = Request(&challengeAnswer, servicePath, port, securePort, address);
    if (result & ZEB_FAILURE_MASK) {
        qv::FreeSecret(*digest, *digestSize);
        *digest = nullptr;
        *digestSize = 0;
        return result;
    }

    *assertionId = challengeAnswer.m_assertionID;
    *samlToken = challengeAnswer.m_samlToken;
    WSCLOG(4, L"Auth_SDL::Authentication OUT");
    return 0;
}

DWORD Auth_SDL::MakeRstData(const AuthCredential* credential, std::wstring* payload) {
    WSCLOG(4, L"Auth_SDL::MakeRstData IN");
    if (!credential || !credential->UserID || !payload) {
        // The method name in this text is the one the log has always shown.
        WSCLOG(1, L"Auth_SDL::Request PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }

    std::wstring text = std::wstring(L"SDLChallengeRequest") + credential->UserID;
    DWORD utf8Length = 0;
    qv::CharBuffer utf8;
    utf8.reset(ConvertWideToMulti(text.c_str(), CP_UTF8, &utf8Length), utf8Length);
    if (!utf8) {
        WSCLOG(1, L"Auth_SDL::MakeRstData ConvertWideToMulti ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }

    *payload = Base64Encoding(reinterpret_cast<const BYTE*>(utf8.get()), utf8Length);
    if (payload->empty()) {
        WSCLOG(1, L"Auth_SDL::MakeRstData Base64Encoding ChallengeReqBuf ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"Auth_SDL::MakeRstData OUT");
    return 0;
}

DWORD Auth_SDL::MakePasswordDigest(DWORD flags, const AuthCredential* credential, char** digest,
                                   DWORD* digestSize) {
    WSCLOG(4, L"Auth_SDL::MakePasswordDigest IN");
    if (!credential || !digest || !digestSize ||
        (!(flags & AUTH_FLAG_DIGEST_PASSWORD) && !credential->Password)) {
        WSCLOG(1, L"Auth_SDL::MakePasswordDigest PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    *digest = nullptr;
    *digestSize = 0;

    if (flags & AUTH_FLAG_DIGEST_PASSWORD) {
        // The password field holds the hex digest an earlier login returned;
        // its text is the digest.
        DWORD utf8Length = 0;
        char* storedDigest = ConvertWideToMulti(credential->Password, CP_UTF8, &utf8Length);
        if (!storedDigest) {
            WSCLOG(1, L"Auth_SDL::MakePasswordDigest ConvertWideToMulti ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
            return ZEB_ERROR_OUTOFMEMORY;
        }
        *digest = storedDigest;
        *digestSize = static_cast<DWORD>(lstrlenW(credential->Password));
        WSCLOG(4, L"Auth_SDL::MakePasswordDigest OUT");
        return 0;
    }

    DWORD passwordLength = 0;
    qv::SecretChars password;
    password.reset(ConvertWideToMulti(credential->Password, kPasswordCodePage, &passwordLength), passwordLength);
    if (!password) {
        WSCLOG(1, L"Auth_SDL::MakePasswordDigest ConvertWideToMulti ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    DWORD result = MakeMD5(reinterpret_cast<const BYTE*>(password.get()), passwordLength, digest, digestSize);
    if (result & ZEB_FAILURE_MASK) return result;
    WSCLOG(4, L"Auth_SDL::MakePasswordDigest OUT");
    return result;
}

DWORD Auth_SDL::MakeMD5(const BYTE* data, DWORD size, char** digest, DWORD* digestSize) {
    WSCLOG(4, L"Auth_SDL::MakeMD5 IN");
    if (!data || !digest || !digestSize) {
        WSCLOG(1, L"Auth_SDL::MakeMD5 PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    *digest = nullptr;
    *digestSize = 0;

    KeyCrypter crypter;
    DWORD result = crypter.Initialize(CALG_MD5, 0);
    if (result & ZEB_FAILURE_MASK) {
        WSCLOG(1, L"Auth_SDL::MakeMD5 KeyCrypter.Initialize ZEB_ERROR = %08x", result);
        return result;
    }
    BYTE* hashRaw = nullptr;
    DWORD hashSize = 0;
    result = crypter.GetHashData(data, size, &hashRaw, &hashSize);
    qv::SecretBytes hash(hashRaw, hashSize);
    if (result & ZEB_FAILURE_MASK) {
        WSCLOG(1, L"Auth_SDL::MakeMD5 KeyCrypter.GetHashData ZEB_ERROR = %08x", result);
        crypter.Clear();
        return result;
    }
    result = crypter.Clear();
    if (result & ZEB_FAILURE_MASK) {
        WSCLOG(1, L"Auth_SDL::MakeMD5 KeyCrypter.Clear ZEB_ERROR = %08x", result);
        return result;
    }

    auto* hex = static_cast<char*>(std::calloc(kMD5Size * 2 + 1, 1));
    if (!hex) {
        WSCLOG(1, L"Auth_SDL::MakeMD5 malloc ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    static const char kHexDigits[] = "0123456789abcdef";
    for (DWORD i = 0; i < kMD5Size && i < hashSize; ++i) {
        hex[2 * i] = kHexDigits[hash.get()[i] >> 4];
        hex[2 * i + 1] = kHexDigits[hash.get()[i] & 0x0F];
    }
    *digest = hex;
    *digestSize = kMD5Size * 2;
    WSCLOG(4, L"Auth_SDL::MakeMD5 OUT");
    return 0;
}

DWORD Auth_SDL::MakeChallengeResponseData(const char* digest, DWORD digestSize, const BYTE* challenge,
                                          DWORD challengeSize, std::wstring* payload) {
    WSCLOG(4, L"Auth_SDL::MakeChallengeResponseData IN");
    if (!challenge || challengeSize == 0 || !payload || (digestSize && !digest)) {
        WSCLOG(1, L"Auth_SDL::MakeChallengeResponseData PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }

    size_t total = static_cast<size_t>(digestSize) + challengeSize;
    qv::SecretBytes challengeResponse;
    if (!challengeResponse.allocate(total)) {
        WSCLOG(1, L"Auth_SDL::MakeChallengeResponseData malloc challengeResponse ZEB_ERROR = %08x",
               ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    // Without a digest (empty password) the challenge is hashed alone.
    if (digestSize) std::memcpy(challengeResponse.get(), digest, digestSize);
    std::memcpy(challengeResponse.get() + digestSize, challenge, challengeSize);

    char* answerRaw = nullptr;
    DWORD answerSize = 0;
    DWORD result = MakeMD5(challengeResponse.get(), static_cast<DWORD>(total), &answerRaw, &answerSize);
    qv::CharBuffer answer(answerRaw, answerSize);
    if (result & ZEB_FAILURE_MASK) return result;

    *payload = Base64Encoding(reinterpret_cast<const BYTE*>(answer.get()), answerSize);
    if (payload->empty()) {
        WSCLOG(1, L"Auth_SDL::MakeChallengeResponseData Base64Encoding challengeResponseData ZEB_ERROR = %08x",
               ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"Auth_SDL::MakeChallengeResponseData OUT");
    return 0;
}

DWORD Auth_SDL::MakeRstrData(DWORD flags, const std::wstring& challenge, const AuthCredential* credential,
                             std::wstring* payload, BYTE** returnDigest, DWORD* returnDigestSize) {
    WSCLOG(4, L"Auth_SDL::MakeRstrData IN");
    if (!credential || !payload || !returnDigest || !returnDigestSize ||
        (!(flags & AUTH_FLAG_DIGEST_PASSWORD) && !credential->Password)) {
        WSCLOG(1, L"Auth_SDL::MakeRstrData PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    *returnDigest = nullptr;
    *returnDigestSize = 0;

    BYTE* challengeRaw = nullptr;
    DWORD challengeSize = Base64Decoding(challenge, &challengeRaw);
    qv::ByteBuffer challengeBytes(challengeRaw, challengeSize);
    if (challengeSize == 0 || !challengeBytes) {
        WSCLOG(1, L"Auth_SDL::MakeRstrData Base64Decoding challenge ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }

    qv::SecretChars digest;
    DWORD digestSize = 0;
    if (HasPassword(credential)) {
        char* digestRaw = nullptr;
        DWORD result = MakePasswordDigest(flags, credential, &digestRaw, &digestSize);
        // The buffer may be longer than the digest size (stored-digest text).
        digest.reset(digestRaw, digestRaw ? std::strlen(digestRaw) : 0);
        if (result & ZEB_FAILURE_MASK) return result;
        // A caller that logged in with a stored digest already holds it.
        if (!(flags & AUTH_FLAG_DIGEST_PASSWORD)) {
            wchar_t* wideRaw = ConvertMultiToWide(digest.get());
            size_t textBytes = static_cast<size_t>(digestSize) * sizeof(wchar_t) + sizeof(wchar_t);
            qv::SecretWide wide(wideRaw, textBytes);
            // The host frees this buffer with free(); it gets a block of its own.
            auto* buffer = wide ? static_cast<BYTE*>(std::calloc(textBytes, 1)) : nullptr;
            if (!buffer) {
                WSCLOG(1, L"Auth_SDL::MakeRstrData malloc PasswordDigest ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
                return ZEB_ERROR_OUTOFMEMORY;
            }
            std::memcpy(buffer, wide.get(), textBytes - sizeof(wchar_t));
            *returnDigest = buffer;
            *returnDigestSize = static_cast<DWORD>(textBytes);
        }
    }

    DWORD result = MakeChallengeResponseData(digest.get(), digestSize, challengeBytes.get(), challengeSize, payload);
    if (result & ZEB_FAILURE_MASK) {
        qv::FreeSecret(*returnDigest, *returnDigestSize);
        *returnDigest = nullptr;
        *returnDigestSize = 0;
        return result;
    }
    WSCLOG(4, L"Auth_SDL::MakeRstrData OUT");
    return 0;
}

DWORD Auth_SDL::Request(WSRequest* message, const std::wstring& servicePath, USHORT port, USHORT securePort,
                        const std::wstring& address) {
    WSCLOG(4, L"Auth_SDL::Request IN");
    if (!message) {
        WSCLOG(1, L"Auth_SDL::Request PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    if (!m_pSoapTrans) {
        WSCLOG(1, L"Auth_SDL::Request ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x",
               ZEB_ERROR_GENERAL_INVALID_INSTANCE);
        return ZEB_ERROR_GENERAL_INVALID_INSTANCE;
    }
    DWORD result = qv::ExchangeAuthMessage(m_pSoapTrans, message, servicePath, port, securePort, address);
    if (result & ZEB_FAILURE_MASK) return result;
    WSCLOG(4, L"Auth_SDL::Request OUT");
    return result;
}
