#include "soap/SoapRequest.h"

#include "common/ComString.h"
#include "common/HeapBuffer.h"
#include "log/TraceRedaction.h"
#include "log/WSCLog.h"
#include "soap/Namespaces.h"
#include "soap/UserInputEscape.h"

namespace {

constexpr const wchar_t* kXmlDeclaration = L"<?xml version=\"1.0\" encoding=\"utf-8\"?>";
constexpr const wchar_t* kMimeBoundaryPrefix = L"----MIMEBoundary";
constexpr const wchar_t* kEmptyWsaTo = L"<wsa:To></wsa:To>";
constexpr size_t kWsaToStartTagLength = 8;  // "<wsa:To>"
// More than the declaration, the MIME framing and the envelope's own markup
// with its namespace declarations.
constexpr size_t kEnvelopeFrameChars = 2048;
constexpr const wchar_t* kFaultValueXPath = L"soap:Body/soap:Fault/soap:Code/soap:Subcode/soap:Value";

// The prefix that the fault's soap:Value element itself declares for `uri`.
// Declarations on its ancestors are deliberately not looked at. Every DOM
// failure gives an empty prefix.
std::wstring FindFaultPrefix(SoapMessage* response, const std::wstring& uri) {
    std::wstring prefix;
    if (!response) return prefix;
    qv::ComPtr<IXMLDOMNode> value;
    if (response->GetXMLNode(kFaultValueXPath, value) != SoapMessage::kOk || !value) return prefix;

    qv::ComPtr<IXMLDOMNamedNodeMap> attributes;
    if (FAILED(value->get_attributes(attributes.put())) || !attributes) {
        WSCLOG(1, L"pNode->get_attributes failed.\n");
        return prefix;
    }
    long count = 0;
    if (FAILED(attributes->get_length(&count))) {
        WSCLOG(1, L"pNodeMap->get_length failed.\n");
        return prefix;
    }
    for (long i = 0; i < count; ++i) {
        qv::ComPtr<IXMLDOMNode> attribute;
        if (FAILED(attributes->get_item(i, attribute.put())) || !attribute) {
            WSCLOG(1, L"pNodeList->get_item failed.\n");
            return prefix;
        }
        qv::ComVariant text;
        if (FAILED(attribute->get_nodeValue(text.put()))) {
            WSCLOG(1, L"pNode->get_nodeValue failed.\n");
            return prefix;
        }
        const wchar_t* chars = text.bstr();
        const bool matches = chars && uri == chars;
        if (FAILED(text.Clear())) WSCLOG(2, L"VariantClear(val) is failed. not cancel.");
        if (!matches) continue;
        qv::UniqueBstr baseName;
        if (FAILED(attribute->get_baseName(baseName.put()))) {
            WSCLOG(1, L"pNode->get_baseName failed.\n");
            return prefix;
        }
        if (baseName) prefix.assign(baseName.get());
        break;
    }
    return prefix;
}

}  // namespace

SoapRequest::SoapRequest(const std::wstring& hostName, USHORT port, USHORT securePort,
                         const std::wstring& servicePath)
    : m_wstrHostName(hostName), m_usPort(port), m_usSecurePort(securePort), m_wstrServicePath(servicePath) {
    WSCLOG(4, L"SoapRequest::SoapRequest IN");
    WSCLOG(4, L"SoapRequest::SoapRequest OUT");
}

SoapRequest::~SoapRequest() {
    WSCLOG(4, L"SoapRequest::~SoapRequest IN");
    // A login's body carries the password or an answer made from it.
    qv::SecureWipe(m_wstrSoapBody);
    WSCLOG(4, L"SoapRequest::~SoapRequest OUT");
}

std::wstring SoapRequest::GetSoapEnvelope(std::wstring& envelope, BOOL sslMode, const std::wstring& mtomId) {
    WSCLOG(4, L"SoapRequest::GetSoapEnvelope IN");
    std::wstring url = sslMode ? L"https://" : L"http://";
    url += m_wstrHostName;
    url += L":";
    url += std::to_wstring(sslMode ? m_usSecurePort : m_usPort);
    url += m_wstrServicePath;

    // The body may carry a password: the text gets one block large enough
    // for all of it, so that no step leaves a partial copy in a smaller one.
    std::wstring text;
    text.reserve(kEnvelopeFrameChars + 3 * mtomId.size() + url.size() + m_wstrSoapHeader.size() +
                 m_wstrSoapBody.size());
    text = kXmlDeclaration;
    const bool mtom = !mtomId.empty();
    if (mtom) {
        // The root part of an MTOM message carries no XML declaration.
        text.clear();
        text += L"\r\n";
        text += kMimeBoundaryPrefix;
        text += mtomId;
        text += L"\r\n";
        text += L"content-id: <0.";
        text += mtomId;
        text += L"@";
        text += ns::kMtomDomain;
        text += L">\r\n";
        text += L"content-type: application/xop+xml; charset=utf-8; type=\"application/soap+xml; charset=utf-8\"\r\n";
        text += L"content-transfer-encoding: binary\r\n";
        text += L"\r\n";
    }
    text += L"<soap:Envelope xmlns:xsd=\"";
    text += ns::kXsd;
    text += L"\" xmlns:xsi=\"";
    text += ns::kXsi;
    text += L"\" xmlns:soap=\"";
    text += ns::kSoap;
    text += L"\" xmlns:wsse=\"";
    text += ns::kWsse;
    text += L"\" xmlns:wsu=\"";
    text += ns::kWsu;
    text += L"\" xmlns:wsa=\"";
    text += ns::kWsa;
    text += L"\">";
    text += m_wstrSoapHeader;
    text += m_wstrSoapBody;
    text += L"</soap:Envelope>";

    // Only the first empty wsa:To is addressed; a message without one is sent
    // as it is.
    const size_t at = text.find(kEmptyWsaTo);
    if (at != std::wstring::npos) text.insert(at + kWsaToStartTagLength, url);

    if (mtom) {
        text += L"\r\n";
        text += kMimeBoundaryPrefix;
        text += mtomId;
        text += L"--\r\n";
    }
    WSCLOG(5, L"RequestMessage=%s", TraceRedaction::Show(text, TraceRedaction::Text::Request).c_str());
    envelope = text;
    WSCLOG(4, L"SoapRequest::GetSoapEnvelope OUT");
    return text;
}

std::wstring SoapRequest::SanitizeUserInputStr(const std::wstring& text, bool secret) {
    WSCLOG(4, L"SoapRequest::SanitizeUserInputStr IN");
    const TraceRedaction::Text shown = secret ? TraceRedaction::Text::Secret : TraceRedaction::Text::Plain;
    WSCLOG(5, L"SoapRequest::SanitizeUserInputStr. Before Sanitizing = %s", TraceRedaction::Show(text, shown).c_str());
    // The text may be a password: the escaping sizes its result exactly
    // first, and the result is returned without a copy, so no partial or
    // second copy is left behind.
    size_t blanked = 0;
    std::wstring result = qv::EscapeUserInput(text, &blanked);
    // One line per control character replaced, as the escaping always logged.
    for (size_t i = 0; i < blanked; ++i) WSCLOG(5, L"wcSrcStr =%s", TraceRedaction::Show(text, shown).c_str());
    WSCLOG(5, L"SoapRequest::SanitizeUserInputStr. After Sanitizing = %s", TraceRedaction::Show(result, shown).c_str());
    WSCLOG(4, L"SoapRequest::SanitizeUserInputStr OUT");
    return result;
}

std::wstring SoapRequest::GetWlsSoapFaultPrefix(SoapMessage* response) {
    WSCLOG(4, L"SoapRequest::GetWlsSoapFaultPrefix IN");
    std::wstring prefix = FindFaultPrefix(response, ns::Wls());
    WSCLOG(4, L"SoapRequest::GetWlsSoapFaultPrefix OUT wstrRet = %s", prefix.c_str());
    return prefix;
}

std::wstring SoapRequest::GetZebSoapFaultPrefix(SoapMessage* response) {
    WSCLOG(4, L"SoapRequest::GetZebSoapFaultPrefix IN");
    std::wstring prefix = FindFaultPrefix(response, ns::Zeb());
    WSCLOG(4, L"SoapRequest::GetZebSoapFaultPrefix OUT wstrRet = %s", prefix.c_str());
    return prefix;
}
