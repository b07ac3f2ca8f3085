#include "messages/WSRequest.h"

#include <rpc.h>

#include <new>

#include "Quorvantis.h"
#include "common/HeapBuffer.h"
#include "log/TraceRedaction.h"
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
constexpr const wchar_t* kChallengeXPath = L"soap:Body/wst:RequestSecurityTokenResponse/wls:AuthenticationData";
constexpr const wchar_t* kContextXPath = L"soap:Body/wst:RequestSecurityTokenResponse/@wst:Context";
// More than the markup around and after an issue request's authentication data.
constexpr size_t kIssueRequestTailChars = 128;

void AppendAuthenticationData(std::wstring& body, const std::wstring& authenticationData) {
    body += L"<wls:AuthenticationData>";
    body += authenticationData;
    body += L"</wls:AuthenticationData>";
}
}  // namespace

DWORD WSRequest::Serialize(SoapRequest*) { return 0; }
DWORD WSRequest::Deserialize(SoapResponse*, const wchar_t*) { return 0; }

WSRequest::MessageIdStatus WSRequest::NewMessageId(std::wstring& id) {
    UUID uuid;
    // RPC_S_UUID_LOCAL_ONLY is refused too: only a full UUID names a message.
    if (UuidCreate(&uuid) != RPC_S_OK) return MessageIdStatus::CreateFailed;
    RPC_WSTR text = nullptr;
    if (UuidToStringW(&uuid, &text) != RPC_S_OK || !text) return MessageIdStatus::ToStringFailed;
    try {
        id = reinterpret_cast<const wchar_t*>(text);
    } catch (...) {
        RpcStringFreeW(&text);
        throw;
    }
    RpcStringFreeW(&text);
    return MessageIdStatus::Ok;
}

DWORD WSRequest::NewMessageIdFor(const wchar_t* className, std::wstring& id) {
    const MessageIdStatus status = NewMessageId(id);
    if (status == MessageIdStatus::CreateFailed) {
        WSCLOG(1, L"%s::Serialize UuidCreate  = %08x", className, ZEB_FAILURE_MASK);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    if (status == MessageIdStatus::ToStringFailed) {
        WSCLOG(1, L"%s::Serialize UuidToString ERROR_OUTOFMEMORY = %08x", className, ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    return 0;
}

DWORD WSRequest::SerializeEnvelope(const wchar_t* className, SoapRequest* request, BodyText bodyText,
                                   const std::function<DWORD(Envelope&)>& build) {
    WSCLOG(4, L"%s::Serialize IN", className);
    if (!request) {
        WSCLOG(1, L"%s::Serialize ERROR ERROR_INVALID_PARAMETER = %08x", className, ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    Envelope envelope;
    const auto wipe = [&] {
        if (bodyText == BodyText::Secret) qv::SecureWipe(envelope.body);
    };
    try {
        const DWORD result = build(envelope);
        if (result != 0) {
            wipe();
            return result;
        }
        WSCLOG(5, L"%s::Serialize Soap Header =%s", className,
               TraceRedaction::Show(envelope.header, TraceRedaction::Text::Request).c_str());
        WSCLOG(5, L"%s::Serialize Soap Body =%s", className,
               TraceRedaction::Show(envelope.body, TraceRedaction::Text::Request).c_str());
        request->SetSoapHeader(envelope.header);
        request->SetSoapBody(envelope.body);
        request->SetAction(envelope.action);
    } catch (const std::bad_alloc&) {
        wipe();
        return OutOfMemory(className, L"Serialize");
    }
    wipe();
    WSCLOG(4, L"%s::Serialize OUT", className);
    return 0;
}

std::wstring WSRequest::PlainHeader(const std::wstring& action) {
    std::wstring header;
    header += L"<soap:Header>";
    header += L"<wsa:Action>";
    header += action;
    header += L"</wsa:Action>";
    header += L"<wsa:To></wsa:To>";
    header += L"</soap:Header>";
    return header;
}

std::wstring WSRequest::SecuredHeader(const std::wstring& action, const std::wstring& messageId,
                                      const std::wstring& security) {
    std::wstring header;
    header += L"<soap:Header>";
    header += messageId.empty() ? std::wstring(L"<wsa:Action>") : L"<wsa:Action wsu:Id=\"Action-" + messageId + L"\">";
    header += action;
    header += L"</wsa:Action>";
    header += L"<wsa:To></wsa:To>";
    header += L"<wsse:Security soap:mustUnderstand=\"1\">";
    header += security;
    header += L"</wsse:Security>";
    header += L"</soap:Header>";
    return header;
}

void WSRequest::BeginIssueRequest(std::wstring& body, const std::wstring& info, const std::wstring& authType) {
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
    body += L"<wls:Info>" + info + L"</wls:Info>";
    body += L"<wls:AuthType>" + authType + L"</wls:AuthType>";
    body += L"</wls:AuthInfo>";
}

void WSRequest::EndIssueRequest(std::wstring& body) {
    body += L"</wst:RequestSecurityToken>";
    body += L"</soap:Body>";
}

void WSRequest::MakeIssueRequest(Envelope& envelope, const std::wstring& info, const std::wstring& authType,
                                 const std::wstring& authenticationData) {
    envelope.header = PlainHeader(ns::kWstIssueAction);
    BeginIssueRequest(envelope.body, info, authType);
    // Basic's authentication data carries the password: once it is in, the
    // body must not move to a larger block and leave a copy behind.
    envelope.body.reserve(envelope.body.size() + authenticationData.size() + kIssueRequestTailChars);
    AppendAuthenticationData(envelope.body, authenticationData);
    EndIssueRequest(envelope.body);
    envelope.action = ns::kWstIssueAction;
}

void WSRequest::MakeIssueResponse(Envelope& envelope, const std::wstring& attributes,
                                  const std::wstring& authenticationData) {
    envelope.header = PlainHeader(ns::kWstIssueResponseAction);
    std::wstring& body = envelope.body;
    body += L"<soap:Body>";
    body += L"<wst:RequestSecurityTokenResponse xmlns:wst=\"";
    body += ns::kWst;
    body += L"\" xmlns:wsse=\"";
    body += ns::kWsse;
    body += L"\"";
    body += attributes;
    body += L">";
    body += L"<wst:RequestType>";
    body += ns::kWstIssueType;
    body += L"</wst:RequestType>";
    AppendAuthenticationData(body, authenticationData);
    body += L"</wst:RequestSecurityTokenResponse>";
    body += L"</soap:Body>";
    envelope.action = ns::kWstIssueResponseAction;
}

DWORD WSRequest::CheckAnswer(const wchar_t* className, SoapResponse* response, const wchar_t* mimeBoundary,
                             const wchar_t* nullResponseWord) {
    WSCLOG(4, L"%s::Deserialize IN", className);
    if (!response) {
        WSCLOG(1, L"%s::Deserialize %s ERROR_INVALID_PARAMETER = %08x", className, nullResponseWord,
               ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    if (!mimeBoundary) {
        WSCLOG(1, L"%s::Deserialize mimeBoundary ERROR_INVALID_PARAMETER = %08x", className,
               ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    const DWORD result = ParseLib::SoapErrorCheck(response);
    if (ZEB_FAILED(result)) {
        WSCLOG(1, L"%s::Deserialize ERROR SoapErrorCheck = %08x", className, result);
        return result;
    }
    return 0;
}

DWORD WSRequest::DeserializeAnswer(const wchar_t* className, SoapResponse* response, const wchar_t* mimeBoundary,
                                   const wchar_t* nullResponseWord, const std::function<DWORD()>& read) {
    DWORD result = CheckAnswer(className, response, mimeBoundary, nullResponseWord);
    if (result != 0) return result;
    try {
        result = read();
        if (result != 0) return result;
    } catch (const std::bad_alloc&) {
        return OutOfMemory(className, L"Deserialize");
    }
    WSCLOG(4, L"%s::Deserialize OUT", className);
    return 0;
}

DWORD WSRequest::ReadValue(const wchar_t* className, SoapResponse* response, Read read, const wchar_t* xpath,
                           std::wstring& value, const wchar_t* name, const wchar_t* logAs, bool secret) {
    if (!logAs) logAs = read == Read::DataValue ? L"GetXMLDataValue" : L"GetXMLString";
    value.clear();
    WSCLOG(5, L"%s::Deserialize %s. XPath = %s", className, logAs, xpath);
    const DWORD result = read == Read::DataValue ? response->GetXMLDataValue(xpath, value)
                                                 : response->GetXMLString(xpath, value);
    if (result != 0) {
        value.clear();
        WSCLOG(5, L"%s::Deserialize %s failes. ERROR = 0x%08x", className, logAs, result);
    } else if (name) {
        WSCLOG(5, L"%s::Deserialize %s. %s = %s", className, logAs, name,
               TraceRedaction::Show(value, secret ? TraceRedaction::Text::Secret : TraceRedaction::Text::Plain).c_str());
    }
    return result;
}

void WSRequest::ReadAssertion(const wchar_t* className, SoapResponse* response, std::wstring& assertionId,
                              std::wstring& samlToken) {
    assertionId.clear();
    samlToken.clear();
    ReadValue(className, response, Read::DataValue, kAssertionIdXPath, assertionId, L"m_assertionID");
    ReadValue(className, response, Read::XmlString, kAssertionXPath, samlToken, L"m_samlToken", nullptr, true);
}

void WSRequest::ReadChallenge(const wchar_t* className, SoapResponse* response, std::wstring& challenge,
                              std::wstring& context) {
    challenge.clear();
    context.clear();
    ReadValue(className, response, Read::DataValue, kChallengeXPath, challenge, L"m_challenge");
    ReadValue(className, response, Read::DataValue, kContextXPath, context, L"m_context");
}

DWORD WSRequest::OutOfMemory(const wchar_t* className, const wchar_t* method) {
    WSCLOG(1, L"%s::%s ERROR ZEB_ERROR_OUTOFMEMORY = %08x", className, method, ZEB_ERROR_OUTOFMEMORY);
    return ZEB_ERROR_OUTOFMEMORY;
}
