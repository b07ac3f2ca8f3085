#pragma once

#include <deque>
#include <string>

#include "common/HeapBuffer.h"
#include "messages/WSRequest.h"

struct GetACTTokenLines;

// The access-control token with its signature. Serialize consumes the ACV
// queue, so each attempt needs a new object.
class GetACTRequest : public WSRequest {
public:
    // How an answer delivers the ACT and its signature.
    enum DataType : DWORD {
        kDataText = 1,    // the element's inline Base64 text (sizes in UTF-16 code units)
        kDataBinary = 2,  // raw bytes (sizes in bytes), as an attachment would
    };

    GetACTRequest(const std::wstring& securityHeader, const std::wstring& fpName, const std::wstring& hmacAlgorithm,
                  const std::wstring& hmacKeyStrength, const std::wstring& publicKeyAlgorithm,
                  const std::wstring& publicKeyStrength, const std::wstring& cipherData,
                  std::deque<std::wstring> acvValues);
    DWORD Serialize(SoapRequest* request) override;
    DWORD Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) override;

    // This message always reads kDataText. Detach* hands the malloc'd text
    // over (free() it).
    const wchar_t* GetACTText() const { return m_act.text.get(); }
    DWORD GetACTDataType() const { return m_act.type; }
    DWORD GetACTDataSize() const { return m_act.size; }
    wchar_t* DetachACT() { return m_act.text.release(); }
    const wchar_t* GetSignatureText() const { return m_signature.text.get(); }
    DWORD GetSignatureDataType() const { return m_signature.type; }
    DWORD GetSignatureDataSize() const { return m_signature.size; }
    wchar_t* DetachSignature() { return m_signature.text.release(); }
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
    // The ACT or the signature as the answer delivered it.
    struct Token {
        qv::WideBuffer text;
        DWORD type = 0;
        DWORD size = 0;
    };
    DWORD ReadToken(SoapResponse* response, const GetACTTokenLines& lines, Token* token);
    Token m_act;
    Token m_signature;
};
