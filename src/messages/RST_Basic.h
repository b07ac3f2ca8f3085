#pragma once

#include <string>

#include "messages/WSRequest.h"

// WS-Trust issue request carrying a mechanism's opening token.
class RST_Basic : public WSRequest {
public:
    RST_Basic(const std::wstring& info, const std::wstring& authType, const std::wstring& authenticationData);
    // The authentication data carries the password: wiped.
    ~RST_Basic();
    RST_Basic(const RST_Basic&) = delete;
    RST_Basic& operator=(const RST_Basic&) = delete;
    DWORD Serialize(SoapRequest* request) override;
    DWORD Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) override;

    std::wstring m_assertionID;
    std::wstring m_samlToken;

private:
    std::wstring m_wstrInfo;
    std::wstring m_wstrAuthType;
    std::wstring m_wstrAuthenticationData;
};
