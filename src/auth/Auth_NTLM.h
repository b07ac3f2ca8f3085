// Windows login through the platform's NTLM package (SSPI), carried in the
// WS-Trust exchange: the negotiate token goes out in the first message, the
// server's challenge comes back, the authenticate token goes out in the
// second. By default the logged-on user's own credentials are used; with
// AUTH_FLAG_EXPLICIT_CREDENTIAL the caller's ID, password and domain. After a
// login the caller's user ID may be corrected in place to the spelling the
// server returned (same length, case/width variants only).
#pragma once

#include <windows.h>
#ifndef SECURITY_WIN32
#define SECURITY_WIN32
#endif
#include <security.h>
#include <sspi.h>

#include <string>

#include "auth/IAuthentication.h"
#include "common/Holders.h"

class Auth_NTLM : public IAuthentication {
public:
    Auth_NTLM();
    ~Auth_NTLM() override;
    Auth_NTLM(const Auth_NTLM&) = delete;
    Auth_NTLM& operator=(const Auth_NTLM&) = delete;

    // The credential record must always be given; its fields only with
    // AUTH_FLAG_EXPLICIT_CREDENTIAL. The digest outputs are never written.
    DWORD Authentication(CSoapTrans* transport, DWORD flags, const AuthInfo* authInfo, AuthCredential* credential,
                         std::wstring servicePath, USHORT port, USHORT securePort, std::wstring address,
                         std::wstring* assertionId, std::wstring* samlToken, BYTE** digest,
                         DWORD* digestSize) override;

    // SSPI error (as reported by the thread's last error) -> result code;
    // ZEB_ERROR_SSPI_GENERAL_ERROR for anything not in the table.
    static DWORD MapSspiError(DWORD error);

private:
    friend struct Auth_NTLMTest;

    // First leg: negotiate token, Base64.
    DWORD MakeRstData(DWORD flags, const AuthCredential* credential, std::wstring* payload);
    // Second leg: authenticate token for the server's Base64 challenge. Ends
    // the exchange whatever happens: context and credentials released and the
    // identity record wiped.
    DWORD MakeRstrData(const std::wstring& challenge, std::wstring* payload);
    DWORD Request(WSRequest* message, const std::wstring& servicePath, USHORT port, USHORT securePort,
                  const std::wstring& address);
    DWORD GetLogonUserDomain(std::wstring* domain);
    // Rewrites the caller's user ID with the server's spelling when the two
    // differ only in case, kana type or width and have the same length.
    void CorrectUserId(AuthCredential* credential, const std::wstring& serverUserName);
    void EndExchange();

    CSoapTrans* m_pSoapTrans;  // not owned; set for each Authentication call
    qv::UniqueSspiContext m_context;
    qv::UniqueSspiPackageInfo m_packageInfo;
    ULONG m_cbMaxToken;
    qv::UniqueSspiCredential m_credentials;
    // Points into the caller's strings; wiped when the exchange ends.
    SEC_WINNT_AUTH_IDENTITY_W m_identity;

    // The package's context call; tests substitute it to see how each leg
    // treats a status the platform rarely gives.
    decltype(&::InitializeSecurityContextW) m_pfnInitializeSecurityContext;
};
