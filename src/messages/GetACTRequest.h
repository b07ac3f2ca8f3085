#pragma once

#include <deque>
#include <string>

#include "messages/WSRequest.h"

// The access-control token with its signature. Serialize consumes the ACV
// queue, so each attempt needs a new object.
class GetACTRequest : public WSRequest {
public:
    GetACTRequest(const std::wstring& securityHeader, const std::wstring& fpName, const std::wstring& hmacAlgorithm,
                  const std::wstring& hmacKeyStrength, const std::wstring& publicKeyAlgorithm,
                  const std::wstring& publicKeyStrength, const std::wstring& cipherData,
                  std::deque<std::wstring> acvValues);
    ~GetACTRequest();
    DWORD Serialize(SoapRequest* request) override;
    DWORD Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) override;

    // Type 1: the element's inline Base64 text; sizes in UTF-16 code units.
    // Detach* hands the malloc'd text over (free() it).
    const wchar_t* GetACTText() const { return m_pACT; }
    DWORD GetACTDataType() const { return m_dwACTDataType; }
    DWORD GetACTDataSize() const { return m_dwACTDataSize; }
    wchar_t* DetachACT();
    const wchar_t* GetSignatureText() const { return m_pSignature; }
    DWORD GetSignatureDataType() const { return m_dwSignatureDataType; }
    DWORD GetSignatureDataSize() const { return m_dwSignatureDataSize; }
    wchar_t* DetachSignature();
    const std::deque<std::wstring>& AcvValues() const { return m_acvValues; }

private:
    std::wstring m_wstrSecurityHeader;
    std::wstring m_wstrFPName;
    std::wstring m_wstrHMACAlgorithm;
    std::wstring m_wstrHMACKeyStrength;
    std::wstring m_wstrPublicKeyAlgorithm;
    std::wstring m_wstrPublicKeyStrength;
    std::wstring m_wstrCipherData;
    std::deque<std::wstring> m_acvValues;
    wchar_t* m_pACT;
    DWORD m_dwACTDataType;
    DWORD m_dwACTDataSize;
    wchar_t* m_pSignature;
    DWORD m_dwSignatureDataType;
    DWORD m_dwSignatureDataSize;
};
