#pragma once

#include <string>

#include "Quorvantis.h"
#include "messages/WSRequest.h"

// WS-Trust issue request carrying user ID, password and domain as elements.
// The credential record is read, not owned.
class RST_Basic2 : public WSRequest {
public:
    RST_Basic2(const std::wstring& info, const std::wstring& authType, const AuthCredential* credential);
    DWORD Serialize(SoapRequest* request) override;
    DWORD Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) override;

    std::wstring m_assertionID;
    std::wstring m_samlToken;

private:
    std::wstring m_wstrInfo;
    std::wstring m_wstrAuthType;
    const AuthCredential* m_pCredential;
};
