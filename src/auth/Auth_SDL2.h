// Challenge-response login for users held by the login service. The client
// asks for a challenge with its user ID, then answers
//   Base64(UTF-8(userId + " " + hex(HMAC-MD5(key = MD5(password), data = challenge))))
// The password itself never travels. The caller may pass the stored hex
// digest instead of the password (AUTH_FLAG_DIGEST_PASSWORD) and gets the
// digest back for storing when it logs in with the password.
#pragma once

#include <windows.h>

#include <string>

#include "auth/IAuthentication.h"

class Auth_SDL2 : public IAuthentication {
public:
    // The answer text holds at most this many user-ID characters before its
    // blank: the field it is formatted into has room for 34 characters.
    static constexpr size_t kMaxUserIdLength = 32;

    Auth_SDL2();
    ~Auth_SDL2() override;
    Auth_SDL2(const Auth_SDL2&) = delete;
    Auth_SDL2& operator=(const Auth_SDL2&) = delete;

    // digest/digestSize receive the return digest (malloc'd 66-byte wide hex
    // text with terminator, freed with free()) when logging in with the
    // password; null/0 when logging in with a stored digest.
    DWORD Authentication(CSoapTrans* transport, DWORD flags, const AuthInfo* authInfo, AuthCredential* credential,
                         std::wstring servicePath, USHORT port, USHORT securePort, std::wstring address,
                         std::wstring* assertionId, std::wstring* samlToken, BYTE** digest,
                         DWORD* digestSize) override;

private:
    friend struct Auth_SDL2Test;

    // Base64(UTF-8("SDLChallengeRequest" + userId)).
    DWORD MakeRstData(const AuthCredential* credential, std::wstring* payload);
    // The 16-byte binary password digest, from the password's ISO-8859-1
    // bytes or from the stored hex digest. *digest is malloc'd; wipe and free.
    DWORD MakePasswordDigest(DWORD flags, const AuthCredential* credential, BYTE** digest, DWORD* digestSize);
    // The 16 MD5 bytes of data.
    DWORD MakeMD5(const BYTE* data, DWORD size, BYTE** digest, DWORD* digestSize);
    DWORD MakeChallengeResponseData(const wchar_t* userId, const BYTE* digest, DWORD digestSize,
                                    const BYTE* challenge, DWORD challengeSize, std::wstring* payload);
    DWORD MakeRstrData(DWORD flags, const std::wstring& challenge, const AuthCredential* credential,
                       std::wstring* payload, BYTE** returnDigest, DWORD* returnDigestSize);
    // Lowercase hex, zero-terminated; *textSize = 2 * size (terminator not counted).
    DWORD ToHexString(const BYTE* data, DWORD size, char** text, DWORD* textSize);
    // Pairs of hex characters to bytes; an odd size is refused.
    DWORD ToByteArray(const char* text, DWORD size, BYTE** bytes, DWORD* byteSize);
    // The digest as wide lowercase hex with terminator; *byteSize counts the terminator.
    DWORD MakeReturnDigest(const BYTE* digest, DWORD size, BYTE** wideText, DWORD* byteSize);
    DWORD Request(WSRequest* message, const std::wstring& servicePath, USHORT port, USHORT securePort,
                  const std::wstring& address);

    CSoapTrans* m_pSoapTrans;  // not owned; set for each Authentication call
};
