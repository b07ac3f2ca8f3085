#include "messages/CancelRequest.h"

#include "soap/Namespaces.h"

namespace {
constexpr const wchar_t* kClassName = L"CancelRequest";
}  // namespace

CancelRequest::CancelRequest(const std::wstring& assertionId, const std::wstring& securityHeader)
    : m_wstrAssertionId(assertionId), m_wstrSecurityHeader(securityHeader) {}

DWORD CancelRequest::Serialize(SoapRequest* request) {
    return SerializeEnvelope(kClassName, request, BodyText::Plain, [this](Envelope& envelope) {
        // The security header is the assertion being cancelled.
        envelope.header = SecuredHeader(ns::kWstCancelAction, std::wstring(), m_wstrSecurityHeader);

        // wsse is not declared here: the envelope declares it.
        std::wstring& body = envelope.body;
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
        envelope.action = ns::kWstCancelAction;
        return 0;
    });
}

DWORD CancelRequest::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    // A cancel answer carries nothing to keep; only a fault matters.
    return DeserializeAnswer(kClassName, response, mimeBoundary, L"ERROR", [] { return 0; });
}
