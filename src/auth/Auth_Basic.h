// One-shot login: user ID, password and domain packed into a small XML
// fragment, sent as UTF-8 Base64 in one request-security-token message whose
// answer carries the SAML assertion. The flags are ignored.
#pragma once

#include <windows.h>

#include <string>

#include "auth/IAuthentication.h"

class Auth_Basic : public IAuthentication {
public:
    Auth_Basic();
    ~Auth_Basic() override;
    Auth_Basic(const Auth_Basic&) = delete;
    Auth_Basic& operator=(const Auth_Basic&) = delete;

    DWORD Authentication(CSoapTrans* transport, DWORD flags, const AuthInfo* authInfo, AuthCredential* credential,
                         std::wstring servicePath, USHORT port, USHORT securePort, std::wstring address,
                         std::wstring* assertionId, std::wstring* samlToken, BYTE** digest,
                         DWORD* digestSize) override;

private:
    friend struct Auth_BasicTest;

    // Base64 of the UTF-8 fragment
    // <wls:ID>id</wls:ID><wls:PASSWORD>pw</wls:PASSWORD><wls:Domain>dom</wls:Domain>.
    DWORD MakeRstData(const AuthCredential* credential, std::wstring* payload);
    DWORD Request(WSRequest* message, const std::wstring& servicePath, USHORT port, USHORT securePort,
                  const std::wstring& address);

    CSoapTrans* m_pSoapTrans;  // not owned; set for each Authentication call
};
