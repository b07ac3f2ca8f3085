// One-shot login: the credential record itself goes to the request message,
// which writes user ID, password and domain as elements; the answer carries
// the SAML assertion. The flags are ignored.
#pragma once

#include <windows.h>

#include <string>

#include "auth/IAuthentication.h"

class Auth_Basic2 : public IAuthentication {
public:
    Auth_Basic2();
    ~Auth_Basic2() override;
    Auth_Basic2(const Auth_Basic2&) = delete;
    Auth_Basic2& operator=(const Auth_Basic2&) = delete;

    DWORD Authentication(CSoapTrans* transport, DWORD flags, const AuthInfo* authInfo, AuthCredential* credential,
                         std::wstring servicePath, USHORT port, USHORT securePort, std::wstring address,
                         std::wstring* assertionId, std::wstring* samlToken, BYTE** digest,
                         DWORD* digestSize) override;

private:
    friend struct Auth_Basic2Test;

    DWORD Request(WSRequest* message, const std::wstring& servicePath, USHORT port, USHORT securePort,
                  const std::wstring& address);

    CSoapTrans* m_pSoapTrans;  // not owned; set for each Authentication call
};
