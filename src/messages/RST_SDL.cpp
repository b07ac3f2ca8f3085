#include "messages/RST_SDL.h"

#include <new>

#include "Quorvantis.h"
#include "log/WSCLog.h"
#include "messages/ParseLib.h"
#include "soap/Namespaces.h"
#include "soap/SoapRequest.h"
#include "soap/SoapResponse.h"

namespace {
constexpr const wchar_t* kChallengeXPath = L"soap:Body/wst:RequestSecurityTokenResponse/wls:AuthenticationData";
constexpr const wchar_t* kContextXPath = L"soap:Body/wst:RequestSecurityTokenResponse/@wst:Context";
}  // namespace

RST_SDL::RST_SDL(const std::wstring& info, const std::wstring& authType, const std::wstring& authenticationData)
    : m_wstrInfo(info), m_wstrAuthType(authType), m_wstrAuthenticationData(authenticationData) {}

DWORD RST_SDL::Serialize(SoapRequest* request) {
    WSCLOG(4, L"RST_SDL::Serialize IN");
    if (!request) {
        WSCLOG(1, L"RST_SDL::Serialize ERROR ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
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
        // Nothing is escaped here: Info and AuthType are the policy's own
        // entry and the authentication data is the mechanism's ready text.
        body += L"<wls:Info>" + m_wstrInfo + L"</wls:Info>";
        body += L"<wls:AuthType>" + m_wstrAuthType + L"</wls:AuthType>";
        body += L"</wls:AuthInfo>";
        body += L"<wls:AuthenticationData>";
        body += m_wstrAuthenticationData;
        body += L"</wls:AuthenticationData>";
        body += L"</wst:RequestSecurityToken>";
        body += L"</soap:Body>";

        WSCLOG(5, L"RST_SDL::Serialize Soap Header =%s", header.c_str());
        WSCLOG(5, L"RST_SDL::Serialize Soap Body =%s", body.c_str());
        request->SetSoapHeader(header);
        request->SetSoapBody(body);
        request->SetAction(ns::kWstIssueAction);
    } catch (const std::bad_alloc&) {
        WSCLOG(1, L"RST_SDL::Serialize ERROR ZEB_ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"RST_SDL::Serialize OUT");
    return 0;
}

DWORD RST_SDL::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    WSCLOG(4, L"RST_SDL::Deserialize IN");
    if (!response) {
        WSCLOG(1, L"RST_SDL::Deserialize pResponse ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    if (!mimeBoundary) {
        WSCLOG(1, L"RST_SDL::Deserialize mimeBoundary ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }

    const DWORD result = ParseLib::SoapErrorCheck(response);
    if (result & ZEB_FAILURE_MASK) {
        WSCLOG(1, L"RST_SDL::Deserialize ERROR SoapErrorCheck = %08x", result);
        return result;
    }

    // A missing challenge or context leaves its output empty; the mechanism
    // reports that as a failed login.
    try {
        m_challenge.clear();
        m_context.clear();
        WSCLOG(5, L"RST_SDL::Deserialize GetXMLDataValue. XPath = %s", kChallengeXPath);
        DWORD read = response->GetXMLDataValue(kChallengeXPath, m_challenge);
        if (read != 0) {
            m_challenge.clear();
            WSCLOG(5, L"RST_SDL::Deserialize GetXMLDataValue failes. ERROR = 0x%08x", read);
        } else {
            WSCLOG(5, L"RST_SDL::Deserialize GetXMLDataValue. m_challenge = %s", m_challenge.c_str());
        }

        WSCLOG(5, L"RST_SDL::Deserialize GetXMLDataValue. XPath = %s", kContextXPath);
        read = response->GetXMLDataValue(kContextXPath, m_context);
        if (read != 0) {
            m_context.clear();
            WSCLOG(5, L"RST_SDL::Deserialize GetXMLDataValue failes. ERROR = 0x%08x", read);
        } else {
            WSCLOG(5, L"RST_SDL::Deserialize GetXMLDataValue. m_context = %s", m_context.c_str());
        }
    } catch (const std::bad_alloc&) {
        WSCLOG(1, L"RST_SDL::Deserialize ERROR ZEB_ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"RST_SDL::Deserialize OUT");
    return 0;
}
