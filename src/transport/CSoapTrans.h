// The transport session to one server: owns the HTTP channel, selects the
// service path, sends envelopes, retries time-outs (RetryCount) and follows
// the one redirect accepted (plain HTTP to the same server's secure port),
// after which the session stays secure.
#pragma once

#include <memory>
#include <string>

#include "transport/CWinHttp.h"

class SoapRequest;
class SoapResponse;

class CSoapTrans {
public:
    CSoapTrans(const std::wstring& hostName, USHORT port, USHORT securePort);
    ~CSoapTrans();
    CSoapTrans(const CSoapTrans&) = delete;
    CSoapTrans& operator=(const CSoapTrans&) = delete;

    DWORD Open(BOOL sslMode);
    void Close();
    DWORD SetUrl(const std::wstring& servicePath);
    // An empty mtomId asks for a plain SOAP exchange.
    DWORD Request(SoapRequest* request, SoapResponse* response, const std::wstring& mtomId);

    BOOL GetSSLMode() const { return m_bSSLMode; }
    const std::wstring& GetServicePath() const { return m_wstrServicePath; }
    // For tests: the channel, null when the session is closed.
    CWinHttp* GetChannel() const { return m_pWinHttp.get(); }

private:
    enum class Loop { Session, AfterRedirect };
    DWORD SendRetryingTimeouts(Loop loop, SoapRequest* request, const std::wstring& action,
                               const std::wstring& envelope, std::wstring* responseContent, BYTE** responsByteData,
                               DWORD* responsByteDataSize, const std::wstring& mtomId);
    DWORD RedirectedRequest(SoapRequest* request, const std::wstring& action, const std::wstring& envelope,
                            std::wstring* responseContent, BYTE** responsByteData, DWORD* responsByteDataSize,
                            const std::wstring& mtomId);

    std::wstring m_wstrServicePath;
    std::wstring m_wstrHostName;
    USHORT m_usPort;
    USHORT m_usSecurePort;
    BOOL m_bSSLMode;
    std::unique_ptr<CWinHttp> m_pWinHttp;
    // Taken from the current settings when the session is created.
    DWORD m_dwRetryCount = 0;
};
