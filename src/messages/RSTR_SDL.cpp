#include "messages/RSTR_SDL.h"

#include "soap/Namespaces.h"

namespace {
constexpr const wchar_t* kClassName = L"RSTR_SDL";
}  // namespace

RSTR_SDL::RSTR_SDL(const std::wstring& authenticationData, const std::wstring& context)
    : m_wstrAuthenticationData(authenticationData), m_wstrContext(context) {}

DWORD RSTR_SDL::Serialize(SoapRequest* request) {
    // The body carries the password digest.
    return SerializeEnvelope(kClassName, request, BodyText::Secret, [this](Envelope& envelope) {
        // The context and the digest are the server's and the mechanism's own
        // texts: not escaped. wls is declared before the context.
        MakeIssueResponse(envelope, L" xmlns:wls=\"" + ns::Wls() + L"\" wst:Context=\"" + m_wstrContext + L"\"",
                          m_wstrAuthenticationData);
        return 0;
    });
}

DWORD RSTR_SDL::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    // A wrong digest comes back as a login fault. A missing assertion leaves
    // the outputs empty; the mechanism reports that as a failed login.
    return DeserializeAnswer(kClassName, response, mimeBoundary, L"pResponse", [&] {
        ReadAssertion(kClassName, response, m_assertionID, m_samlToken);
        return 0;
    });
}
