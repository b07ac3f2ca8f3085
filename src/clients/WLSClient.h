// Client of the login service for one server: owns the transport session,
// fetches the login policy, authenticates a user through the mechanism the
// policy names, keeps the SAML assertion and cancels it on Close.
#pragma once

#include <memory>
#include <string>

#include "Quorvantis.h"

class CSoapTrans;
class WSRequest;

class WLSClient {
public:
    explicit WLSClient(const std::wstring& address);
    virtual ~WLSClient();
    WLSClient(const WLSClient&) = delete;
    WLSClient& operator=(const WLSClient&) = delete;

    DWORD Open(DWORD flags);
    DWORD OpenIPv6(DWORD flags);
    // *list is a malloc'd array of *count records that the host owns.
    DWORD GetPolicy(DWORD* count, AuthInfo** list, DWORD* flag);
    DWORD Authentication(DWORD flags, const AuthInfo* authInfo, AuthCredential* credential, BYTE** output,
                         DWORD* outputSize);
    DWORD Request(CSoapTrans* transport, WSRequest* message, const std::wstring& servicePath);
    DWORD Close();

    bool IsOpen() const { return static_cast<bool>(m_pSoapTrans); }
    const std::wstring& Address() const { return m_wstrAddress; }
    const std::wstring& AssertionId() const { return m_wstrAuthResult; }
    const std::wstring& SecurityToken() const { return m_wstrSecurityToken; }

protected:
    // Opens the transport; a seam so that tests can stand in for the network.
    virtual DWORD OpenSoapTrans(CSoapTrans* transport, DWORD flags);

    std::wstring m_wstrAddress;
    USHORT m_usPort;
    USHORT m_usSecurePort;
    std::wstring m_wstrPolicyServiceUrl;
    std::wstring m_wstrSTSUrl;
    std::wstring m_wstrAuthResult;      // the SAML assertion ID
    std::wstring m_wstrSecurityToken;   // the SAML assertion XML
    std::unique_ptr<CSoapTrans> m_pSoapTrans;
};
