// Challenge-response login for users held by the login service. The client
// asks for a challenge with its user ID, then answers
//   Base64(hex(MD5(hex(MD5(password)) + challenge)))
// (lowercase hex; the user ID is not in the answer). The caller may pass the
// stored hex digest instead of the password (AUTH_FLAG_DIGEST_PASSWORD) and
// gets the digest back for storing when it logs in with the password.
#pragma once

#include <windows.h>

#include <string>

#include "auth/IAuthentication.h"

class Auth_SDL : public IAuthentication {
public:
    Auth_SDL();
    ~Auth_SDL() override;
    Auth_SDL(const Auth_SDL&) = delete;
    Auth_SDL& operator=(const Auth_SDL&) = delete;

    // digest/digestSize receive the return digest (malloc'd 66-byte wide hex
    // text with terminator, freed with free()) when logging in with the
    // password; null/0 when logging in with a stored digest.
    DWORD Authentication(CSoapTrans* transport, DWORD flags, const AuthInfo* authInfo, AuthCredential* credential,
                         std::wstring servicePath, USHORT port, USHORT securePort, std::wstring address,
                         std::wstring* assertionId, std::wstring* samlToken, BYTE** digest,
                         DWORD* digestSize) override;

private:
    friend struct Auth_SDLTest;

    // Base64(UTF-8("SDLChallengeRequest" + userId)).
    DWORD MakeRstData(const AuthCredential* credential, std::wstring* payload);
    // The password digest as lowercase hex ASCII (32 characters), from the
    // password's ISO-8859-1 bytes or the stored digest text. *digest is
    // malloc'd and zero-terminated; wipe and free.
    DWORD MakePasswordDigest(DWORD flags, const AuthCredential* credential, char** digest, DWORD* digestSize);
    // MD5 of data as 32 lowercase hex ASCII characters (zero-terminated).
    DWORD MakeMD5(const BYTE* data, DWORD size, char** digest, DWORD* digestSize);
    DWORD MakeChallengeResponseData(const char* digest, DWORD digestSize, const BYTE* challenge,
                                    DWORD challengeSize, std::wstring* payload);
    DWORD MakeRstrData(DWORD flags, const std::wstring& challenge, const AuthCredential* credential,
                       std::wstring* payload, BYTE** returnDigest, DWORD* returnDigestSize);
    DWORD Request(WSRequest* message, const std::wstring& servicePath, USHORT port, USHORT securePort,
                  const std::wstring& address);

    CSoapTrans* m_pSoapTrans;  // not owned; set for each Authentication call
};
