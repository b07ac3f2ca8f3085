// The steps SDL and SDL2 share. Each takes the name of the mechanism class,
// which its log lines start with, so that both still log under their own
// names; what differs (the digest's form, the answer's formula) stays with
// the mechanism.
#pragma once

#include <windows.h>

#include <functional>
#include <string>

#include "Quorvantis.h"
#include "auth/HexDigest.h"
#include "common/HeapBuffer.h"

class KeyCrypter;
class WSRequest;

namespace qv {

// Authentication's arguments: all given, and a password unless the caller
// passes the stored digest.
bool SdlArgumentsGiven(const void* transport, DWORD flags, const AuthInfo* authInfo, const AuthCredential* credential,
                       const std::wstring* assertionId, const std::wstring* samlToken, BYTE** digest,
                       const DWORD* digestSize);

// The mechanism's own steps, as Authentication has bound them.
struct SdlLoginSteps {
    std::function<DWORD(std::wstring* payload)> makeRstData;
    // Fills the answer and the return digest.
    std::function<DWORD(const std::wstring& challenge, std::wstring* answer)> makeRstrData;
    std::function<DWORD(WSRequest* message)> request;
};
// Authentication once its arguments passed: the challenge request, the
// answer sent with the server's context (the return digest is freed again
// when the answer is refused), the assertion handed back, then OUT.
DWORD RunSdlLogin(const wchar_t* className, const AuthInfo* authInfo, const SdlLoginSteps& steps,
                  std::wstring* assertionId, std::wstring* samlToken, BYTE** digest, DWORD* digestSize);

// MakeRstData: Base64(UTF-8("SDLChallengeRequest" + userId)).
DWORD MakeSdlRstData(const wchar_t* className, const AuthCredential* credential, std::wstring* payload);

// MakePasswordDigest's opening: IN and the argument check (outputsGiven:
// both outputs are there).
DWORD BeginPasswordDigest(const wchar_t* className, DWORD flags, const AuthCredential* credential,
                          bool outputsGiven);
// The password field as bytes: the stored hex digest's text in UTF-8 with
// AUTH_FLAG_DIGEST_PASSWORD, else the password in ISO-8859-1 (characters
// outside it best-fitted by the platform).
DWORD PasswordFieldBytes(const wchar_t* className, DWORD flags, const AuthCredential* credential,
                         SecretChars& bytes, DWORD* size);

// The 16 MD5 bytes of data through the caller's crypter, logged as the
// MakeMD5 step. *hash is malloc'd.
DWORD HashMD5(const wchar_t* className, KeyCrypter& crypter, const BYTE* data, DWORD size, BYTE** hash,
              DWORD* hashSize);

// The hex digest as the host receives it: wide text with terminator in a
// malloc'd block of its own; *byteSize counts the terminator.
enum class HostDigestStatus { Ok, ConvertFailed, AllocFailed };
HostDigestStatus MakeHostDigest(const char* hex, DWORD hexLength, BYTE** wideText, DWORD* byteSize);

// MakeRstrData's opening: IN, the argument check, the return digest cleared
// and the challenge decoded from Base64.
DWORD BeginSdlRstrData(const wchar_t* className, DWORD flags, const std::wstring& challenge,
                       const AuthCredential* credential, const std::wstring* payload, BYTE** returnDigest,
                       DWORD* returnDigestSize, ByteBuffer& challengeBytes);
// MakeRstrData's end: a failed answer frees the return digest again; else OUT.
DWORD EndSdlRstrData(const wchar_t* className, DWORD result, BYTE** returnDigest, DWORD* returnDigestSize);

// Whether the credential holds a non-empty password field.
inline bool HasPassword(const AuthCredential* credential) {
    return credential->Password && credential->Password[0] != L'\0';
}

}  // namespace qv
