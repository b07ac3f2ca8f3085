#include "messages/CancelRequest.h"

#include <new>

#include "Quorvantis.h"
#include "log/WSCLog.h"
#include "messages/ParseLib.h"
#include "soap/Namespaces.h"
#include "soap/SoapRequest.h"
#include "soap/SoapResponse.h"

CancelRequest::CancelRequest(const std::wstring& assertionId, const std::wstring& securityHeader)
    : m_wstrAssertionId(assertionId), m_wstrSecurityHeader(securityHeader) {}

DWORD CancelRequest::Serialize(SoapRequest* request) {
    WSCLOG(4, L"CancelRequest::Serialize IN");
    if (!request) {
        WSCLOG(1, L"CancelRequest::Serialize ERROR ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    try {
        // The security header is the assertion being cancelled.
        std::wstring header;
        header += L"<soap:Header>";
        header += L"<wsa:Action>";
        header += ns::kWstCancelAction;
        header += L"</wsa:Action>";
        header += L"<wsa:To></wsa:To>";
        header += L"<wsse:Security soap:mustUnderstand=\"1\">";
        header += m_wstrSecurityHeader;
        header += L"</wsse:Security>";
        header += L"</soap:Header>";

        // wsse is not declared here: the envelope declares it.
        std::wstring body;
        body += L"<soap:Body>";
        body += L"<wst:RequestSecurityToken xmlns:wst=\"";
        body += ns::kWst;
        body += L"\">";
        body += L"<wst:RequestType>";
        body += ns::kWstCancelType;
        body += L"</wst:RequestType>";
        body += L"<wst:CancelTarget>";
        body += L"<wsse:SecurityTokenReference>";
        body += L"<wsse:KeyIdentifier ValueType=\"";
        body += ns::kSamlAssertionIdValueType;
        body += L"\" EncodingType=\"";
        body += ns::kBase64EncodingType;
        body += L"\">";
        body += m_wstrAssertionId;
        body += L"</wsse:KeyIdentifier>";
        body += L"</wsse:SecurityTokenReference>";
        body += L"</wst:CancelTarget>";
        body += L"</wst:RequestSecurityToken>";
        body += L"</soap:Body>";

        WSCLOG(5, L"CancelRequest::Serialize Soap Header =%s", header.c_str());
        WSCLOG(5, L"CancelRequest::Serialize Soap Body =%s", body.c_str());
        request->SetSoapHeader(header);
        request->SetSoapBody(body);
        request->SetAction(ns::kWstCancelAction);
    } catch (const std::bad_alloc&) {
        WSCLOG(1, L"CancelRequest::Serialize ERROR ZEB_ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"CancelRequest::Serialize OUT");
    return 0;
}

DWORD CancelRequest::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    WSCLOG(4, L"CancelRequest::Deserialize IN");
    if (!response) {
        WSCLOG(1, L"CancelRequest::Deserialize ERROR ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    if (!mimeBoundary) {
        WSCLOG(1, L"CancelRequest::Deserialize mimeBoundary ERROR_INVALID_PARAMETER = %08x",
               ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }

    // A cancel answer carries nothing to keep; only a fault matters.
    const DWORD result = ParseLib::SoapErrorCheck(response);
    if (result & ZEB_FAILURE_MASK) {
        WSCLOG(1, L"CancelRequest::Deserialize ERROR SoapErrorCheck = %08x", result);
        return result;
    }
    WSCLOG(4, L"CancelRequest::Deserialize OUT");
    return 0;
}
