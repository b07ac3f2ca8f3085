#include "messages/RSTR_SDL.h"

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

RSTR_SDL::RSTR_SDL(const std::wstring& authenticationData, const std::wstring& context)
    : m_wstrAuthenticationData(authenticationData), m_wstrContext(context) {}

DWORD RSTR_SDL::Serialize(SoapRequest* request) {
    WSCLOG(4, L"RSTR_SDL::Serialize IN");
    if (!request) {
        WSCLOG(1, L"RSTR_SDL::Serialize ERROR ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    // The body carries the password digest.
    std::wstring body;
    try {
        std::wstring header;
        header += L"<soap:Header>";
        header += L"<wsa:Action>";
        header += ns::kWstIssueResponseAction;
        header += L"</wsa:Action>";
        header += L"<wsa:To></wsa:To>";
        header += L"</soap:Header>";

        // The context and the digest are the server's and the mechanism's own
        // texts: not escaped.
        body += L"<soap:Body>";
        body += L"<wst:RequestSecurityTokenResponse xmlns:wst=\"";
        body += ns::kWst;
        body += L"\" xmlns:wsse=\"";
        body += ns::kWsse;
        body += L"\" xmlns:wls=\"" + ns::Wls() + L"\"";
        body += L" wst:Context=\"" + m_wstrContext + L"\">";
        body += L"<wst:RequestType>";
        body += ns::kWstIssueType;
        body += L"</wst:RequestType>";
        body += L"<wls:AuthenticationData>";
        body += m_wstrAuthenticationData;
        body += L"</wls:AuthenticationData>";
        body += L"</wst:RequestSecurityTokenResponse>";
        body += L"</soap:Body>";

        WSCLOG(5, L"RSTR_SDL::Serialize Soap Header =%s", header.c_str());
        WSCLOG(5, L"RSTR_SDL::Serialize Soap Body =%s", body.c_str());
        request->SetSoapHeader(header);
        request->SetSoapBody(body);
        request->SetAction(ns::kWstIssueResponseAction);
    } catch (const std::bad_alloc&) {
        qv::SecureWipe(body);
        WSCLOG(1, L"RSTR_SDL::Serialize ERROR ZEB_ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    qv::SecureWipe(body);
    WSCLOG(4, L"RSTR_SDL::Serialize OUT");
    return 0;
}

DWORD RSTR_SDL::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    WSCLOG(4, L"RSTR_SDL::Deserialize IN");
    if (!response) {
        WSCLOG(1, L"RSTR_SDL::Deserialize pResponse ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    if (!mimeBoundary) {
        WSCLOG(1, L"RSTR_SDL::Deserialize mimeBoundary ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }

    // A wrong digest comes back here as a login fault.
    const DWORD result = ParseLib::SoapErrorCheck(response);
    if (result & ZEB_FAILURE_MASK) {
        WSCLOG(1, L"RSTR_SDL::Deserialize ERROR SoapErrorCheck = %08x", result);
        return result;
    }

    // A missing assertion leaves the outputs empty; the mechanism reports
    // that as a failed login.
    try {
        m_assertionID.clear();
        m_samlToken.clear();
        WSCLOG(5, L"RSTR_SDL::Deserialize GetXMLDataValue. XPath = %s", kAssertionIdXPath);
        DWORD read = response->GetXMLDataValue(kAssertionIdXPath, m_assertionID);
        if (read != 0) {
            m_assertionID.clear();
            WSCLOG(5, L"RSTR_SDL::Deserialize GetXMLDataValue failes. ERROR = 0x%08x", read);
        } else {
            WSCLOG(5, L"RSTR_SDL::Deserialize GetXMLDataValue. m_assertionID = %s", m_assertionID.c_str());
        }

        WSCLOG(5, L"RSTR_SDL::Deserialize GetXMLString. XPath = %s", kAssertionXPath);
        read = response->GetXMLString(kAssertionXPath, m_samlToken);
        if (read != 0) {
            m_samlToken.clear();
            WSCLOG(5, L"RSTR_SDL::Deserialize GetXMLString failes. ERROR = 0x%08x", read);
        } else {
            WSCLOG(5, L"RSTR_SDL::Deserialize GetXMLString. m_samlToken = %s", m_samlToken.c_str());
        }
    } catch (const std::bad_alloc&) {
        WSCLOG(1, L"RSTR_SDL::Deserialize ERROR ZEB_ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"RSTR_SDL::Deserialize OUT");
    return 0;
}
