#include "transport/CSoapTrans.h"

#include <cstdlib>
#include <new>

#include "Quorvantis.h"
#include "common/HeapBuffer.h"
#include "common/SecretString.h"
#include "config/AddinSettings.h"
#include "log/WSCLog.h"
#include "soap/SoapRequest.h"
#include "soap/SoapResponse.h"

namespace {

// 0 and 1 are success; a server error is passed on like success so that the
// fault it carries can be read.
bool CarriesResponse(DWORD code) { return code == 0 || code == 1 || code == ZEB_ERROR_HTTP_SERVER_ERROR; }

}  // namespace

CSoapTrans::CSoapTrans(const std::wstring& hostName, USHORT port, USHORT securePort)
    : m_wstrHostName(hostName), m_usPort(port), m_usSecurePort(securePort), m_bSSLMode(FALSE) {
    WSCLOG(4, L"CSoapTrans constructor IN");
    std::shared_ptr<const AddinSettings> settings = AddinSettings::Current();
    if (settings) m_dwRetryCount = settings->dwRetryCount;
    WSCLOG(4, L"CSoapTrans constructor OUT");
}

CSoapTrans::~CSoapTrans() {
    WSCLOG(4, L"CSoapTrans destructor IN");
    Close();
    WSCLOG(4, L"CSoapTrans destructor OUT");
}

DWORD CSoapTrans::Open(BOOL sslMode) {
    WSCLOG(4, L"CSoapTrans::Open IN");
    m_pWinHttp.reset(new (std::nothrow) CWinHttp(m_wstrHostName, m_usPort, m_usSecurePort));
    if (!m_pWinHttp) return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"CSoapTrans::Open new CWinHttp ZEB_ERROR = %08x");
    m_bSSLMode = sslMode;
    m_pWinHttp->SetSSLMode(sslMode);
    DWORD code = m_pWinHttp->Open();
    if (ZEB_FAILED(code)) {
        m_pWinHttp->Close();
        m_pWinHttp.reset();
    }
    WSCLOG(4, L"CSoapTrans::Open OUT");
    return code;
}

void CSoapTrans::Close() {
    WSCLOG(4, L"CSoapTrans::Close IN");
    if (m_pWinHttp) {
        m_pWinHttp->Close();
        m_pWinHttp.reset();
    }
    WSCLOG(4, L"CSoapTrans::Close OUT");
}

DWORD CSoapTrans::SetUrl(const std::wstring& servicePath) {
    WSCLOG(4, L"CSoapTrans::SetUrl IN");
    if (!m_pWinHttp)
        return QV_FAIL(ZEB_ERROR_GENERAL_INVALID_INSTANCE, L"CSoapTrans::SetUrl ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x");
    m_pWinHttp->SetObjectPath(servicePath);
    m_wstrServicePath = servicePath;
    WSCLOG(4, L"CSoapTrans::SetUrl OUT");
    return 0;
}

DWORD CSoapTrans::Request(SoapRequest* request, SoapResponse* response, const std::wstring& mtomId) {
    WSCLOG(4, L"CSoapTrans::Request IN");
    if (!request || !response)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"CSoapTrans::Request PARAMETER ZEB_ERROR = %08x");
    if (!m_pWinHttp)
        return QV_FAIL(ZEB_ERROR_GENERAL_INVALID_INSTANCE, L"CSoapTrans::Request ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x");
    // The envelope of a login carries the password or an answer made from it:
    // both copies are wiped on every way out.
    std::wstring envelope;
    qv::ScopedWipe<std::wstring> wipeEnvelope(envelope);
    {
        std::wstring returned = request->GetSoapEnvelope(envelope, m_pWinHttp->GetSSLMode(), mtomId);
        qv::SecureWipe(returned);
    }
    std::wstring action = request->GetAction();

    std::wstring responseContent;
    BYTE* responseBytes = nullptr;
    DWORD responseByteCount = 0;
    const DWORD code = SendRetryingTimeouts(Loop::Session, request, action, envelope, &responseContent,
                                            &responseBytes, &responseByteCount, mtomId);

    if (CarriesResponse(code)) {
        response->SetSoapEnvelope(responseContent);
        if (responseBytes) {
            response->SetMTOMData(responseBytes, responseByteCount);
            responseBytes = nullptr;
        }
    }
    std::free(responseBytes);
    WSCLOG(4, L"CSoapTrans::Request OUT");
    return code;
}

// Only a time-out is retried, at most RetryCount times, without a pause. The
// session's own loop also follows a redirect and logs each time-out; the
// loop after a redirect does neither, so the recursion through
// RedirectedRequest is two calls deep at most.
// NOLINTNEXTLINE(misc-no-recursion): bounded, see above.
DWORD CSoapTrans::SendRetryingTimeouts(Loop loop, SoapRequest* request, const std::wstring& action,
                                       const std::wstring& envelope, std::wstring* responseContent,
                                       BYTE** responsByteData, DWORD* responsByteDataSize,
                                       const std::wstring& mtomId) {
    DWORD code = 0;
    for (DWORD attempts = 1;; ++attempts) {
        code = m_pWinHttp->SendRequest(action, envelope, responseContent, responsByteData, responsByteDataSize,
                                       mtomId);
        if (loop == Loop::Session && code == ZEB_ERROR_WINHTTP_REDIRECT)
            code = RedirectedRequest(request, action, envelope, responseContent, responsByteData,
                                     responsByteDataSize, mtomId);
        if (code != ZEB_ERROR_WINHTTP_TIMEOUT) break;
        if (loop == Loop::Session) WSCLOG(2, L"ZEB_ERROR_WINHTTP_TIMEOUT");
        if (attempts > m_dwRetryCount) break;
    }
    return code;
}

// NOLINTNEXTLINE(misc-no-recursion): calls only the loop that follows no redirect.
DWORD CSoapTrans::RedirectedRequest(SoapRequest* request, const std::wstring& action, const std::wstring& envelope,
                                    std::wstring* responseContent, BYTE** responsByteData,
                                    DWORD* responsByteDataSize, const std::wstring& mtomId) {
    WSCLOG(4, L"CSoapTrans::RedirectedRequest IN");
    if (!request || !responseContent || !responsByteData || !responsByteDataSize)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"CSoapTrans::RedirectedRequest PARAMETER ZEB_ERROR = %08x");
    if (!m_pWinHttp)
        return QV_FAIL(ZEB_ERROR_GENERAL_INVALID_INSTANCE, L"CSoapTrans::RedirectedRequest ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x");
    // The redirect check set the channel's SSL mode: reopening connects to
    // the secure port.
    m_pWinHttp->Close();
    DWORD code = m_pWinHttp->Open();
    if (ZEB_FAILED(code)) return code;
    if (!m_pWinHttp->GetSSLMode()) return code;

    m_bSSLMode = TRUE;
    std::wstring secureEnvelope;
    qv::ScopedWipe<std::wstring> wipeEnvelope(secureEnvelope);
    {
        std::wstring returned = request->GetSoapEnvelope(secureEnvelope, TRUE, mtomId);
        qv::SecureWipe(returned);
    }
    (void)envelope;  // replaced: its addressing names the plain URL

    code = SendRetryingTimeouts(Loop::AfterRedirect, request, action, secureEnvelope, responseContent,
                                responsByteData, responsByteDataSize, mtomId);
    WSCLOG(4, L"CSoapTrans::RedirectedRequest OUT");
    return code;
}
