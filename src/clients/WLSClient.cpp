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

namespace {

// CSoapTrans::Open's answer when WinHTTP refuses the host name as given; an
// IPv6 literal then needs its brackets.
constexpr DWORD kInvalidUrl = ZEB_ERROR_WINHTTP_INVALID_URL;

bool IsOneOf(const wchar_t* type, std::initializer_list<const wchar_t*> names) {
    for (const wchar_t* name : names)
        if (wcscmp(type, name) == 0) return true;
    return false;
}

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

DWORD WLSClient::OpenSoapTrans(CSoapTrans* transport, DWORD flags) { return transport->Open(flags); }

DWORD WLSClient::Open(DWORD flags) {
    WSCLOG(4, "WLSClient::Open IN");
    m_pSoapTrans.reset(new (std::nothrow) CSoapTrans(m_wstrAddress, m_usPort, m_usSecurePort));
    if (!m_pSoapTrans) {
        WSCLOG(1, L"WLSClient::Open new CSoapTrans ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
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
    if (!m_pSoapTrans) {
        WSCLOG(1, L"WLSClient::OpenIPv6 new CSoapTrans ZEB_ERROR = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
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
    if (!transport || !message) {
        WSCLOG(1, L"WLSClient::Request PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    SoapRequest request(m_wstrAddress, m_usPort, m_usSecurePort, servicePath);
    DWORD result = message->Serialize(&request);
    if (ZEB_FAILED(result)) return result;

    // Unlike the device client, a 0xD50001F4 answer is not parsed for a fault
    // here: the login service's callers get the transport's code as it is.
    SoapResponse response;
    result = transport->Request(&request, &response, std::wstring());
    if (ZEB_FAILED(result)) return result;

    result = message->Deserialize(&response, L"");
    WSCLOG(4, L"WLSClient::Request OUT");
    return result;
}

DWORD WLSClient::GetPolicy(DWORD* count, AuthInfo** list, DWORD* flag) {
    WSCLOG(4, L"WLSClient::GetPolicy IN");
    if (!count || !list || !flag) {
        WSCLOG(1, L"WLSClient::GetPolicy PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    if (!m_pSoapTrans) {
        WSCLOG(1, L"WLSClient::GetPolicy ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x",
               ZEB_ERROR_GENERAL_INVALID_INSTANCE);
        return ZEB_ERROR_GENERAL_INVALID_INSTANCE;
    }
    DWORD result = m_pSoapTrans->SetUrl(m_wstrPolicyServiceUrl);
    if (ZEB_FAILED(result)) return result;

    GetPolicyRequest message;
    result = Request(m_pSoapTrans.get(), &message, m_wstrPolicyServiceUrl);
    if (ZEB_FAILED(result)) return result;

    // The message's array is malloc'd: it goes to the host as it is, and comes
    // back through BufferFree.
    *count = message.GetAuthInfoCount();
    *list = message.DetachAuthInfo();
    if (m_pSoapTrans->GetSSLMode()) *flag = 1;
    WSCLOG(4, L"WLSClient::GetPolicy OUT");
    return result;
}

DWORD WLSClient::Authentication(DWORD flags, const AuthInfo* authInfo, AuthCredential* credential, BYTE** output,
                                DWORD* outputSize) {
    WSCLOG(4, L"WLSClient::Authentication IN");
    if (!authInfo) {
        WSCLOG(1, L"WLSClient::Authentication PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    const wchar_t* type = authInfo->AuthType;
    // A name filling the whole fixed array has no terminator: it names nothing.
    const size_t typeChars = sizeof(authInfo->AuthType) / sizeof(authInfo->AuthType[0]);
    const bool terminated = wcsnlen(type, typeChars) < typeChars;
    auto allThree = [&] { return credential && credential->UserID && credential->Password && credential->Domain; };
    bool fits;
    if (terminated && IsOneOf(type, {L"NTLM"})) {
        fits = !(flags & AUTH_FLAG_EXPLICIT_CREDENTIAL) || allThree();
    } else if (terminated && IsOneOf(type, {L"SDL", L"SDL2"})) {
        fits = credential && credential->UserID && ((flags & AUTH_FLAG_DIGEST_PASSWORD) || credential->Password) &&
               (!(flags & AUTH_FLAG_RETURN_DIGEST) || (output && outputSize));
    } else if (terminated && IsOneOf(type, {L"Basic", L"Basic2"})) {
        fits = allThree();
    } else {
        WSCLOG(1, L"WLSClient::Authentication PARAMETER UnSupportedAuthType ZEB_ERROR = %08x",
               ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    if (!fits) {
        WSCLOG(1, L"WLSClient::Authentication PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    if (!m_pSoapTrans) {
        WSCLOG(1, L"WLSClient::Authentication ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x",
               ZEB_ERROR_GENERAL_INVALID_INSTANCE);
        return ZEB_ERROR_GENERAL_INVALID_INSTANCE;
    }
    DWORD result = m_pSoapTrans->SetUrl(m_wstrSTSUrl);
    if (ZEB_FAILED(result)) return result;

    IAuthentication* mechanism = CreateAuthentication(type);
    if (!mechanism) {
        // The text names Close although Authentication writes it; log readers grep for it as it is.
        WSCLOG(1, L"WLSClient::Close GetAuthInstance UNKNOWNAUTHTYPE ZEB_ERROR = %08x",
               ZEB_ERROR_GENERAL_INVALID_INSTANCE);
        return ZEB_ERROR_GENERAL_INVALID_INSTANCE;
    }
    result = mechanism->Authentication(m_pSoapTrans.get(), flags, authInfo, credential, m_wstrSTSUrl, m_usPort,
                                       m_usSecurePort, m_wstrAddress, &m_wstrAuthResult, &m_wstrSecurityToken, output,
                                       outputSize);
    delete mechanism;
    if (ZEB_FAILED(result)) return result;
    WSCLOG(4, L"WLSClient::Authentication OUT");
    return result;
}

DWORD WLSClient::Close() {
    WSCLOG(4, L"WLSClient::Close IN");
    if (!m_pSoapTrans) {
        WSCLOG(1, L"WLSClient::Close ZEB_ERROR_GENERAL_INVALID_INSTANCE ZEB_ERROR = %08x",
               ZEB_ERROR_GENERAL_INVALID_INSTANCE);
        return ZEB_ERROR_GENERAL_INVALID_INSTANCE;
    }
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
