#include "messages/RST_SDL.h"

namespace {
constexpr const wchar_t* kClassName = L"RST_SDL";
}  // namespace

RST_SDL::RST_SDL(const std::wstring& info, const std::wstring& authType, const std::wstring& authenticationData)
    : m_wstrInfo(info), m_wstrAuthType(authType), m_wstrAuthenticationData(authenticationData) {}

DWORD RST_SDL::Serialize(SoapRequest* request) {
    return SerializeEnvelope(kClassName, request, BodyText::Plain, [this](Envelope& envelope) {
        // Nothing is escaped here: Info and AuthType are the policy's own
        // entry and the authentication data is the mechanism's ready text.
        MakeIssueRequest(envelope, m_wstrInfo, m_wstrAuthType, m_wstrAuthenticationData);
        return 0;
    });
}

DWORD RST_SDL::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    // A missing challenge or context leaves its output empty; the mechanism
    // reports that as a failed login.
    return DeserializeAnswer(kClassName, response, mimeBoundary, L"pResponse", [&] {
        ReadChallenge(kClassName, response, m_challenge, m_context);
        return 0;
    });
}
