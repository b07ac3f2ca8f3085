// One operation against the server: Serialize writes its SOAP header and body
// into a request envelope; Deserialize checks the answer for a fault and keeps
// what it carries. Objects serve one exchange and are destroyed by their
// concrete type (there is no virtual destructor).
//
// The protected helpers hold the steps every message takes. Each takes the
// name of the message class, which its log lines start with, so that every
// message still logs under its own name.
#pragma once

#include <windows.h>

#include <functional>
#include <string>

class SoapRequest;
class SoapResponse;

class WSRequest {
public:
    virtual DWORD Serialize(SoapRequest* request);
    // mimeBoundary must be given (an empty text for plain exchanges).
    virtual DWORD Deserialize(SoapResponse* response, const wchar_t* mimeBoundary);

protected:
    WSRequest() = default;
    ~WSRequest() = default;

    // Outcome of making a message identifier; each message logs the failing
    // step in its own words.
    enum class MessageIdStatus { Ok, CreateFailed, ToStringFailed };
    // A new UUID in its 36-character lower-case text form. May throw
    // std::bad_alloc (callers catch it at their boundary).
    static MessageIdStatus NewMessageId(std::wstring& id);
    // NewMessageId for a Serialize step: 0, or ZEB_ERROR_OUTOFMEMORY after
    // logging which step failed.
    static DWORD NewMessageIdFor(const wchar_t* className, std::wstring& id);

    // --- Serialize ---

    // What a message puts into its request envelope.
    struct Envelope {
        std::wstring header;
        std::wstring body;
        std::wstring action;
    };
    // Whether the body carries a secret (a password or its digest): such a
    // body is wiped on every way out.
    enum class BodyText { Plain, Secret };
    // The frame of a Serialize: logs IN, refuses a null request, lets build
    // fill the envelope, logs header and body at the detail level, hands the
    // three texts to the request and logs OUT. A non-zero result of build is
    // returned as it is (build has logged it); std::bad_alloc is logged and
    // returned as ZEB_ERROR_OUTOFMEMORY.
    static DWORD SerializeEnvelope(const wchar_t* className, SoapRequest* request, BodyText bodyText,
                                   const std::function<DWORD(Envelope&)>& build);

    // <soap:Header> with the action and an empty wsa:To.
    static std::wstring PlainHeader(const std::wstring& action);
    // <soap:Header> with the action (its element named wsu:Id="Action-<messageId>"
    // when a message identifier is given), an empty wsa:To and the security
    // block.
    static std::wstring SecuredHeader(const std::wstring& action, const std::wstring& messageId,
                                      const std::wstring& security);

    // The WS-Trust issue request (RequestSecurityToken) up to and including
    // its wls:AuthInfo. info and authType go in as given: each message
    // escapes what needs it. The message appends its authentication data,
    // then EndIssueRequest closes the body.
    static void BeginIssueRequest(std::wstring& body, const std::wstring& info, const std::wstring& authType);
    static void EndIssueRequest(std::wstring& body);
    // A whole issue request carrying a ready-made wls:AuthenticationData text.
    static void MakeIssueRequest(Envelope& envelope, const std::wstring& info, const std::wstring& authType,
                                 const std::wstring& authenticationData);
    // The answer to a challenge (RequestSecurityTokenResponse) carrying a
    // ready-made wls:AuthenticationData text. attributes follow the wst and
    // wsse declarations of the opening tag (each message keeps its order of
    // the wls declaration and the context).
    static void MakeIssueResponse(Envelope& envelope, const std::wstring& attributes,
                                  const std::wstring& authenticationData);

    // --- Deserialize ---

    // The opening of a Deserialize: logs IN, refuses a missing response or
    // boundary and checks the answer for a fault. 0 when the answer may be
    // read, else the code to return (logged). nullResponseWord is the word
    // the missing-response line has before ERROR_INVALID_PARAMETER.
    static DWORD CheckAnswer(const wchar_t* className, SoapResponse* response, const wchar_t* mimeBoundary,
                             const wchar_t* nullResponseWord);
    // CheckAnswer, then read keeps what the answer carries, then OUT. A
    // non-zero result of read is returned as it is (read has logged it);
    // std::bad_alloc is logged and returned as ZEB_ERROR_OUTOFMEMORY.
    static DWORD DeserializeAnswer(const wchar_t* className, SoapResponse* response, const wchar_t* mimeBoundary,
                                   const wchar_t* nullResponseWord, const std::function<DWORD()>& read);

    // How a value is read: its text (GetXMLDataValue) or its markup (GetXMLString).
    enum class Read { DataValue, XmlString };
    // Reads the value at xpath into value, which is left empty when it is
    // missing, and logs the XPath, then the failure or "<name> = <value>".
    // logAs names the call in the log lines (null: the one made); with a null
    // name the caller logs the value itself. A secret value is logged as
    // TraceRedactSecrets says. Returns the read's result.
    static DWORD ReadValue(const wchar_t* className, SoapResponse* response, Read read, const wchar_t* xpath,
                           std::wstring& value, const wchar_t* name, const wchar_t* logAs = nullptr,
                           bool secret = false);
    // The issued SAML assertion: its ID and its markup (both emptied first).
    static void ReadAssertion(const wchar_t* className, SoapResponse* response, std::wstring& assertionId,
                              std::wstring& samlToken);
    // A challenge and its context (both emptied first).
    static void ReadChallenge(const wchar_t* className, SoapResponse* response, std::wstring& challenge,
                              std::wstring& context);

    // Logs "<className>::<method> ERROR ZEB_ERROR_OUTOFMEMORY" and returns that code.
    static DWORD OutOfMemory(const wchar_t* className, const wchar_t* method);
};
