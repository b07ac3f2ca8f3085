#pragma once

#include <string>

#include "messages/WSRequest.h"

// WS-Trust cancel of an issued assertion, sent when a session closes.
class CancelRequest : public WSRequest {
public:
    CancelRequest(const std::wstring& assertionId, const std::wstring& securityHeader);
    DWORD Serialize(SoapRequest* request) override;
    DWORD Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) override;

private:
    std::wstring m_wstrAssertionId;
    std::wstring m_wstrSecurityHeader;
};
