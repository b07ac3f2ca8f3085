#include "messages/RST_Basic2.h"

#include <new>

#include "common/HeapBuffer.h"
#include "common/SecretString.h"
#include "log/WSCLog.h"
#include "soap/Namespaces.h"
#include "soap/SoapRequest.h"

namespace {
constexpr const wchar_t* kClassName = L"RST_Basic2";
// More than the markup around and after the three values, so that the body
// never moves to a larger block once the password is in it.
constexpr size_t kCredentialsMarkupChars = 256;
}  // namespace

RST_Basic2::RST_Basic2(const std::wstring& info, const std::wstring& authType, const AuthCredential* credential)
    : m_wstrInfo(info), m_wstrAuthType(authType), m_pCredential(credential) {}

DWORD RST_Basic2::Serialize(SoapRequest* request) {
    // The body and the escaped password are wiped after use.
    return SerializeEnvelope(kClassName, request, BodyText::Secret, [this](Envelope& envelope) -> DWORD {
        if (!m_pCredential || !m_pCredential->UserID || !m_pCredential->Password || !m_pCredential->Domain)
            return QV_FAIL(ZEB_ERROR_INVALID_PARAMETER, L"RST_Basic2::Serialize PARAMETER ZEB_ERROR = %08x");
        // The password as given and escaped: both copies are wiped on every
        // way out (a plain const wchar_t* argument would make an unwiped
        // temporary).
        std::wstring given;
        std::wstring password;
        qv::ScopedWipe<std::wstring> wipeGiven(given);
        qv::ScopedWipe<std::wstring> wipePassword(password);
        envelope.header = PlainHeader(ns::kWstIssueAction);
        // Info holds the user's domain and the credentials are the user's:
        // escaped. AuthType is the policy's: as it is.
        std::wstring& body = envelope.body;
        BeginIssueRequest(body, SoapRequest::SanitizeUserInputStr(m_wstrInfo), m_wstrAuthType);
        given = m_pCredential->Password;
        password = SoapRequest::SanitizeUserInputStr(given, true);
        const std::wstring userId = SoapRequest::SanitizeUserInputStr(m_pCredential->UserID);
        const std::wstring domain = SoapRequest::SanitizeUserInputStr(m_pCredential->Domain);
        body.reserve(body.size() + userId.size() + password.size() + domain.size() + kCredentialsMarkupChars);
        body += L"<wls:BasicAuthenticationData><wls:Id>";
        body += userId;
        body += L"</wls:Id><wls:Password>";
        body += password;
        body += L"</wls:Password><wls:Domain>";
        body += domain;
        body += L"</wls:Domain></wls:BasicAuthenticationData>";
        EndIssueRequest(body);
        envelope.action = ns::kWstIssueAction;
        return 0;
    });
}

DWORD RST_Basic2::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    // A missing assertion leaves the outputs empty; the mechanism reports
    // that as a failed login.
    return DeserializeAnswer(kClassName, response, mimeBoundary, L"pResponse", [&] {
        ReadAssertion(kClassName, response, m_assertionID, m_samlToken);
        return 0;
    });
}
