#include "messages/RSTR_NTLM.h"

#include "soap/Namespaces.h"

namespace {
constexpr const wchar_t* kClassName = L"RSTR_NTLM";
constexpr const wchar_t* kNameIdentifierXPath =
    L"soap:Body/wst:RequestSecurityTokenResponse/wst:RequestedSecurityToken/samlv11:Assertion/"
    L"samlv11:AuthenticationStatement/samlv11:Subject/samlv11:NameIdentifier";
}  // namespace

RSTR_NTLM::RSTR_NTLM(const std::wstring& authenticationData, const std::wstring& context)
    : m_wstrAuthenticationData(authenticationData), m_wstrContext(context) {}

DWORD RSTR_NTLM::Serialize(SoapRequest* request) {
    return SerializeEnvelope(kClassName, request, BodyText::Plain, [this](Envelope& envelope) {
        // The context and the authenticate token (Base64) are the server's and
        // the mechanism's own texts: not escaped. This message declares wls
        // after the context attribute, RSTR_SDL before it; each keeps its order.
        MakeIssueResponse(envelope, L" wst:Context=\"" + m_wstrContext + L"\" xmlns:wls=\"" + ns::Wls() + L"\"",
                          m_wstrAuthenticationData);
        return 0;
    });
}

DWORD RSTR_NTLM::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    // A wrong answer to the challenge comes back as a login fault. A missing
    // assertion leaves the outputs empty; the mechanism reports that as a
    // failed login.
    return DeserializeAnswer(kClassName, response, mimeBoundary, L"pResponse", [&] {
        ReadAssertion(kClassName, response, m_assertionID, m_samlToken);
        // The name the server logged the Windows user in under. It is a text
        // value, though these log lines have always said GetXMLString.
        ReadValue(kClassName, response, Read::DataValue, kNameIdentifierXPath, m_wstrUserName, L"m_wstrUserName",
                  L"GetXMLString");
        return 0;
    });
}
