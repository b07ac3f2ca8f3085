#include "messages/GetPublicKeyRequest.h"

#include <new>

#include "Quorvantis.h"
#include "log/WSCLog.h"
#include "messages/ParseLib.h"
#include "soap/Namespaces.h"
#include "soap/SoapRequest.h"
#include "soap/SoapResponse.h"

namespace {
constexpr const wchar_t* kAlgorithmXPath =
    L"soap:Body/zeb:GetPublicKeyResponse/zeb:PublicKeyEntry/zeb:PublicKeyAlgorithm";
constexpr const wchar_t* kStrengthXPath =
    L"soap:Body/zeb:GetPublicKeyResponse/zeb:PublicKeyEntry/zeb:PublicKeyStrength";
constexpr const wchar_t* kLengthXPath = L"soap:Body/zeb:GetPublicKeyResponse/zeb:PublicKeyEntry/zeb:PublicKeyLength";
constexpr const wchar_t* kKeyXPath = L"soap:Body/zeb:GetPublicKeyResponse/zeb:PublicKeyEntry/zeb:PublicKey";
}  // namespace

GetPublicKeyRequest::GetPublicKeyRequest(const std::wstring& securityHeader) : m_wstrSecurityHeader(securityHeader) {}

DWORD GetPublicKeyRequest::Serialize(SoapRequest* request) {
    WSCLOG(4, L"GetPublicKeyRequest::Serialize IN");
    if (!request) {
        WSCLOG(1, L"GetPublicKeyRequest::Serialize ERROR ERROR_INVALID_PARAMETER = %08x", ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    try {
        // The message identifier names the wsa:Action element (wsu:Id).
        std::wstring messageId;
        const MessageIdStatus idStatus = NewMessageId(messageId);
        if (idStatus == MessageIdStatus::CreateFailed) {
            WSCLOG(1, L"GetPublicKeyRequest::Serialize UuidCreate  = %08x", ZEB_FAILURE_MASK);
            return ZEB_ERROR_OUTOFMEMORY;
        }
        if (idStatus == MessageIdStatus::ToStringFailed) {
            WSCLOG(1, L"GetPublicKeyRequest::Serialize UuidToString ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
            return ZEB_ERROR_OUTOFMEMORY;
        }

        const std::wstring zeb = ns::Zeb();
        const std::wstring action = zeb + L"/GetPublicKey";

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

        std::wstring body;
        body += L"<soap:Body>";
        body += L"<GetPublicKeyRequest xmlns=\"" + zeb + L"\" />";
        body += L"</soap:Body>";

        WSCLOG(5, L"GetPublicKeyRequest::Serialize Soap Header =%s", header.c_str());
        WSCLOG(5, L"GetPublicKeyRequest::Serialize Soap Body =%s", body.c_str());
        request->SetSoapHeader(header);
        request->SetSoapBody(body);
        request->SetAction(action);
    } catch (const std::bad_alloc&) {
        WSCLOG(1, L"GetPublicKeyRequest::Serialize ERROR ZEB_ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"GetPublicKeyRequest::Serialize OUT");
    return 0;
}

DWORD GetPublicKeyRequest::Deserialize(SoapResponse* response, const wchar_t* mimeBoundary) {
    WSCLOG(4, L"GetPublicKeyRequest::Deserialize IN");
    if (!response) {
        WSCLOG(1, L"GetPublicKeyRequest::Deserialize pResponse ERROR_INVALID_PARAMETER = %08x",
               ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }
    if (!mimeBoundary) {
        WSCLOG(1, L"GetPublicKeyRequest::Deserialize mimeBoundary ERROR_INVALID_PARAMETER = %08x",
               ZEB_ERROR_INVALID_PARAMETER);
        return ZEB_ERROR_INVALID_PARAMETER;
    }

    const DWORD result = ParseLib::SoapErrorCheck(response);
    if (result & ZEB_FAILURE_MASK) {
        WSCLOG(1, L"GetPublicKeyRequest::Deserialize ERROR SoapErrorCheck = %08x", result);
        return result;
    }

    // Missing elements are not failures: the client decides what an empty
    // key means.
    struct Field {
        const wchar_t* xpath;
        std::wstring* value;
        const wchar_t* name;
    };
    const Field fields[] = {
        {kAlgorithmXPath, &m_keyAlgorithm, L"m_keyAlgorithm"},
        {kStrengthXPath, &m_keyStrength, L"m_keyStrength"},
        {kLengthXPath, &m_keyLength, L"m_keyLength"},
        {kKeyXPath, &m_key, L"m_key"},
    };
    try {
        for (const Field& field : fields) {
            field.value->clear();
            WSCLOG(5, L"GetPublicKeyRequest::Deserialize GetXMLDataValue. XPath = %s", field.xpath);
            const DWORD read = response->GetXMLDataValue(field.xpath, *field.value);
            if (read != 0) {
                field.value->clear();
                WSCLOG(5, L"GetPublicKeyRequest::Deserialize GetXMLDataValue failes. ERROR = 0x%08x", read);
                continue;
            }
            WSCLOG(5, L"GetPublicKeyRequest::Deserialize GetXMLDataValue. %s = %s", field.name, field.value->c_str());
        }
    } catch (const std::bad_alloc&) {
        WSCLOG(1, L"GetPublicKeyRequest::Deserialize ERROR ZEB_ERROR_OUTOFMEMORY = %08x", ZEB_ERROR_OUTOFMEMORY);
        return ZEB_ERROR_OUTOFMEMORY;
    }
    WSCLOG(4, L"GetPublicKeyRequest::Deserialize OUT");
    return 0;
}
