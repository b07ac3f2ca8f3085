#include "clients/WLSClient.h"

#include <cwchar>
#include <initializer_list>
#include <new>

#include "auth/IAuthentication.h"
#include "config/AddinSettings.h"
#include "log/WSCLog.h"
#include "messages/CancelRequest.h"
#include "messages/GetPolicyRequest.h"
#include "soap/SoapRequest.h"
#include "soap/SoapResponse.h"
#include "transport/CSoapTrans.h"
#include "transport/SoapExchange.h"

namespace {

// CSoapTrans::Open's answer when WinHTTP refuses the host name as given; an
// IPv6 literal then needs its brackets.
constexpr DWORD kInvalidUrl = ZEB_ERROR_WINHTTP_INVALID_URL;

}  // namespace

WLSClient::WLSClient(const std::wstring& address) : m_wstrAddress(address), m_usPort(0), m_usSecurePort(0) {
    WSCLOG(4, L"WLSClient constructor IN");
    std::shared_ptr<const AddinSettings> settings = AddinSettings::Current();
    m_usPort = settings->usPortNo;
    m_usSecurePort = settings->usSecurePortNo;
    m_wstrPolicyServiceUrl = settings->wstrPolicyServiceUrl;
    m_wstrSTSUrl = settings->wstrSTSUrl;
    WSCLOG(4, L"WLSClient constructor OUT");
}

WLSClient::~WLSClient() {
    // The transport goes first: it holds a connection to the address below.
    m_pSoapTrans.reset();
    m_wstrAuthResult.clear();
    m_wstrSecurityToken.clear();
}

DWORD WLSClient::OpenSoapTrans(CSoapTrans* transport, DWORD flags) { return transport->Open(static_cast<BOOL>(flags)); }

DWORD WLSClient::Open(DWORD flags) {
    WSCLOG(4, "WLSClient::Open IN");
    m_pSoapTrans.reset(new (std::nothrow) CSoapTrans(m_wstrAddress, m_usPort, m_usSecurePort));
    if (!m_pSoapTrans) return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"WLSClient::Open new CSoapTrans ZEB_ERROR = %08x");
    DWORD result = OpenSoapTrans(m_pSoapTrans.get(), flags);
    if (result == kInvalidUrl) {
        // Probably a bare IPv6 literal: try once more with it in brackets.
        m_pSoapTrans.reset();
        m_wstrAddress = L"[" + m_wstrAddress + L"]";
        result = OpenIPv6(flags);
    }
    if (ZEB_FAILED(result)) {
        m_pSoapTrans.reset();
        return result;
    }
    WSCLOG(4, "WLSClient::Open OUT");
    return result;
}

DWORD WLSClient::OpenIPv6(DWORD flags) {
    WSCLOG(4, "WLSClient::OpenIPv6 IN");
    m_pSoapTrans.reset(new (std::nothrow) CSoapTrans(m_wstrAddress, m_usPort, m_usSecurePort));
    if (!m_pSoapTrans) return QV_FAIL(ZEB_ERROR_OUTOFMEMORY, L"WLSClient::OpenIPv6 new CSoapTrans ZEB_ERROR = %08x");
    DWORD result = OpenSoapTrans(m_pSoapTrans.get(), flags);
    if (ZEB_FAILED(result)) {
        m_pSoapTrans.reset();
        return result;
    }
    WSCLOG(4, "WLSClient::OpenIPv6 OUT");
    return result;
}

DWORD WLSClient::Request(CSoapTrans* transport, WSRequest* message, const std::wstring& servicePath) {
    WSCLOG(4, L"WLSClient::Request IN");
    if (!transport || !message)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"WLSClient::Request PARAMETER ZEB_ERROR = %08x");
    // Unlike the device client, a 0xD50001F4 answer is not parsed for a fault
    // here: the login service's callers get the transport's code as it is.
    bool answered = false;
    const DWORD result = SoapExchange(m_wstrAddress, m_usPort, m_usSecurePort, servicePath)
                             .Run(*transport, *message, std::wstring(), SoapExchange::ServerError::Return, &answered);
    if (!answered) return result;
    WSCLOG(4, L"WLSClient::Request OUT");
    return result;
}

DWORD WLSClient::GetPolicy(DWORD* count, AuthInfo** list, DWORD* flag) {
    WSCLOG(4, L"WLSClient::GetPolicy IN");
    if (!count || !list || !flag)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"WLSClient::GetPolicy PARAMETER ZEB_ERROR = %08x");
    if (!m_pSoapTrans)
        return QV_FAIL(ZEB_ERROR_GENERAL_INVALID_INSTANCE, L"WLSClient::GetPolicy ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x");
    DWORD result = m_pSoapTrans->SetUrl(m_wstrPolicyServiceUrl);
    if (ZEB_FAILED(result)) return result;

    GetPolicyRequest message;
    result = Request(m_pSoapTrans.get(), &message, m_wstrPolicyServiceUrl);
    if (ZEB_FAILED(result)) return result;

    // Only a success (0 or 1) hands the list out and reports the secure mode;
    // a result that is neither success nor failure (a policy answer the list
    // reader could not take) leaves the outputs as they were.
    if (result == 0 || result == 1) {
        // The message's array is malloc'd: it goes to the host as it is, and
        // comes back through BufferFree.
        *count = message.GetAuthInfoCount();
        *list = message.DetachAuthInfo();
        if (m_pSoapTrans->GetSSLMode()) *flag = 1;
    }
    WSCLOG(4, L"WLSClient::GetPolicy OUT");
    return result;
}

DWORD WLSClient::Authentication(DWORD flags, const AuthInfo* authInfo, AuthCredential* credential, BYTE** output,
                                DWORD* outputSize) {
    WSCLOG(4, L"WLSClient::Authentication IN");
    if (!authInfo) return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"WLSClient::Authentication PARAMETER ZEB_ERROR = %08x");
    const qv::CredentialFit fit = qv::CheckCredentials(flags, *authInfo, credential, output, outputSize);
    if (fit == qv::CredentialFit::UnknownType)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"WLSClient::Authentication PARAMETER UnSupportedAuthType ZEB_ERROR = %08x");
    if (fit == qv::CredentialFit::Misfit)
        return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"WLSClient::Authentication PARAMETER ZEB_ERROR = %08x");
    if (!m_pSoapTrans)
        return QV_FAIL(ZEB_ERROR_GENERAL_INVALID_INSTANCE, L"WLSClient::Authentication ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x");
    DWORD result = m_pSoapTrans->SetUrl(m_wstrSTSUrl);
    if (ZEB_FAILED(result)) return result;

    std::unique_ptr<IAuthentication> mechanism = CreateAuthentication(authInfo->AuthType);
    if (!mechanism) {
        // The text names Close although Authentication writes it; log readers grep for it as it is.
        WSCLOG(1, L"WLSClient::Close GetAuthInstance UNKNOWNAUTHTYPE ZEB_ERROR = %08x",
               ZEB_ERROR_GENERAL_INVALID_INSTANCE);
        return ZEB_ERROR_GENERAL_INVALID_INSTANCE;
    }
    result = mechanism->Authentication(m_pSoapTrans.get(), flags, authInfo, credential, m_wstrSTSUrl, m_usPort,
                                       m_usSecurePort, m_wstrAddress, &m_wstrAuthResult, &m_wstrSecurityToken, output,
                                       outputSize);
    mechanism.reset();
    if (ZEB_FAILED(result)) return result;
    WSCLOG(4, L"WLSClient::Authentication OUT");
    return result;
}

DWORD WLSClient::Close() {
    WSCLOG(4, L"WLSClient::Close IN");
    if (!m_pSoapTrans)
        return QV_FAIL(ZEB_ERROR_GENERAL_INVALID_INSTANCE, L"WLSClient::Close ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x");
    DWORD result = 0;
    if (!m_wstrSecurityToken.empty()) {
        result = m_pSoapTrans->SetUrl(m_wstrSTSUrl);
        if (ZEB_FAILED(result)) return result;
        CancelRequest message(m_wstrAuthResult, m_wstrSecurityToken);
        // The token is cancelled once, whatever the server answers; a second
        // Close has nothing left to cancel.
        m_wstrAuthResult.clear();
        m_wstrSecurityToken.clear();
        result = Request(m_pSoapTrans.get(), &message, m_wstrSTSUrl);
        if (ZEB_FAILED(result)) return result;
    }
    WSCLOG(4, L"WLSClient::Close OUT");
    return result;
}
