#include "messages/GetACTRequest.h"

#include <cstdlib>
#include <cwchar>
#include <new>
#include <utility>

#include "Quorvantis.h"
#include "log/WSCLog.h"
#include "messages/ParseLib.h"
#include "soap/Namespaces.h"
#include "soap/SoapRequest.h"
#include "soap/SoapResponse.h"

namespace {
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
    WSCLOG(4, L"GetACTRequest::Serialize IN");
    if (!request) {
        WSCLOG(1, L"GetACTRequest::Serialize ERROR ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    try {
        // The message identifier names the wsa:Action element (wsu:Id).
        std::wstring messageId;
        const MessageIdStatus idStatus = NewMessageId(messageId);
        if (idStatus == MessageIdStatus::CreateFailed) {
            WSCLOG(1, L"GetACTRequest::Serialize UuidCreate  = %08x", ZEB_FAILURE_MASK);
            return ZEB_ERROR_OUTOFMEMORY;
        }
        if (idStatus == MessageIdStatus::ToStringFailed) {
            WSCLOG(1, L"GetACTRequest::Serialize UuidToString ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
            return ZEB_ERROR_OUTOFMEMORY;
        }

        const std::wstring zeb = ns::Zeb();
        const std::wstring action = zeb + L"/GetACT";

        std::wstring header;
        header += L"<soap:Header>";
        header += L"<wsa:Action wsu:Id=\"Action-" + messageId + L"\">";
        header += action;
        header += L"</wsa:Action>";
        header += L"<wsa:To></wsa:To>";
        header += L"<wsse:Security soap:mustUnderstand=\"1\">";
        header += m_wstrSecurityHeader;
        header += L"</wsse:Security>";
        header += L"</soap:Header>";

        // Only FPName comes from the user; the other values are the module's
        // own and go in unchanged.
        std::wstring body;
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

        WSCLOG(5, L"GetACTRequest::Serialize Soap Header =%s", header.c_str());
        WSCLOG(5, L"GetACTRequest::Serialize Soap Body =%s", body.c_str());
        request->SetSoapHeader(header);
        request->SetSoapBody(body);
        request->SetAction(action);
    } catch (const std::bad_alloc&) {
        WSCLOG(1, L"GetACTRequest::Serialize ERROR ZEB_ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"GetACTRequest::Serialize OUT");
    return 0;
}

DWORD GetACTRequest::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    WSCLOG(4, L"GetACTRequest::Deserialize IN");
    if (!response) {
        WSCLOG(1, L"GetACTRequest::Deserialize ERROR ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    // Checked for presence only: the token is always read as inline text.
    if (!mimeBoundary) {
        WSCLOG(1, L"GetACTRequest::Deserialize mimeBoundary ERROR_INVALID_PARAMETER = %08x",
               ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }

    const DWORD result = ParseLib::SoapErrorCheck(response);
    if (result & ZEB_FAILURE_MASK) {
        WSCLOG(1, L"GetACTRequest::Deserialize ERROR SoapErrorCheck = %08x", result);
        return result;
    }

    try {
        // A missing element gives an empty text; the client decides what an
        // empty token means.
        std::wstring actText;
        WSCLOG(5, L"GetACTRequest::Deserialize GetXMLDataValue. XPath = %s", kACTXPath);
        DWORD read = response->GetXMLDataValue(kACTXPath, actText);
        if (read != 0) {
            actText.clear();
            WSCLOG(5, L"GetACTRequest::Deserialize GetXMLDataValue failes. ERROR = 0x%08x", read);
        }
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
        WSCLOG(5, L"GetACTRequest::Deserialize GetXMLDataValue. XPath = %s", kSignatureXPath);
        read = response->GetXMLDataValue(kSignatureXPath, signatureText);
        if (read != 0) {
            signatureText.clear();
            WSCLOG(5, L"GetACTRequest::Deserialize GetXMLDataValue failes. ERROR = 0x%08x", read);
        }
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
    } catch (const std::bad_alloc&) {
        WSCLOG(1, L"GetACTRequest::Deserialize ERROR ZEB_ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"GetACTRequest::Deserialize OUT");
    return 0;
}
