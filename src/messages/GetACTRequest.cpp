#include "messages/GetACTRequest.h"

#include <cstdlib>
#include <cwchar>
#include <utility>

#include "Quorvantis.h"
#include "log/WSCLog.h"
#include "soap/Namespaces.h"
#include "soap/SoapRequest.h"
#include "soap/SoapResponse.h"

namespace {
constexpr const wchar_t* kClassName = L"GetACTRequest";
constexpr const wchar_t* kACTXPath = L"soap:Body/zeb:GetACTResponse/zeb:ACTEntry/zeb:ACTBinary";
constexpr const wchar_t* kSignatureXPath = L"soap:Body/zeb:GetACTResponse/zeb:ACTEntry/zeb:ACTSignature";

// The inline Base64 text of an element, as opposed to an MTOM attachment.
constexpr DWORD kDataTypeText = 1;

// A malloc'd copy of `text` (the client takes it over and frees it).
wchar_t* DuplicateText(const std::wstring& text) {
    wchar_t* copy = static_cast<wchar_t*>(std::calloc(text.size() + 1, sizeof(wchar_t)));
    if (copy && !text.empty()) std::wmemcpy(copy, text.data(), text.size());
    return copy;
}
}  // namespace

GetACTRequest::GetACTRequest(const std::wstring& securityHeader, const std::wstring& fpName,
                             const std::wstring& hmacAlgorithm, const std::wstring& hmacKeyStrength,
                             const std::wstring& publicKeyAlgorithm, const std::wstring& publicKeyStrength,
                             const std::wstring& cipherData, std::deque<std::wstring> acvValues)
    : m_wstrSecurityHeader(securityHeader),
      m_wstrFPName(fpName),
      m_wstrHMACAlgorithm(hmacAlgorithm),
      m_wstrHMACKeyStrength(hmacKeyStrength),
      m_wstrPublicKeyAlgorithm(publicKeyAlgorithm),
      m_wstrPublicKeyStrength(publicKeyStrength),
      m_wstrCipherData(cipherData),
      m_acvValues(std::move(acvValues)),
      m_pACT(nullptr),
      m_dwACTDataType(0),
      m_dwACTDataSize(0),
      m_pSignature(nullptr),
      m_dwSignatureDataType(0),
      m_dwSignatureDataSize(0) {}

GetACTRequest::~GetACTRequest() {
    std::free(m_pACT);
    std::free(m_pSignature);
}

wchar_t* GetACTRequest::DetachACT() {
    wchar_t* text = m_pACT;
    m_pACT = nullptr;
    return text;
}

wchar_t* GetACTRequest::DetachSignature() {
    wchar_t* text = m_pSignature;
    m_pSignature = nullptr;
    return text;
}

DWORD GetACTRequest::Serialize(SoapRequest* request) {
    return SerializeEnvelope(kClassName, request, BodyText::Plain, [this](Envelope& envelope) {
        // The message identifier names the wsa:Action element (wsu:Id).
        std::wstring messageId;
        const DWORD result = NewMessageIdFor(kClassName, messageId);
        if (result != 0) return result;

        const std::wstring zeb = ns::Zeb();
        envelope.action = zeb + L"/GetACT";
        envelope.header = SecuredHeader(envelope.action, messageId, m_wstrSecurityHeader);

        // Only FPName comes from the user; the other values are the module's
        // own and go in unchanged.
        std::wstring& body = envelope.body;
        body += L"<soap:Body>";
        body += L"<GetACTRequest xmlns=\"" + zeb + L"\">";
        body += L"<ACTParameter>";
        body += L"<FPIDType>0</FPIDType>";
        body += L"<FPName>" + SoapRequest::SanitizeUserInputStr(m_wstrFPName) + L"</FPName>";
        body += L"<CryptoInfo>";
        body += L"<HMACInfo>";
        body += L"<HMACAlgorithm>" + m_wstrHMACAlgorithm + L"</HMACAlgorithm>";
        body += L"<HMACKeyStrength>" + m_wstrHMACKeyStrength + L"</HMACKeyStrength>";
        body += L"</HMACInfo>";
        body += L"<EncryptKeyInfo>";
        body += L"<EncryptKeyAlgorithm>0</EncryptKeyAlgorithm>";
        body += L"<EncryptKeyStrength>0</EncryptKeyStrength>";
        body += L"</EncryptKeyInfo>";
        body += L"<PublicKeyInfo>";
        body += L"<PublicKeyAlgorithm>" + m_wstrPublicKeyAlgorithm + L"</PublicKeyAlgorithm>";
        body += L"<PublicKeyStrength>" + m_wstrPublicKeyStrength + L"</PublicKeyStrength>";
        body += L"</PublicKeyInfo>";
        body += L"<CipherDataInfo>";
        if (m_wstrCipherData.empty())
            body += L"<CipherData/>";
        else
            body += L"<CipherData>" + m_wstrCipherData + L"</CipherData>";
        body += L"</CipherDataInfo>";
        body += L"</CryptoInfo>";
        body += L"<SecurityInfoCreationMode>1</SecurityInfoCreationMode>";
        body += L"<UserExtraInfoCreationMode>0</UserExtraInfoCreationMode>";
        body += L"<LegacyDeviceValidMode>1</LegacyDeviceValidMode>";
        body += L"<ACVArray>";
        // The queue is consumed: a second Serialize sends an empty ACVArray.
        while (!m_acvValues.empty()) {
            body += L"<ACVValue>" + m_acvValues.front() + L"</ACVValue>";
            m_acvValues.pop_front();
        }
        body += L"</ACVArray>";
        body += L"</ACTParameter>";
        body += L"</GetACTRequest>";
        body += L"</soap:Body>";
        return DWORD{0};
    });
}

DWORD GetACTRequest::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    // The boundary is checked for presence only: the token is always read as
    // inline text. A missing element gives an empty text; the client decides
    // what an empty token means.
    return DeserializeAnswer(kClassName, response, mimeBoundary, L"ERROR", [&]() -> DWORD {
        std::wstring actText;
        ReadValue(kClassName, response, Read::DataValue, kACTXPath, actText, nullptr);
        WSCLOG(5, L"GetACTRequest::Deserialize GetXMLDataValue. actstr = %s", actText.c_str());
        wchar_t* act = DuplicateText(actText);
        if (!act) {
            WSCLOG(1, L"GetACTRequest::Deserialize ERROR ACTBinary Data = %08x", ZEB_ERROR_OUTOFMEMORY);
            return ZEB_ERROR_OUTOFMEMORY;
        }
        std::free(m_pACT);
        m_pACT = act;
        m_dwACTDataSize = static_cast<DWORD>(actText.size());
        m_dwACTDataType = kDataTypeText;
        WSCLOG(5, L"GetACTRequest::Deserialize ACTBinary No MIMEBoundary Type");
        WSCLOG(5, L"GetACTRequest::Deserialize ACTBinary Info Data Size = %d", static_cast<int>(m_dwACTDataSize));
        WSCLOG(5, L"GetACTRequest::Deserialize ACTBinary Info Data Type = %d", static_cast<int>(m_dwACTDataType));

        std::wstring signatureText;
        ReadValue(kClassName, response, Read::DataValue, kSignatureXPath, signatureText, nullptr);
        WSCLOG(5, L"GetACTRequest::Deserialize GetXMLDataValue. signaturestr = %s", signatureText.c_str());
        wchar_t* signature = DuplicateText(signatureText);
        if (!signature) {
            WSCLOG(1, L"GetACTRequest::Deserialize ERROR ACTSignature Data = %08x", ZEB_ERROR_OUTOFMEMORY);
            return ZEB_ERROR_OUTOFMEMORY;
        }
        std::free(m_pSignature);
        m_pSignature = signature;
        m_dwSignatureDataSize = static_cast<DWORD>(signatureText.size());
        m_dwSignatureDataType = kDataTypeText;
        WSCLOG(5, L"GetACTRequest::Deserialize Signature No MIMEBoundary Type");
        WSCLOG(5, L"GetACTRequest::Deserialize Signature Info Data Size = %d",
               static_cast<int>(m_dwSignatureDataSize));
        WSCLOG(5, L"GetACTRequest::Deserialize Signature Info Data Type = %d",
               static_cast<int>(m_dwSignatureDataType));
        return 0;
    });
}
