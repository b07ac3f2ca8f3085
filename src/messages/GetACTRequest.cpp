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

}  // namespace

// Where each token is read and the lines its reading writes.
struct GetACTTokenLines {
    const wchar_t* xpath;
    const wchar_t* value;
    const wchar_t* outOfMemory;
    const wchar_t* noBoundary;
    const wchar_t* size;
    const wchar_t* type;
};

namespace {
constexpr GetACTTokenLines kActLines = {
    kACTXPath,
    L"GetACTRequest::Deserialize GetXMLDataValue. actstr = %s",
    L"GetACTRequest::Deserialize ERROR ACTBinary Data = %08x",
    L"GetACTRequest::Deserialize ACTBinary No MIMEBoundary Type",
    L"GetACTRequest::Deserialize ACTBinary Info Data Size = %d",
    L"GetACTRequest::Deserialize ACTBinary Info Data Type = %d",
};
constexpr GetACTTokenLines kSignatureLines = {
    kSignatureXPath,
    L"GetACTRequest::Deserialize GetXMLDataValue. signaturestr = %s",
    L"GetACTRequest::Deserialize ERROR ACTSignature Data = %08x",
    L"GetACTRequest::Deserialize Signature No MIMEBoundary Type",
    L"GetACTRequest::Deserialize Signature Info Data Size = %d",
    L"GetACTRequest::Deserialize Signature Info Data Type = %d",
};
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
      m_acvValues(std::move(acvValues)) {}

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
        const DWORD result = ReadToken(response, kActLines, &m_act);
        if (result != 0) return result;
        return ReadToken(response, kSignatureLines, &m_signature);
    });
}

// A missing element gives an empty text; the client decides what an empty
// token means.
DWORD GetACTRequest::ReadToken(SoapResponse* response, const GetACTTokenLines& lines, Token* token) {
    std::wstring text;
    ReadValue(kClassName, response, Read::DataValue, lines.xpath, text, nullptr);
    WSCLOG(5, lines.value, text.c_str());
    // The client takes the copy over, terminator included.
    qv::WideBuffer copy;
    if (!copy.allocate((text.size() + 1) * sizeof(wchar_t))) {
        WSCLOG(1, lines.outOfMemory, ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    std::wmemcpy(copy.get(), text.c_str(), text.size() + 1);
    token->text = std::move(copy);
    token->size = static_cast<DWORD>(text.size());
    token->type = kDataText;
    WSCLOG(5, lines.noBoundary);
    WSCLOG(5, lines.size, static_cast<int>(token->size));
    WSCLOG(5, lines.type, static_cast<int>(token->type));
    return 0;
}
