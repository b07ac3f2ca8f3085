#include "messages/GetPolicyRequest.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "log/WSCLog.h"
#include "messages/ParseLib.h"
#include "soap/Namespaces.h"
#include "soap/SoapRequest.h"
#include "soap/SoapResponse.h"

namespace {
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
    WSCLOG(4, L"GetPolicyRequest::Serialize IN");
    if (!request) {
        WSCLOG(1, L"GetPolicyRequest::Serialize ERROR ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    try {
        const std::wstring wls = ns::Wls();
        const std::wstring action = wls + L"/GetPolicy";

        std::wstring header;
        header += L"<soap:Header>";
        header += L"<wsa:Action>" + action + L"</wsa:Action>";
        header += L"<wsa:To></wsa:To>";
        header += L"</soap:Header>";

        std::wstring body;
        body += L"<soap:Body>";
        body += L"<GetPolicyRequest xmlns=\"" + wls + L"\">";
        body += L"<WsEndPoint>";
        body += kWsEndPoint;
        body += L"</WsEndPoint>";
        body += L"</GetPolicyRequest>";
        body += L"</soap:Body>";

        WSCLOG(5, L"GetPolicyRequest::Serialize Soap Header =%s", header.c_str());
        WSCLOG(5, L"GetPolicyRequest::Serialize Soap Body =%s", body.c_str());
        request->SetSoapHeader(header);
        request->SetSoapBody(body);
        request->SetAction(action);
    } catch (const std::bad_alloc&) {
        WSCLOG(1, L"GetPolicyRequest::Serialize ERROR ZEB_ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"GetPolicyRequest::Serialize OUT");
    return 0;
}

DWORD GetPolicyRequest::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    WSCLOG(4, L"GetPolicyRequest::Deserialize IN");
    if (!response) {
        WSCLOG(1, L"GetPolicyRequest::Deserialize ERROR ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    if (!mimeBoundary) {
        WSCLOG(1, L"GetPolicyRequest::Deserialize mimeBoundary ERROR_INVALID_PARAMETER = %08x",
               ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }

    DWORD result = ParseLib::SoapErrorCheck(response);
    if (result & ZEB_FAILURE_MASK) {
        WSCLOG(1, L"GetPolicyRequest::Deserialize ERROR SoapErrorCheck = %08x", result);
        return result;
    }

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
