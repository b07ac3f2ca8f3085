// One operation against the server: Serialize writes its SOAP header and body
// into a request envelope; Deserialize checks the answer for a fault and keeps
// what it carries. Objects serve one exchange and are destroyed by their
// concrete type (there is no virtual destructor).
#pragma once

#include <windows.h>

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
};
