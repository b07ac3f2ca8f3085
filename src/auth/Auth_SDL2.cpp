#include "auth/Auth_SDL2.h"

#include <cstdlib>
#include <cstring>
#include <cwchar>

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

bool HasPassword(const AuthCredential* credential) {
    return credential->Password && credential->Password[0] != L'\0';
}

int HexDigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

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
    if (!transport || !authInfo || !credential || !credential->UserID || !assertionId || !samlToken ||
        !digest || !digestSize || (!(flags & AUTH_FLAG_DIGEST_PASSWORD) && !credential->Password) ||
        std::wcslen(credential->UserID) > kMaxUserIdLength) {
        WSCLOG(1, L"Auth_SDL2::Authentication PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
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
    WSCLOG(4, L"Auth_SDL2::Authentication OUT");
    return 0;
}

DWORD Auth_SDL2::MakeRstData(const AuthCredential* credential, std::wstring* payload) {
    WSCLOG(4, L"Auth_SDL2::MakeRstData IN");
    if (!credential || !credential->UserID || !payload) {
        // The method name in this text is the one the log has always shown.
        WSCLOG(1, L"Auth_SDL2::Request PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }

    std::wstring text = std::wstring(L"SDLChallengeRequest") + credential->UserID;
    DWORD utf8Length = 0;
    qv::CharBuffer utf8;
    utf8.reset(ConvertWideToMulti(text.c_str(), CP_UTF8, &utf8Length), utf8Length);
    if (!utf8) {
        WSCLOG(1, L"Auth_SDL2::MakeRstData ConvertWideToMulti ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }

    *payload = Base64Encoding(reinterpret_cast<const BYTE*>(utf8.get()), utf8Length);
    if (payload->empty()) {
        WSCLOG(1, L"Auth_SDL2::MakeRstData Base64Encoding ChallengeReqBuf ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"Auth_SDL2::MakeRstData OUT");
    return 0;
}

DWORD Auth_SDL2::MakePasswordDigest(DWORD flags, const AuthCredential* credential, BYTE** digest,
                                    DWORD* digestSize) {
    WSCLOG(4, L"Auth_SDL2::MakePasswordDigest IN");
    if (!credential || !digest || !digestSize ||
        (!(flags & AUTH_FLAG_DIGEST_PASSWORD) && !credential->Password)) {
        WSCLOG(1, L"Auth_SDL2::MakePasswordDigest PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    *digest = nullptr;
    *digestSize = 0;

    DWORD result = 0;
    if (flags & AUTH_FLAG_DIGEST_PASSWORD) {
        // The password field holds the hex digest an earlier login returned.
        DWORD utf8Length = 0;
        qv::SecretChars storedDigest;
        storedDigest.reset(ConvertWideToMulti(credential->Password, CP_UTF8, &utf8Length), utf8Length);
        if (!storedDigest) {
            WSCLOG(1, L"Auth_SDL2::MakePasswordDigest ConvertWideToMulti ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
            return ZEB_ERROR_OUTOFMEMORY;
        }
        result = ToByteArray(storedDigest.get(), static_cast<DWORD>(lstrlenW(credential->Password)), digest,
                             digestSize);
    } else {
        DWORD passwordLength = 0;
        qv::SecretChars password;
        password.reset(ConvertWideToMulti(credential->Password, kPasswordCodePage, &passwordLength), passwordLength);
        if (!password) {
            WSCLOG(1, L"Auth_SDL2::MakePasswordDigest ConvertWideToMulti ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
            return ZEB_ERROR_OUTOFMEMORY;
        }
        result = MakeMD5(reinterpret_cast<const BYTE*>(password.get()), passwordLength, digest, digestSize);
    }
    if (result & ZEB_FAILURE_MASK) return result;
    WSCLOG(4, L"Auth_SDL2::MakePasswordDigest OUT");
    return result;
}

DWORD Auth_SDL2::MakeMD5(const BYTE* data, DWORD size, BYTE** digest, DWORD* digestSize) {
    WSCLOG(4, L"Auth_SDL2::MakeMD5 IN");
    if (!data || !digest || !digestSize) {
        WSCLOG(1, L"Auth_SDL2::MakeMD5 PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    *digest = nullptr;
    *digestSize = 0;

    KeyCrypter crypter;
    DWORD result = crypter.Initialize(CALG_MD5, 0);
    if (result & ZEB_FAILURE_MASK) {
        WSCLOG(1, L"Auth_SDL2::MakeMD5 KeyCrypter.Initialize ZEB_ERROR = %08x", result);
        return result;
    }
    result = crypter.GetHashData(data, size, digest, digestSize);
    if (result & ZEB_FAILURE_MASK) {
        WSCLOG(1, L"Auth_SDL2::MakeMD5 KeyCrypter.GetHashData ZEB_ERROR = %08x", result);
        crypter.Clear();
        return result;
    }
    result = crypter.Clear();
    if (result & ZEB_FAILURE_MASK) {
        WSCLOG(1, L"Auth_SDL2::MakeMD5 KeyCrypter.Clear ZEB_ERROR = %08x", result);
        qv::FreeSecret(*digest, *digestSize);
        *digest = nullptr;
        *digestSize = 0;
        return result;
    }
    WSCLOG(4, L"Auth_SDL2::MakeMD5 OUT");
    return 0;
}

DWORD Auth_SDL2::MakeChallengeResponseData(const wchar_t* userId, const BYTE* digest, DWORD digestSize,
                                           const BYTE* challenge, DWORD challengeSize, std::wstring* payload) {
    WSCLOG(4, L"Auth_SDL2::MakeChallengeResponseData IN");
    // The answer is formatted into a field that holds the user ID and its
    // blank in 34 characters; a longer ID cannot be answered at all.
    if (!userId || !challenge || challengeSize == 0 || !payload || std::wcslen(userId) > kMaxUserIdLength) {
        WSCLOG(1, L"Auth_SDL2::MakeChallengeResponseData PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }

    KeyCrypter crypter;
    DWORD result = crypter.Initialize(CALG_MD5, 0);
    if (result & ZEB_FAILURE_MASK) {
        WSCLOG(1, L"Auth_SDL2::MakeChallengeResponseData KeyCrypter.Initialize ZEB_ERROR = %08x", result);
        return result;
    }
    // Without a digest (empty password) the key is empty, which HMAC treats
    // as an all-zero key.
    USHORT hmacLength = 0;
    BYTE* hmacRaw = nullptr;
    result = crypter.CreateHMAC(CALG_MD5, static_cast<USHORT>(digestSize), digestSize ? digest : nullptr,
                                challengeSize, challenge, &hmacLength, &hmacRaw);
    qv::ByteBuffer hmac(hmacRaw, hmacLength);
    if (result & ZEB_FAILURE_MASK) {
        WSCLOG(1, L"Auth_SDL2::MakeChallengeResponseData KeyCrypter.CreateHMAC ZEB_ERROR = %08x", result);
        crypter.Clear();
        return result;
    }
    result = crypter.Clear();
    if (result & ZEB_FAILURE_MASK) {
        WSCLOG(1, L"Auth_SDL2::MakeChallengeResponseData KeyCrypter.Clear ZEB_ERROR = %08x", result);
        return result;
    }

    std::wstring text(userId);
    text.push_back(L' ');
    static const wchar_t kHexDigits[] = L"0123456789abcdef";
    for (USHORT i = 0; i < hmacLength; ++i) {
        text.push_back(kHexDigits[hmac.get()[i] >> 4]);
        text.push_back(kHexDigits[hmac.get()[i] & 0x0F]);
    }

    DWORD utf8Length = 0;
    qv::CharBuffer utf8;
    utf8.reset(ConvertWideToMulti(text.c_str(), CP_UTF8, &utf8Length), utf8Length);
    if (!utf8) {
        WSCLOG(1, L"Auth_SDL2::MakeChallengeResponseData ConvertWideToMulti ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    *payload = Base64Encoding(reinterpret_cast<const BYTE*>(utf8.get()), utf8Length);
    if (payload->empty()) {
        WSCLOG(1, L"Auth_SDL2::MakeChallengeResponseData Base64Encoding challengeResponseData ZEB_ERROR = %08x",
               ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"Auth_SDL2::MakeChallengeResponseData OUT");
    return 0;
}

DWORD Auth_SDL2::MakeRstrData(DWORD flags, const std::wstring& challenge, const AuthCredential* credential,
                              std::wstring* payload, BYTE** returnDigest, DWORD* returnDigestSize) {
    WSCLOG(4, L"Auth_SDL2::MakeRstrData IN");
    if (!credential || !payload || !returnDigest || !returnDigestSize ||
        (!(flags & AUTH_FLAG_DIGEST_PASSWORD) && !credential->Password)) {
        WSCLOG(1, L"Auth_SDL2::MakeRstrData PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    *returnDigest = nullptr;
    *returnDigestSize = 0;

    BYTE* challengeRaw = nullptr;
    DWORD challengeSize = Base64Decoding(challenge, &challengeRaw);
    qv::ByteBuffer challengeBytes(challengeRaw, challengeSize);
    if (challengeSize == 0 || !challengeBytes) {
        WSCLOG(1, L"Auth_SDL2::MakeRstrData Base64Decoding challenge ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }

    qv::SecretBytes digest;
    if (HasPassword(credential)) {
        BYTE* digestRaw = nullptr;
        DWORD digestSize = 0;
        DWORD result = MakePasswordDigest(flags, credential, &digestRaw, &digestSize);
        digest.reset(digestRaw, digestSize);
        if (result & ZEB_FAILURE_MASK) return result;
        // A caller that logged in with a stored digest already holds it.
        if (!(flags & AUTH_FLAG_DIGEST_PASSWORD)) {
            result = MakeReturnDigest(digest.get(), static_cast<DWORD>(digest.bytes()), returnDigest,
                                      returnDigestSize);
            if (result & ZEB_FAILURE_MASK) return result;
        }
    }

    DWORD result = MakeChallengeResponseData(credential->UserID, digest.get(), static_cast<DWORD>(digest.bytes()),
                                             challengeBytes.get(), challengeSize, payload);
    if (result & ZEB_FAILURE_MASK) {
        qv::FreeSecret(*returnDigest, *returnDigestSize);
        *returnDigest = nullptr;
        *returnDigestSize = 0;
        return result;
    }
    WSCLOG(4, L"Auth_SDL2::MakeRstrData OUT");
    return 0;
}

DWORD Auth_SDL2::ToHexString(const BYTE* data, DWORD size, char** text, DWORD* textSize) {
    WSCLOG(4, L"Auth_SDL2::ToHexString IN");
    if (!data || !text || !textSize) {
        WSCLOG(1, L"Auth_SDL2::ToHexString PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    *text = nullptr;
    *textSize = 0;
    auto* hex = static_cast<char*>(std::calloc(static_cast<size_t>(size) * 2 + 1, 1));
    if (!hex) {
        WSCLOG(1, L"Auth_SDL2::ToHexString malloc ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    static const char kHexDigits[] = "0123456789abcdef";
    for (DWORD i = 0; i < size; ++i) {
        hex[2 * i] = kHexDigits[data[i] >> 4];
        hex[2 * i + 1] = kHexDigits[data[i] & 0x0F];
    }
    *text = hex;
    *textSize = size * 2;
    WSCLOG(4, L"Auth_SDL2::ToHexString OUT");
    return 0;
}

DWORD Auth_SDL2::ToByteArray(const char* text, DWORD size, BYTE** bytes, DWORD* byteSize) {
    WSCLOG(4, L"Auth_SDL2::ToByteArray IN");
    if (!text || !bytes || !byteSize || (size % 2) != 0) {
        WSCLOG(1, L"Auth_SDL2::ToByteArray PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    *bytes = nullptr;
    *byteSize = 0;
    auto* buffer = static_cast<BYTE*>(std::calloc(size / 2 ? size / 2 : 1, 1));
    if (!buffer) {
        WSCLOG(1, L"Auth_SDL2::ToByteArray malloc ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    // Each pair is read as a base-16 number: reading stops at the first
    // character that is no hex digit, as a numeric parse would.
    for (DWORD i = 0; i < size / 2; ++i) {
        int high = HexDigitValue(text[2 * i]);
        int low = HexDigitValue(text[2 * i + 1]);
        BYTE value = 0;
        if (high >= 0) value = static_cast<BYTE>(low >= 0 ? high * 16 + low : high);
        buffer[i] = value;
    }
    *bytes = buffer;
    *byteSize = size / 2;
    WSCLOG(4, L"Auth_SDL2::ToByteArray OUT");
    return 0;
}

DWORD Auth_SDL2::MakeReturnDigest(const BYTE* digest, DWORD size, BYTE** wideText, DWORD* byteSize) {
    WSCLOG(4, L"Auth_SDL2::MakeReturnDigest IN");
    if (!digest || !wideText || !byteSize) {
        WSCLOG(1, L"Auth_SDL2::MakeReturnDigest PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    *wideText = nullptr;
    *byteSize = 0;

    char* hexRaw = nullptr;
    DWORD hexLength = 0;
    DWORD result = ToHexString(digest, size, &hexRaw, &hexLength);
    qv::SecretChars hex(hexRaw, hexLength + 1);
    if (result & ZEB_FAILURE_MASK) return result;

    wchar_t* wideRaw = ConvertMultiToWide(hex.get());
    size_t textBytes = static_cast<size_t>(hexLength) * sizeof(wchar_t) + sizeof(wchar_t);
    qv::SecretWide wide(wideRaw, textBytes);
    if (!wide) {
        WSCLOG(1, L"Auth_SDL2::MakeReturnDigest ConvertMultiToWide ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    // The host frees this buffer with free(); it gets a block of its own.
    auto* buffer = static_cast<BYTE*>(std::calloc(textBytes, 1));
    if (!buffer) {
        WSCLOG(1, L"Auth_SDL2::MakeReturnDigest malloc ReturnDigest ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    std::memcpy(buffer, wide.get(), textBytes - sizeof(wchar_t));
    *wideText = buffer;
    *byteSize = static_cast<DWORD>(textBytes);
    WSCLOG(4, L"Auth_SDL2::MakeReturnDigest OUT");
    return 0;
}

DWORD Auth_SDL2::Request(WSRequest* message, const std::wstring& servicePath, USHORT port, USHORT securePort,
                         const std::wstring& address) {
    WSCLOG(4, L"Auth_SDL2::Request IN");
    if (!message) {
        WSCLOG(1, L"Auth_SDL2::Request PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    if (!m_pSoapTrans) {
        WSCLOG(1, L"Auth_SDL2::Request ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x",
               ZEB_ERROR_GENERAL_INVALID_INSTANCE);
        return ZEB_ERROR_GENERAL_INVALID_INSTANCE;
    }
    DWORD result = qv::ExchangeAuthMessage(m_pSoapTrans, message, servicePath, port, securePort, address);
    if (result & ZEB_FAILURE_MASK) return result;
    WSCLOG(4, L"Auth_SDL2::Request OUT");
    return result;
}
