// Namespace URIs of the messages. The two service namespaces are the
// server's and come from the settings (WlsNamespace, ZebNamespace).
#pragma once

#include <string>

namespace ns {

constexpr const wchar_t* kXsd = L"http://www.w3.org/2001/XMLSchema";
constexpr const wchar_t* kXsi = L"http://www.w3.org/2001/XMLSchema-instance";
constexpr const wchar_t* kSoap = L"http://www.w3.org/2003/05/soap-envelope";
constexpr const wchar_t* kWsse = L"http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.0.xsd";
constexpr const wchar_t* kWsu = L"http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-utility-1.0.xsd";
constexpr const wchar_t* kWsa = L"http://schemas.xmlsoap.org/ws/2004/08/addressing";
constexpr const wchar_t* kWst = L"http://schemas.xmlsoap.org/ws/2005/02/trust";
constexpr const wchar_t* kWsp = L"http://schemas.xmlsoap.org/ws/2004/09/policy";
constexpr const wchar_t* kSp = L"http://schemas.xmlsoap.org/ws/2005/07/securitypolicy";
constexpr const wchar_t* kSaml11 = L"urn:oasis:names:tc:SAML:1.0:assertion";
// WS-Trust 2005/02 actions and request types.
constexpr const wchar_t* kWstIssueAction = L"http://schemas.xmlsoap.org/ws/2005/02/trust/RST/Issue";
constexpr const wchar_t* kWstIssueResponseAction = L"http://schemas.xmlsoap.org/ws/2005/02/trust/RSTR/Issue";
constexpr const wchar_t* kWstCancelAction = L"http://schemas.xmlsoap.org/ws/2005/02/trust/RST/Cancel";
constexpr const wchar_t* kWstIssueType = L"http://schemas.xmlsoap.org/ws/2005/02/trust/Issue";
constexpr const wchar_t* kWstCancelType = L"http://schemas.xmlsoap.org/ws/2005/02/trust/Cancel";
// Token profiles.
constexpr const wchar_t* kSaml11TokenType =
    L"http://docs.oasis-open.org/wss/oasis-wss-saml-token-profile-1.1#SAMLV1.1";
constexpr const wchar_t* kSamlAssertionIdValueType =
    L"http://docs.oasis-open.org/wss/2004/XX/oasis-2004XX-wss-saml-token-profile-1.0#SAMLAssertionID";
constexpr const wchar_t* kBase64EncodingType =
    L"http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-soap-message-security-1.0#Base64Binary";
// The domain of MTOM content ids (the root part is <0.{id}@example.org>).
constexpr const wchar_t* kMtomDomain = L"example.org";

// The login-service and device-service namespaces of the current settings.
std::wstring Wls();
std::wstring Zeb();

}  // namespace ns
