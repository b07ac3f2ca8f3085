#pragma once

#include <string>

#include "messages/WSRequest.h"

// The device service's RSA public key.
class GetPublicKeyRequest : public WSRequest {
public:
    explicit GetPublicKeyRequest(const std::wstring& securityHeader);
    DWORD Serialize(SoapRequest* request) override;
    DWORD Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) override;

    std::wstring m_keyAlgorithm;
    std::wstring m_keyStrength;
    std::wstring m_keyLength;
    std::wstring m_key;

private:
    std::wstring m_wstrSecurityHeader;
};
