#include "messages/RST_Basic.h"

#include "Quorvantis.h"
#include "common/HeapBuffer.h"
#include "soap/SoapRequest.h"

namespace {
constexpr const wchar_t* kClassName = L"RST_Basic";
}  // namespace

RST_Basic::RST_Basic(const std::wstring& info, const std::wstring& authType, const std::wstring& authenticationData)
    : m_wstrInfo(info), m_wstrAuthType(authType), m_wstrAuthenticationData(authenticationData) {}

RST_Basic::~RST_Basic() { qv::SecureWipe(m_wstrAuthenticationData); }

DWORD RST_Basic::Serialize(SoapRequest* request) {
    // The body carries the user's password (inside the authentication data).
    return SerializeEnvelope(kClassName, request, BodyText::Secret, [this](Envelope& envelope) {
        // Info holds the user's domain: escaped. AuthType is the policy's and
        // the authentication data is ready-made: both as they are.
        MakeIssueRequest(envelope, SoapRequest::SanitizeUserInputStr(m_wstrInfo), m_wstrAuthType,
                         m_wstrAuthenticationData);
        return 0;
    });
}

DWORD RST_Basic::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    // A missing assertion leaves the outputs empty; the mechanism reports
    // that as a failed login.
    return DeserializeAnswer(kClassName, response, mimeBoundary, L"pResponse", [&] {
        ReadAssertion(kClassName, response, m_assertionID, m_samlToken);
        return 0;
    });
}
