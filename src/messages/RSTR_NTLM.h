#pragma once

#include <string>

#include "messages/WSRequest.h"

// Answer to an NTLM challenge (the authenticate token), echoing the context.
class RSTR_NTLM : public WSRequest {
public:
    RSTR_NTLM(const std::wstring& authenticationData, const std::wstring& context);
    DWORD Serialize(SoapRequest* request) override;
    DWORD Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) override;

    std::wstring m_assertionID;
    std::wstring m_samlToken;
    std::wstring m_wstrUserName;  // the SAML subject's name identifier

private:
    std::wstring m_wstrAuthenticationData;
    std::wstring m_wstrContext;
};
