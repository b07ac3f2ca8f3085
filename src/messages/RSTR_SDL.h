#pragma once

#include <string>

#include "messages/WSRequest.h"

// Answer to an SDL/SDL2 challenge, echoing the context.
class RSTR_SDL : public WSRequest {
public:
    RSTR_SDL(const std::wstring& authenticationData, const std::wstring& context);
    DWORD Serialize(SoapRequest* request) override;
    DWORD Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) override;

    std::wstring m_assertionID;
    std::wstring m_samlToken;

private:
    std::wstring m_wstrAuthenticationData;
    std::wstring m_wstrContext;
};
