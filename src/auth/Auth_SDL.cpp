#include "auth/Auth_SDL.h"

#include <cstring>

#include "auth/SdlSteps.h"
#include "common/HeapBuffer.h"
#include "crypto/Base64.h"
#include "crypto/KeyCrypter.h"
#include "log/WSCLog.h"

namespace {
constexpr const wchar_t* kClassName = L"Auth_SDL";
constexpr DWORD kMD5Size = 16;
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
    if (!qv::SdlArgumentsGiven(transport, flags, authInfo, credential, assertionId, samlToken, digest, digestSize))
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"Auth_SDL::Authentication PARAMETER ZEB_ERROR = %08x");
    m_pSoapTrans = transport;

    qv::SdlLoginSteps steps;
    steps.makeRstData = [&](std::wstring* payload) { return MakeRstData(credential, payload); };
    steps.makeRstrData = [&](const std::wstring& challenge, std::wstring* answer) {
        return MakeRstrData(flags, challenge, credential, answer, digest, digestSize);
    };
    steps.request = [&](WSRequest* message) { return Request(message, servicePath, port, securePort, address); };
    return qv::RunSdlLogin(kClassName, authInfo, steps, assertionId, samlToken, digest, digestSize);
}

DWORD Auth_SDL::MakeRstData(const AuthCredential* credential, std::wstring* payload) {
    return qv::MakeSdlRstData(kClassName, credential, payload);
}

DWORD Auth_SDL::MakePasswordDigest(DWORD flags, const AuthCredential* credential, char** digest,
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
        // The password field holds the hex digest an earlier login returned;
        // its text is the digest.
        *digestSize = static_cast<DWORD>(lstrlenW(credential->Password));
        *digest = text.release();
        WSCLOG(4, L"Auth_SDL::MakePasswordDigest OUT");
        return 0;
    }
    result = MakeMD5(reinterpret_cast<const BYTE*>(text.get()), textLength, digest, digestSize);
    if (ZEB_FAILED(result)) return result;
    WSCLOG(4, L"Auth_SDL::MakePasswordDigest OUT");
    return result;
}

DWORD Auth_SDL::MakeMD5(const BYTE* data, DWORD size, char** digest, DWORD* digestSize) {
    WSCLOG(4, L"Auth_SDL::MakeMD5 IN");
    if (!data || !digest || !digestSize)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"Auth_SDL::MakeMD5 PARAMETER ZEB_ERROR = %08x");
    *digest = nullptr;
    *digestSize = 0;

    qv::SecretBytes hash;
    DWORD hashSize = 0;
    // The crypter lives to the end of the step, as its release is logged.
    KeyCrypter crypter;
    DWORD result = qv::HashMD5(kClassName, crypter, data, size, qv::out_param(hash, hashSize), &hashSize);
    if (ZEB_FAILED(result)) return result;

    const DWORD hexBytes = hashSize < kMD5Size ? hashSize : kMD5Size;
    char* hex = qv::HexText(hash.get(), hexBytes);
    if (!hex) return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"Auth_SDL::MakeMD5 malloc ZEB_ERROR = %08x");
    *digest = hex;
    *digestSize = hexBytes * 2;
    WSCLOG(4, L"Auth_SDL::MakeMD5 OUT");
    return 0;
}

DWORD Auth_SDL::MakeChallengeResponseData(const char* digest, DWORD digestSize, const BYTE* challenge,
                                          DWORD challengeSize, std::wstring* payload) {
    WSCLOG(4, L"Auth_SDL::MakeChallengeResponseData IN");
    if (!challenge || challengeSize == 0 || !payload || (digestSize && !digest))
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"Auth_SDL::MakeChallengeResponseData PARAMETER ZEB_ERROR = %08x");

    size_t total = static_cast<size_t>(digestSize) + challengeSize;
    qv::SecretBytes challengeResponse;
    if (!challengeResponse.allocate(total))
        return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"Auth_SDL::MakeChallengeResponseData malloc challengeResponse ZEB_ERROR = %08x");
    // Without a digest (empty password) the challenge is hashed alone.
    if (digestSize) std::memcpy(challengeResponse.get(), digest, digestSize);
    std::memcpy(challengeResponse.get() + digestSize, challenge, challengeSize);

    qv::CharBuffer answer;
    DWORD answerSize = 0;
    DWORD result =
        MakeMD5(challengeResponse.get(), static_cast<DWORD>(total), qv::out_param(answer, answerSize), &answerSize);
    if (ZEB_FAILED(result)) return result;

    *payload = Base64Encoding(reinterpret_cast<const BYTE*>(answer.get()), answerSize);
    if (payload->empty())
        return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"Auth_SDL::MakeChallengeResponseData Base64Encoding challengeResponseData ZEB_ERROR = %08x");
    WSCLOG(4, L"Auth_SDL::MakeChallengeResponseData OUT");
    return 0;
}

DWORD Auth_SDL::MakeRstrData(DWORD flags, const std::wstring& challenge, const AuthCredential* credential,
                             std::wstring* payload, BYTE** returnDigest, DWORD* returnDigestSize) {
    qv::ByteBuffer challengeBytes;
    DWORD result = qv::BeginSdlRstrData(kClassName, flags, challenge, credential, payload, returnDigest,
                                        returnDigestSize, challengeBytes);
    if (result != 0) return result;

    qv::SecretChars digest;
    DWORD digestSize = 0;
    if (qv::HasPassword(credential)) {
        char* digestRaw = nullptr;
        result = MakePasswordDigest(flags, credential, &digestRaw, &digestSize);
        // The buffer may be longer than the digest size (stored-digest text).
        digest.reset(digestRaw, digestRaw ? std::strlen(digestRaw) : 0);
        if (ZEB_FAILED(result)) return result;
        // A caller that logged in with a stored digest already holds it.
        if (!(flags & AUTH_FLAG_DIGEST_PASSWORD) &&
            qv::MakeHostDigest(digest.get(), digestSize, returnDigest, returnDigestSize) !=
                qv::HostDigestStatus::Ok) {
            WSCLOG(1, L"Auth_SDL::MakeRstrData malloc PasswordDigest ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
            return ZEB_ERROR_OUTOFMEMORY;
        }
    }

    result = MakeChallengeResponseData(digest.get(), digestSize, challengeBytes.get(),
                                       static_cast<DWORD>(challengeBytes.bytes()), payload);
    return qv::EndSdlRstrData(kClassName, result, returnDigest, returnDigestSize);
}

DWORD Auth_SDL::Request(WSRequest* message, const std::wstring& servicePath, USHORT port, USHORT securePort,
                        const std::wstring& address) {
    return qv::AuthRequestStep(L"Auth_SDL", m_pSoapTrans, message, servicePath, port, securePort, address);
}
