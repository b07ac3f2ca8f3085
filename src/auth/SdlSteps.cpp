#include "auth/SdlSteps.h"

#include <cstdlib>
#include <cstring>

#include "auth/IAuthentication.h"
#include "crypto/Base64.h"
#include "crypto/KeyCrypter.h"
#include "log/StringConv.h"
#include "log/WSCLog.h"
#include "messages/RSTR_SDL.h"
#include "messages/RST_SDL.h"

namespace {
// ISO-8859-1: the password digest is taken over these bytes.
constexpr UINT kPasswordCodePage = 28591;
}  // namespace

namespace qv {

bool SdlArgumentsGiven(const void* transport, DWORD flags, const AuthInfo* authInfo, const AuthCredential* credential,
                       const std::wstring* assertionId, const std::wstring* samlToken, BYTE** digest,
                       const DWORD* digestSize) {
    return transport && authInfo && credential && credential->UserID && assertionId && samlToken && digest &&
           digestSize && ((flags & AUTH_FLAG_DIGEST_PASSWORD) || credential->Password);
}

DWORD RunSdlLogin(const wchar_t* className, const AuthInfo* authInfo, const SdlLoginSteps& steps,
                  std::wstring* assertionId, std::wstring* samlToken, BYTE** digest, DWORD* digestSize) {
    std::wstring payload;
    DWORD result = steps.makeRstData(&payload);
    if (ZEB_FAILED(result)) return result;

    RST_SDL challengeRequest(AuthInfoText(authInfo->Info), AuthInfoText(authInfo->AuthType), payload);
    result = steps.request(&challengeRequest);
    if (ZEB_FAILED(result)) return result;

    std::wstring answer;
    result = steps.makeRstrData(challengeRequest.m_challenge, &answer);
    if (ZEB_FAILED(result)) return result;

    RSTR_SDL challengeAnswer(answer, challengeRequest.m_context);
    result = steps.request(&challengeAnswer);
    if (ZEB_FAILED(result)) {
        FreeSecret(*digest, *digestSize);
        *digest = nullptr;
        *digestSize = 0;
        return result;
    }

    *assertionId = challengeAnswer.m_assertionID;
    *samlToken = challengeAnswer.m_samlToken;
    WSCLOG(4, L"%s::Authentication OUT", className);
    return 0;
}

DWORD MakeSdlRstData(const wchar_t* className, const AuthCredential* credential, std::wstring* payload) {
    WSCLOG(4, L"%s::MakeRstData IN", className);
    if (!credential || !credential->UserID || !payload) {
        // The method name in this text is the one the log has always shown.
        WSCLOG(1, L"%s::Request PARAMETER ZEB_ERROR = %08x", className, ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }

    std::wstring text = std::wstring(L"SDLChallengeRequest") + credential->UserID;
    DWORD utf8Length = 0;
    CharBuffer utf8;
    char* converted = ConvertWideToMulti(text.c_str(), CP_UTF8, &utf8Length);
    utf8.reset(converted, utf8Length);
    if (!utf8) {
        WSCLOG(1, L"%s::MakeRstData ConvertWideToMulti ZEB_ERROR = %08x", className, ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }

    *payload = Base64Encoding(reinterpret_cast<const BYTE*>(utf8.get()), utf8Length);
    if (payload->empty()) {
        WSCLOG(1, L"%s::MakeRstData Base64Encoding ChallengeReqBuf ZEB_ERROR = %08x", className,
               ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"%s::MakeRstData OUT", className);
    return 0;
}

DWORD BeginPasswordDigest(const wchar_t* className, DWORD flags, const AuthCredential* credential,
                          bool outputsGiven) {
    WSCLOG(4, L"%s::MakePasswordDigest IN", className);
    if (!credential || !outputsGiven || (!(flags & AUTH_FLAG_DIGEST_PASSWORD) && !credential->Password)) {
        WSCLOG(1, L"%s::MakePasswordDigest PARAMETER ZEB_ERROR = %08x", className, ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    return 0;
}

DWORD PasswordFieldBytes(const wchar_t* className, DWORD flags, const AuthCredential* credential,
                         SecretChars& bytes, DWORD* size) {
    const UINT codePage = (flags & AUTH_FLAG_DIGEST_PASSWORD) ? CP_UTF8 : kPasswordCodePage;
    *size = 0;
    // The size is known only once the conversion has run: two statements, so
    // that the holder wipes every byte of the password.
    char* converted = ConvertWideToMulti(credential->Password, codePage, size);
    bytes.reset(converted, *size);
    if (!bytes) {
        WSCLOG(1, L"%s::MakePasswordDigest ConvertWideToMulti ZEB_ERROR = %08x", className, ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    return 0;
}

DWORD HashMD5(const wchar_t* className, KeyCrypter& crypter, const BYTE* data, DWORD size, BYTE** hash,
              DWORD* hashSize) {
    DWORD result = crypter.Initialize(CALG_MD5, 0);
    if (ZEB_FAILED(result)) {
        WSCLOG(1, L"%s::MakeMD5 KeyCrypter.Initialize ZEB_ERROR = %08x", className, result);
        return result;
    }
    result = crypter.GetHashData(data, size, hash, hashSize);
    if (ZEB_FAILED(result)) {
        WSCLOG(1, L"%s::MakeMD5 KeyCrypter.GetHashData ZEB_ERROR = %08x", className, result);
        crypter.Clear();
        return result;
    }
    result = crypter.Clear();
    if (ZEB_FAILED(result)) {
        WSCLOG(1, L"%s::MakeMD5 KeyCrypter.Clear ZEB_ERROR = %08x", className, result);
        FreeSecret(*hash, *hashSize);
        *hash = nullptr;
        *hashSize = 0;
        return result;
    }
    return 0;
}

HostDigestStatus MakeHostDigest(const char* hex, DWORD hexLength, BYTE** wideText, DWORD* byteSize) {
    wchar_t* wideRaw = ConvertMultiToWide(hex);
    size_t textBytes = static_cast<size_t>(hexLength) * sizeof(wchar_t) + sizeof(wchar_t);
    SecretWide wide(wideRaw, textBytes);
    if (!wide) return HostDigestStatus::ConvertFailed;
    // The host frees this buffer with free(); it gets a block of its own.
    auto* buffer = static_cast<BYTE*>(std::calloc(textBytes, 1));
    if (!buffer) return HostDigestStatus::AllocFailed;
    std::memcpy(buffer, wide.get(), textBytes - sizeof(wchar_t));
    *wideText = buffer;
    *byteSize = static_cast<DWORD>(textBytes);
    return HostDigestStatus::Ok;
}

DWORD BeginSdlRstrData(const wchar_t* className, DWORD flags, const std::wstring& challenge,
                       const AuthCredential* credential, const std::wstring* payload, BYTE** returnDigest,
                       DWORD* returnDigestSize, ByteBuffer& challengeBytes) {
    WSCLOG(4, L"%s::MakeRstrData IN", className);
    if (!credential || !payload || !returnDigest || !returnDigestSize ||
        (!(flags & AUTH_FLAG_DIGEST_PASSWORD) && !credential->Password)) {
        WSCLOG(1, L"%s::MakeRstrData PARAMETER ZEB_ERROR = %08x", className, ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    *returnDigest = nullptr;
    *returnDigestSize = 0;

    DWORD challengeSize = 0;
    challengeSize = Base64Decoding(challenge, qv::out_param(challengeBytes, challengeSize));
    if (challengeSize == 0 || !challengeBytes) {
        WSCLOG(1, L"%s::MakeRstrData Base64Decoding challenge ZEB_ERROR = %08x", className, ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    return 0;
}

DWORD EndSdlRstrData(const wchar_t* className, DWORD result, BYTE** returnDigest, DWORD* returnDigestSize) {
    if (ZEB_FAILED(result)) {
        FreeSecret(*returnDigest, *returnDigestSize);
        *returnDigest = nullptr;
        *returnDigestSize = 0;
        return result;
    }
    WSCLOG(4, L"%s::MakeRstrData OUT", className);
    return 0;
}

}  // namespace qv
