#include "messages/RST_Basic.h"

#include <new>

#include "Quorvantis.h"
#include "common/HeapBuffer.h"
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
}  // namespace

RST_Basic::RST_Basic(const std::wstring& info, const std::wstring& authType, const std::wstring& authenticationData)
    : m_wstrInfo(info), m_wstrAuthType(authType), m_wstrAuthenticationData(authenticationData) {}

DWORD RST_Basic::Serialize(SoapRequest* request) {
    WSCLOG(4, L"RST_Basic::Serialize IN");
    if (!request) {
        WSCLOG(1, L"RST_Basic::Serialize ERROR ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    // The body carries the user's password (inside the authentication data).
    std::wstring body;
    try {
        std::wstring header;
        header += L"<soap:Header>";
        header += L"<wsa:Action>";
        header += ns::kWstIssueAction;
        header += L"</wsa:Action>";
        header += L"<wsa:To></wsa:To>";
        header += L"</soap:Header>";

        body += L"<soap:Body>";
        body += L"<wst:RequestSecurityToken xmlns:wst=\"";
        body += ns::kWst;
        body += L"\" xmlns:wsse=\"";
        body += ns::kWsse;
        body += L"\" xmlns:wls=\"" + ns::Wls() + L"\">";
        body += L"<wst:RequestType>";
        body += ns::kWstIssueType;
        body += L"</wst:RequestType>";
        body += L"<wst:TokenType>";
        body += ns::kSaml11TokenType;
        body += L"</wst:TokenType>";
        body += L"<wls:AuthInfo>";
        // Info holds the user's domain: escaped. AuthType is the policy's and
        // the authentication data is ready-made: both as they are.
        body += L"<wls:Info>" + SoapRequest::SanitizeUserInputStr(m_wstrInfo) + L"</wls:Info>";
        body += L"<wls:AuthType>" + m_wstrAuthType + L"</wls:AuthType>";
        body += L"</wls:AuthInfo>";
        body += L"<wls:AuthenticationData>";
        body += m_wstrAuthenticationData;
        body += L"</wls:AuthenticationData>";
        body += L"</wst:RequestSecurityToken>";
        body += L"</soap:Body>";

        WSCLOG(5, L"RST_Basic::Serialize Soap Header =%s", header.c_str());
        WSCLOG(5, L"RST_Basic::Serialize Soap Body =%s", body.c_str());
        request->SetSoapHeader(header);
        request->SetSoapBody(body);
        request->SetAction(ns::kWstIssueAction);
    } catch (const std::bad_alloc&) {
        qv::SecureWipe(body);
        WSCLOG(1, L"RST_Basic::Serialize ERROR ZEB_ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    qv::SecureWipe(body);
    WSCLOG(4, L"RST_Basic::Serialize OUT");
    return 0;
}

DWORD RST_Basic::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    WSCLOG(4, L"RST_Basic::Deserialize IN");
    if (!response) {
        WSCLOG(1, L"RST_Basic::Deserialize pResponse ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    if (!mimeBoundary) {
        WSCLOG(1, L"RST_Basic::Deserialize mimeBoundary ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }

    const DWORD result = ParseLib::SoapErrorCheck(response);
    if (result & ZEB_FAILURE_MASK) {
        WSCLOG(1, L"RST_Basic::Deserialize ERROR SoapErrorCheck = %08x", result);
        return result;
    }

    // A missing assertion leaves the outputs empty; the mechanism reports
    // that as a failed login.
    try {
        m_assertionID.clear();
        m_samlToken.clear();
        WSCLOG(5, L"RST_Basic::Deserialize GetXMLDataValue. XPath = %s", kAssertionIdXPath);
        DWORD read = response->GetXMLDataValue(kAssertionIdXPath, m_assertionID);
        if (read != 0) {
            m_assertionID.clear();
            WSCLOG(5, L"RST_Basic::Deserialize GetXMLDataValue failes. ERROR = 0x%08x", read);
        } else {
            WSCLOG(5, L"RST_Basic::Deserialize GetXMLDataValue. m_assertionID = %s", m_assertionID.c_str());
        }

        WSCLOG(5, L"RST_Basic::Deserialize GetXMLString. XPath = %s", kAssertionXPath);
        read = response->GetXMLString(kAssertionXPath, m_samlToken);
        if (read != 0) {
            m_samlToken.clear();
            WSCLOG(5, L"RST_Basic::Deserialize GetXMLString failes. ERROR = 0x%08x", read);
        } else {
            WSCLOG(5, L"RST_Basic::Deserialize GetXMLString. m_samlToken = %s", m_samlToken.c_str());
        }
    } catch (const std::bad_alloc&) {
        WSCLOG(1, L"RST_Basic::Deserialize ERROR ZEB_ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"RST_Basic::Deserialize OUT");
    return 0;
}
