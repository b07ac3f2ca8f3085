#include "messages/RST_NTLM.h"

#include "Quorvantis.h"
#include "soap/SoapRequest.h"

namespace {
constexpr const wchar_t* kClassName = L"RST_NTLM";
}  // namespace

RST_NTLM::RST_NTLM(const std::wstring& info, const std::wstring& authType, const std::wstring& authenticationData)
    : m_wstrInfo(info), m_wstrAuthType(authType), m_wstrAuthenticationData(authenticationData) {}

DWORD RST_NTLM::Serialize(SoapRequest* request) {
    return SerializeEnvelope(kClassName, request, BodyText::Plain, [this](Envelope& envelope) {
        // Info holds the user's domain: escaped. AuthType is the policy's and
        // the negotiate token is Base64: both as they are.
        MakeIssueRequest(envelope, SoapRequest::SanitizeUserInputStr(m_wstrInfo), m_wstrAuthType,
                         m_wstrAuthenticationData);
        return 0;
    });
}

DWORD RST_NTLM::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    // A missing challenge or context leaves its output empty; the mechanism
    // reports that as a failed login.
    return DeserializeAnswer(kClassName, response, mimeBoundary, L"pResponse", [&] {
        ReadChallenge(kClassName, response, m_challenge, m_context);
        return 0;
    });
}
