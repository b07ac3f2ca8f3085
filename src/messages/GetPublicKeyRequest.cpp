#include "messages/GetPublicKeyRequest.h"

#include "soap/Namespaces.h"

namespace {
constexpr const wchar_t* kClassName = L"GetPublicKeyRequest";
constexpr const wchar_t* kAlgorithmXPath =
    L"soap:Body/zeb:GetPublicKeyResponse/zeb:PublicKeyEntry/zeb:PublicKeyAlgorithm";
constexpr const wchar_t* kStrengthXPath =
    L"soap:Body/zeb:GetPublicKeyResponse/zeb:PublicKeyEntry/zeb:PublicKeyStrength";
constexpr const wchar_t* kLengthXPath = L"soap:Body/zeb:GetPublicKeyResponse/zeb:PublicKeyEntry/zeb:PublicKeyLength";
constexpr const wchar_t* kKeyXPath = L"soap:Body/zeb:GetPublicKeyResponse/zeb:PublicKeyEntry/zeb:PublicKey";
}  // namespace

GetPublicKeyRequest::GetPublicKeyRequest(const std::wstring& securityHeader) : m_wstrSecurityHeader(securityHeader) {}

DWORD GetPublicKeyRequest::Serialize(SoapRequest* request) {
    return SerializeEnvelope(kClassName, request, BodyText::Plain, [this](Envelope& envelope) {
        // The message identifier names the wsa:Action element (wsu:Id).
        std::wstring messageId;
        const DWORD result = NewMessageIdFor(kClassName, messageId);
        if (result != 0) return result;

        const std::wstring zeb = ns::Zeb();
        envelope.action = zeb + L"/GetPublicKey";
        envelope.header = SecuredHeader(envelope.action, messageId, m_wstrSecurityHeader);
        envelope.body += L"<soap:Body>";
        envelope.body += L"<GetPublicKeyRequest xmlns=\"" + zeb + L"\" />";
        envelope.body += L"</soap:Body>";
        return DWORD{0};
    });
}

DWORD GetPublicKeyRequest::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    // Missing elements are not failures: the client decides what an empty
    // key means.
    return DeserializeAnswer(kClassName, response, mimeBoundary, L"pResponse", [&] {
        ReadValue(kClassName, response, Read::DataValue, kAlgorithmXPath, m_keyAlgorithm, L"m_keyAlgorithm");
        ReadValue(kClassName, response, Read::DataValue, kStrengthXPath, m_keyStrength, L"m_keyStrength");
        ReadValue(kClassName, response, Read::DataValue, kLengthXPath, m_keyLength, L"m_keyLength");
        ReadValue(kClassName, response, Read::DataValue, kKeyXPath, m_key, L"m_key");
        return 0;
    });
}
