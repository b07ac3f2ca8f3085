#include "messages/GetPolicyRequest.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "log/WSCLog.h"
#include "soap/Namespaces.h"
#include "soap/SoapResponse.h"

namespace {
constexpr const wchar_t* kClassName = L"GetPolicyRequest";

// The policy service's end point. No setting fills it, so the element always
// goes out empty; the server expects the element all the same.
const wchar_t* const kWsEndPoint = L"";
}  // namespace

GetPolicyRequest::GetPolicyRequest() : m_dwAuthInfoCount(0), m_pAuthInfo(nullptr) {}

GetPolicyRequest::~GetPolicyRequest() { std::free(m_pAuthInfo); }

AuthInfo* GetPolicyRequest::DetachAuthInfo() {
    AuthInfo* list = m_pAuthInfo;
    m_pAuthInfo = nullptr;
    m_dwAuthInfoCount = 0;
    return list;
}

DWORD GetPolicyRequest::Serialize(SoapRequest* request) {
    return SerializeEnvelope(kClassName, request, BodyText::Plain, [](Envelope& envelope) {
        const std::wstring wls = ns::Wls();
        envelope.action = wls + L"/GetPolicy";
        envelope.header = PlainHeader(envelope.action);
        envelope.body += L"<soap:Body>";
        envelope.body += L"<GetPolicyRequest xmlns=\"" + wls + L"\">";
        envelope.body += L"<WsEndPoint>";
        envelope.body += kWsEndPoint;
        envelope.body += L"</WsEndPoint>";
        envelope.body += L"</GetPolicyRequest>";
        envelope.body += L"</soap:Body>";
        return 0;
    });
}

DWORD GetPolicyRequest::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    DWORD result = CheckAnswer(kClassName, response, mimeBoundary, L"ERROR");
    if (result != 0) return result;

    try {
        std::vector<AuthInfo> list;
        result = response->GetAuthInfoList(&list);
        if (result != 0 || list.empty()) {
            WSCLOG(1, L"GetPolicyRequest::Deserialize GetAuthInfoList failed.");
            return result;
        }

        AuthInfo* records = static_cast<AuthInfo*>(std::calloc(list.size(), sizeof(AuthInfo)));
        if (!records) {
            WSCLOG(1, L"GetPolicyRequest::Deserialize pAuthInfo ZEB_ERROR_OUTOFMEMORY.");
            return ZEB_ERROR_OUTOFMEMORY;
        }
        for (size_t i = 0; i < list.size(); ++i) {
            std::memcpy(records[i].Info, list[i].Info, sizeof(records[i].Info));
            std::memcpy(records[i].AuthType, list[i].AuthType, sizeof(records[i].AuthType));
            records[i].bEnableCredentialCache = list[i].bEnableCredentialCache;
            WSCLOG(4, L"GetPolicyRequest::Deserialize AuthInfo Info=%s,AuthType=%s,bEnableCredentialCache=%d",
                   records[i].Info, records[i].AuthType, static_cast<int>(records[i].bEnableCredentialCache));
        }

        std::free(m_pAuthInfo);
        m_pAuthInfo = records;
        m_dwAuthInfoCount = static_cast<DWORD>(list.size());
        WSCLOG(4, L"GetPolicyRequest::Deserialize AuthInfo Count = %d", static_cast<int>(m_dwAuthInfoCount));
    } catch (const std::bad_alloc&) {
        WSCLOG(1, L"GetPolicyRequest::Deserialize pAuthInfo ZEB_ERROR_OUTOFMEMORY.");
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"GetPolicyRequest::Deserialize OUT");
    return 0;
}
