// The only code that touches the network: one WinHTTP session and connection
// to one server (plain and secure port) and at most one open request. Posts
// one SOAP message, checks status and content type, reads the whole body.
// Serves one exchange at a time; the caller serialises.
#pragma once

#include <windows.h>
#include <winhttp.h>

#include <string>
#include <vector>

#include "common/HeapBuffer.h"
#include "common/Holders.h"
#include "transport/WinHttpApi.h"

class CWinHttp {
public:
    CWinHttp(const std::wstring& hostName, USHORT port, USHORT securePort);
    ~CWinHttp();
    CWinHttp(const CWinHttp&) = delete;
    CWinHttp& operator=(const CWinHttp&) = delete;

    void SetSSLMode(BOOL sslMode) { m_bSSLMode = sslMode; }
    BOOL GetSSLMode() const { return m_bSSLMode; }
    void SetObjectPath(const std::wstring& path) { m_wstrObjectPath = path; }
    const std::wstring& GetObjectPath() const { return m_wstrObjectPath; }

    DWORD Open();
    // An empty mtomId is a plain SOAP exchange. On success *responsByteData
    // (MTOM only) is a malloc'd buffer the caller owns.
    DWORD SendRequest(const std::wstring& action, const std::wstring& envelope, std::wstring* responseContent,
                      BYTE** responsByteData, DWORD* responsByteDataSize, const std::wstring& mtomId);
    void Close();
    BOOL GetPolicyInfo();
    static DWORD MapWinHttpError(DWORD error);

    // For tests: the keep-alive policy read from the policy ini.
    USHORT KeepAlivePolicy() const { return m_usKeepAlivePolicy; }
    // The WINHTTP_OPTION_DISABLE_FEATURE value the keep-alive policy gives.
    DWORD DisableFeatureValue() const;
    // Whether the channel was made with strict server trust.
    bool StrictServerCertificate() const { return m_dwStrictServerCertificate != 0; }
    // The named-proxy list given to WinHttpOpen by the last Open ("" = direct).
    const std::wstring& ProxyList() const { return m_wstrProxyList; }
    // The TLS versions offered: 1.0 to 1.3, or 1.2 and 1.3 only under strict
    // server trust.
    static DWORD SecureProtocols(bool strictServerCertificate);
    // "http=<proxy>;https=<proxy>", or "" for no proxy.
    static std::wstring BuildProxyList(const std::wstring& webProxy);
    // The one Content-Type request header line of a plain or MTOM exchange.
    static std::wstring ContentTypeHeader(const std::wstring& action, const std::wstring& mtomId);
    // Whether a response Content-Type is one the channel reads.
    static bool IsAcceptedContentType(const std::wstring& contentType);

private:
    void OfferSecureProtocols();
    DWORD _SendRequest(const std::wstring& action, const std::wstring& envelope, std::wstring* responseContent,
                       BYTE** responsByteData, DWORD* responsByteDataSize, const std::wstring& mtomId);
    DWORD OpenRequestHandle();
    DWORD SetServerTrust();
    DWORD SetRequestFeatures();
    DWORD AddContentTypeHeader(const std::wstring& action, const std::wstring& mtomId);
    DWORD SendEnvelope(const std::wstring& envelope);
    DWORD CheckStatus();
    DWORD CheckContentType();
    DWORD Request(HINTERNET hRequest, const BYTE* pBuffer, DWORD dwNumberOfBytesToWrite);
    DWORD InitRedirect();
    DWORD QueryHeaderText(DWORD infoLevel, const wchar_t* queryFailure, const wchar_t* mallocFailure,
                          std::wstring* text);
    DWORD SetLenientSecurityFlags();
    DWORD ReadBody(bool mtom, std::wstring* responseContent, BYTE** responsByteData, DWORD* responsByteDataSize);
    static bool PushBlock(std::vector<qv::ByteBuffer>* blocks, qv::ByteBuffer* block);
    static bool AppendText(std::wstring* text, const wchar_t* piece);

    // Declared so that destruction closes request, then connection, then session.
    qv::UniqueInternet m_hSession;
    qv::UniqueInternet m_hConnect;
    qv::UniqueInternet m_hRequest;
    std::wstring m_wstrObjectPath;
    std::wstring m_wstrHostName;
    USHORT m_usPort;
    USHORT m_usSecurePort;
    BOOL m_bSSLMode;
    BOOL m_bPolicyRead;
    USHORT m_usKeepAlivePolicy;
    // Taken from the current settings when the channel is created.
    std::wstring m_wstrWebProxy;
    DWORD m_dwTimeout = 20000;
    // Non-zero: no certificate error is ignored (StrictServerCertificate).
    DWORD m_dwStrictServerCertificate = 0;
    std::wstring m_wstrProxyList;
};
