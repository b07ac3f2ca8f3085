#pragma once

#include <string>

#include "messages/WSRequest.h"

// WS-Trust issue request carrying a mechanism's opening token.
class RST_NTLM : public WSRequest {
public:
    RST_NTLM(const std::wstring& info, const std::wstring& authType, const std::wstring& authenticationData);
    DWORD Serialize(SoapRequest* request) override;
    DWORD Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) override;

    std::wstring m_challenge;
    std::wstring m_context;

private:
    std::wstring m_wstrInfo;
    std::wstring m_wstrAuthType;
    std::wstring m_wstrAuthenticationData;
};
