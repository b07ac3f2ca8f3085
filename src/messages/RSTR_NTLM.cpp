#include "messages/RSTR_NTLM.h"

#include <new>

#include "Quorvantis.h"
#include "log/WSCLog.h"
#include "messages/ParseLib.h"
#include "soap/Namespaces.h"
#include "soap/SoapRequest.h"
#include "soap/SoapResponse.h"

namespace {
constexpr const wchar_t* kAssertionIdXPath =
    L"soap:Body/wst:RequestSecurityTokenResponse/wst:RequestedSecurityToken/samlv11:Assertion/@AssertionID";
constexpr const wchar_t* kAssertionXPath =
    L"soap:Body/wst:RequestSecurityTokenResponse/wst:RequestedSecurityToken/samlv11:Assertion";
constexpr const wchar_t* kNameIdentifierXPath =
    L"soap:Body/wst:RequestSecurityTokenResponse/wst:RequestedSecurityToken/samlv11:Assertion/"
    L"samlv11:AuthenticationStatement/samlv11:Subject/samlv11:NameIdentifier";
}  // namespace

RSTR_NTLM::RSTR_NTLM(const std::wstring& authenticationData, const std::wstring& context)
    : m_wstrAuthenticationData(authenticationData), m_wstrContext(context) {}

DWORD RSTR_NTLM::Serialize(SoapRequest* request) {
    WSCLOG(4, L"RSTR_NTLM::Serialize IN");
    if (!request) {
        WSCLOG(1, L"RSTR_NTLM::Serialize ERROR ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    std::wstring body;
    try {
        std::wstring header;
        header += L"<soap:Header>";
        header += L"<wsa:Action>";
        header += ns::kWstIssueResponseAction;
        header += L"</wsa:Action>";
        header += L"<wsa:To></wsa:To>";
        header += L"</soap:Header>";

        // The context and the authenticate token (Base64) are the server's and
        // the mechanism's own texts: not escaped. This message declares wls
        // after the context attribute, RSTR_SDL before it; each keeps its order.
        body += L"<soap:Body>";
        body += L"<wst:RequestSecurityTokenResponse xmlns:wst=\"";
        body += ns::kWst;
        body += L"\" xmlns:wsse=\"";
        body += ns::kWsse;
        body += L"\" wst:Context=\"" + m_wstrContext + L"\" ";
        body += L"xmlns:wls=\"" + ns::Wls() + L"\">";
        body += L"<wst:RequestType>";
        body += ns::kWstIssueType;
        body += L"</wst:RequestType>";
        body += L"<wls:AuthenticationData>";
        body += m_wstrAuthenticationData;
        body += L"</wls:AuthenticationData>";
        body += L"</wst:RequestSecurityTokenResponse>";
        body += L"</soap:Body>";

        WSCLOG(5, L"RSTR_NTLM::Serialize Soap Header =%s", header.c_str());
        WSCLOG(5, L"RSTR_NTLM::Serialize Soap Body =%s", body.c_str());
        request->SetSoapHeader(header);
        request->SetSoapBody(body);
        request->SetAction(ns::kWstIssueResponseAction);
    } catch (const std::bad_alloc&) {
        WSCLOG(1, L"RSTR_NTLM::Serialize ERROR ZEB_ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"RSTR_NTLM::Serialize OUT");
    return 0;
}

DWORD RSTR_NTLM::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    WSCLOG(4, L"RSTR_NTLM::Deserialize IN");
    if (!response) {
        WSCLOG(1, L"RSTR_NTLM::Deserialize pResponse ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    if (!mimeBoundary) {
        WSCLOG(1, L"RSTR_NTLM::Deserialize mimeBoundary ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }

    // A wrong answer to the challenge comes back here as a login fault.
    const DWORD result = ParseLib::SoapErrorCheck(response);
    if (result & ZEB_FAILURE_MASK) {
        WSCLOG(1, L"RSTR_NTLM::Deserialize ERROR SoapErrorCheck = %08x", result);
        return result;
    }

    // A missing assertion leaves the outputs empty; the mechanism reports
    // that as a failed login.
    try {
        m_assertionID.clear();
        m_samlToken.clear();
        WSCLOG(5, L"RSTR_NTLM::Deserialize GetXMLDataValue. XPath = %s", kAssertionIdXPath);
        DWORD read = response->GetXMLDataValue(kAssertionIdXPath, m_assertionID);
        if (read != 0) {
            m_assertionID.clear();
            WSCLOG(5, L"RSTR_NTLM::Deserialize GetXMLDataValue failes. ERROR = 0x%08x", read);
        } else {
            WSCLOG(5, L"RSTR_NTLM::Deserialize GetXMLDataValue. m_assertionID = %s", m_assertionID.c_str());
        }

        WSCLOG(5, L"RSTR_NTLM::Deserialize GetXMLString. XPath = %s", kAssertionXPath);
        read = response->GetXMLString(kAssertionXPath, m_samlToken);
        if (read != 0) {
            m_samlToken.clear();
            WSCLOG(5, L"RSTR_NTLM::Deserialize GetXMLString failes. ERROR = 0x%08x", read);
        } else {
            WSCLOG(5, L"RSTR_NTLM::Deserialize GetXMLString. m_samlToken = %s", m_samlToken.c_str());
        }

        // The name the server logged the Windows user in under. It is a text
        // value, though these log lines have always said GetXMLString.
        m_wstrUserName.clear();
        WSCLOG(5, L"RSTR_NTLM::Deserialize GetXMLString. XPath = %s", kNameIdentifierXPath);
        read = response->GetXMLDataValue(kNameIdentifierXPath, m_wstrUserName);
        if (read != 0) {
            m_wstrUserName.clear();
            WSCLOG(5, L"RSTR_NTLM::Deserialize GetXMLString failes. ERROR = 0x%08x", read);
        } else {
            WSCLOG(5, L"RSTR_NTLM::Deserialize GetXMLString. m_wstrUserName = %s", m_wstrUserName.c_str());
        }
    } catch (const std::bad_alloc&) {
        WSCLOG(1, L"RSTR_NTLM::Deserialize ERROR ZEB_ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"RSTR_NTLM::Deserialize OUT");
    return 0;
}
