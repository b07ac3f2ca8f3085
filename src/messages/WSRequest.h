// One operation against the server: Serialize writes its SOAP header and body
// into a request envelope; Deserialize checks the answer for a fault and keeps
// what it carries. Objects serve one exchange and are destroyed by their
// concrete type (there is no virtual destructor).
#pragma once

#include <windows.h>

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
};
