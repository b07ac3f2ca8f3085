#include "messages/RST_Basic2.h"

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

RST_Basic2::RST_Basic2(const std::wstring& info, const std::wstring& authType, const AuthCredential* credential)
    : m_wstrInfo(info), m_wstrAuthType(authType), m_pCredential(credential) {}

DWORD RST_Basic2::Serialize(SoapRequest* request) {
    WSCLOG(4, L"RST_Basic2::Serialize IN");
    if (!request) {
        WSCLOG(1, L"RST_Basic2::Serialize ERROR ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    if (!m_pCredential || !m_pCredential->UserID || !m_pCredential->Password || !m_pCredential->Domain) {
        WSCLOG(1, L"RST_Basic2::Serialize PARAMETER ZEB_ERROR = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    // The body and the escaped password are wiped after use.
    std::wstring body;
    std::wstring password;
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
        // Info holds the user's domain and the credentials are the user's:
        // escaped. AuthType is the policy's: as it is.
        body += L"<wls:Info>" + SoapRequest::SanitizeUserInputStr(m_wstrInfo) + L"</wls:Info>";
        body += L"<wls:AuthType>" + m_wstrAuthType + L"</wls:AuthType>";
        body += L"</wls:AuthInfo>";
        password = SoapRequest::SanitizeUserInputStr(m_pCredential->Password);
        body += L"<wls:BasicAuthenticationData><wls:Id>";
        body += SoapRequest::SanitizeUserInputStr(m_pCredential->UserID);
        body += L"</wls:Id><wls:Password>";
        body += password;
        body += L"</wls:Password><wls:Domain>";
        body += SoapRequest::SanitizeUserInputStr(m_pCredential->Domain);
        body += L"</wls:Domain></wls:BasicAuthenticationData>";
        body += L"</wst:RequestSecurityToken>";
        body += L"</soap:Body>";

        WSCLOG(5, L"RST_Basic2::Serialize Soap Header =%s", header.c_str());
        WSCLOG(5, L"RST_Basic2::Serialize Soap Body =%s", body.c_str());
        request->SetSoapHeader(header);
        request->SetSoapBody(body);
        request->SetAction(ns::kWstIssueAction);
    } catch (const std::bad_alloc&) {
        qv::SecureWipe(body);
        qv::SecureWipe(password);
        WSCLOG(1, L"RST_Basic2::Serialize ERROR ZEB_ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    qv::SecureWipe(body);
    qv::SecureWipe(password);
    WSCLOG(4, L"RST_Basic2::Serialize OUT");
    return 0;
}

DWORD RST_Basic2::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    WSCLOG(4, L"RST_Basic2::Deserialize IN");
    if (!response) {
        WSCLOG(1, L"RST_Basic2::Deserialize pResponse ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    if (!mimeBoundary) {
        WSCLOG(1, L"RST_Basic2::Deserialize mimeBoundary ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }

    const DWORD result = ParseLib::SoapErrorCheck(response);
    if (result & ZEB_FAILURE_MASK) {
        WSCLOG(1, L"RST_Basic2::Deserialize ERROR SoapErrorCheck = %08x", result);
        return result;
    }

    // A missing assertion leaves the outputs empty; the mechanism reports
    // that as a failed login.
    try {
        m_assertionID.clear();
        m_samlToken.clear();
        WSCLOG(5, L"RST_Basic2::Deserialize GetXMLDataValue. XPath = %s", kAssertionIdXPath);
        DWORD read = response->GetXMLDataValue(kAssertionIdXPath, m_assertionID);
        if (read != 0) {
            m_assertionID.clear();
            WSCLOG(5, L"RST_Basic2::Deserialize GetXMLDataValue failes. ERROR = 0x%08x", read);
        } else {
            WSCLOG(5, L"RST_Basic2::Deserialize GetXMLDataValue. m_assertionID = %s", m_assertionID.c_str());
        }

        WSCLOG(5, L"RST_Basic2::Deserialize GetXMLString. XPath = %s", kAssertionXPath);
        read = response->GetXMLString(kAssertionXPath, m_samlToken);
        if (read != 0) {
            m_samlToken.clear();
            WSCLOG(5, L"RST_Basic2::Deserialize GetXMLString failes. ERROR = 0x%08x", read);
        } else {
            WSCLOG(5, L"RST_Basic2::Deserialize GetXMLString. m_samlToken = %s", m_samlToken.c_str());
        }
    } catch (const std::bad_alloc&) {
        WSCLOG(1, L"RST_Basic2::Deserialize ERROR ZEB_ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"RST_Basic2::Deserialize OUT");
    return 0;
}
