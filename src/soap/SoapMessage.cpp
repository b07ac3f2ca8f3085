#include "soap/SoapMessage.h"

#include <strsafe.h>

#include <new>

#include "common/ComString.h"
#include "log/WSCLog.h"
#include "soap/DocumentFactory.h"

namespace {

constexpr DWORD kNodeTypeText = 3;  // NODE_TEXT
// The deepest nesting a loaded answer may have (MSXML6's own default).
constexpr LONG kMaxElementDepth = 256;

// The value of the first text child of `node`, walking the children in
// document order. `found` tells whether there was one; the remaining children
// are not looked at.
DWORD ReadFirstTextChild(IXMLDOMNode* node, qv::ComVariant& value, bool& found) {
    found = false;
    qv::ComPtr<IXMLDOMNodeList> children;
    if (FAILED(node->get_childNodes(children.put())) || !children) {
        WSCLOG(1, L"pTargetNode->get_childNodes failed.");
        return SoapMessage::kDomFailure;
    }
    long count = 0;
    if (FAILED(children->get_length(&count))) {
        WSCLOG(1, L"pNodeList->get_length failed.");
        return SoapMessage::kDomFailure;
    }
    for (long i = 0; i < count; ++i) {
        qv::ComPtr<IXMLDOMNode> child;
        if (FAILED(children->get_item(i, child.put())) || !child) {
            WSCLOG(1, L"pNodeList->get_item failed.");
            return SoapMessage::kDomFailure;
        }
        DOMNodeType type = NODE_INVALID;
        if (FAILED(child->get_nodeType(&type))) {
            WSCLOG(1, L"pNode->get_nodeType failed.");
            return SoapMessage::kDomFailure;
        }
        if (static_cast<DWORD>(type) != kNodeTypeText) continue;
        if (FAILED(child->get_nodeValue(value.put()))) {
            WSCLOG(1, L"pNode->get_nodeValue failed.");
            return SoapMessage::kDomFailure;
        }
        found = true;
        break;
    }
    return SoapMessage::kOk;
}

// Server text is never trusted with a DTD: a SOAP 1.2 message carries none,
// and one could expand entities without bound or name resources to fetch.
// Set before the load; a setting the DOM refuses only costs a warning, since
// the load refuses any document type declaration itself as well.
void HardenForServerText(IXMLDOMDocument2* document) {
    if (FAILED(document->put_validateOnParse(VARIANT_FALSE)))
        WSCLOG(2, L"put_validateOnParse(false) failed. Continue.");
    if (FAILED(document->put_resolveExternals(VARIANT_FALSE)))
        WSCLOG(2, L"put_resolveExternals(false) failed. Continue.");
    qv::UniqueBstr name = qv::MakeBstr(L"ProhibitDTD");
    qv::ComVariant value;
    value.get()->vt = VT_BOOL;
    value.get()->boolVal = VARIANT_TRUE;
    if (!name || FAILED(document->setProperty(name.get(), value.value())))
        WSCLOG(2, L"setProperty(ProhibitDTD) failed. Continue.");
    // MSXML3 nests without limit by default; a small answer of deeply nested
    // elements could exhaust the parser. The server's answers nest a few
    // dozen levels at most.
    qv::UniqueBstr depthName = qv::MakeBstr(L"MaxElementDepth");
    qv::ComVariant depth;
    depth.get()->vt = VT_I4;
    depth.get()->lVal = kMaxElementDepth;
    if (!depthName || FAILED(document->setProperty(depthName.get(), depth.value())))
        WSCLOG(2, L"setProperty(MaxElementDepth) failed. Continue.");
}

// True when the loaded document has a document type declaration.
bool HasDocumentType(IXMLDOMDocument2* document) {
    qv::ComPtr<IXMLDOMDocumentType> doctype;
    return SUCCEEDED(document->get_doctype(doctype.put())) && doctype;
}

}  // namespace

SoapMessage::SoapMessage() : m_bComRelease(FALSE), m_bComAvailable(FALSE) {
    WSCLOG(4, L"SoapMessage::SoapMessage IN");
    HRESULT hr = CoInitialize(nullptr);
    WSCLOG(5, L"CoInitialize return 0x%08x.\n", static_cast<unsigned>(hr));
    if (hr == RPC_E_CHANGED_MODE) {
        // Another apartment model owns this thread: COM is usable, but the
        // initialisation is not ours to undo.
        m_bComRelease = FALSE;
        m_bComAvailable = TRUE;
    } else if (hr == S_OK || hr == S_FALSE) {
        m_bComRelease = TRUE;
        m_bComAvailable = TRUE;
    }
    WSCLOG(4, L"SoapMessage::SoapMessage OUT");
}

SoapMessage::~SoapMessage() {
    WSCLOG(4, L"SoapMessage::~SoapMessage IN");
    m_pDocumentElement.reset();
    m_pDocument.reset();
    if (m_bComRelease) CoUninitialize();
    WSCLOG(4, L"SoapMessage::~SoapMessage OUT");
}

DWORD SoapMessage::SetXMLData(const wchar_t* xml, const wchar_t* selectionNamespaces) {
    WSCLOG(4, L"SoapMessage::SetXMLData IN");
    DWORD ret = kOk;
    [&] {
        if (!xml) {
            WSCLOG(1, L"invalid local params");
            ret = kInvalidArgument;
            return;
        }
        if (!m_bComAvailable) {
            WSCLOG(1, L"COM is not available");
            ret = kComUnavailable;
            return;
        }
        // The new document replaces the held one only once it has loaded, so
        // a failed load keeps what was there.
        qv::ComPtr<IXMLDOMDocument2> document;
        HRESULT hr = DocumentFactory::Create(document.put());
        if (FAILED(hr) || !document) {
            // Not reported: the object just has no document, and every later
            // query answers kNoDocument.
            WSCLOG(1, L"CreateInstance(__uuidof(MSXML2::DOMDocument30)) failed.");
            return;
        }
        qv::UniqueBstr text = qv::MakeBstr(xml);
        if (!text) {
            WSCLOG(1, L"loadXML failed.");
            ret = kDomFailure;
            return;
        }
        HardenForServerText(document.get());
        VARIANT_BOOL loaded = VARIANT_FALSE;
        hr = document->loadXML(text.get(), &loaded);
        if (FAILED(hr) || loaded != VARIANT_TRUE) {
            qv::UniqueBstr reason;
            qv::ComPtr<IXMLDOMParseError> parseError;
            if (SUCCEEDED(document->get_parseError(parseError.put())) && parseError)
                parseError->get_reason(reason.put());
            WSCLOG(1, L"XML load error. %s\n", reason ? reason.get() : L"");
            WSCLOG(1, L"loadXML failed.");
            ret = kDomFailure;
            return;
        }
        if (HasDocumentType(document.get())) {
            // A DOM that accepts ProhibitDTD without honouring it parsed the
            // declaration: the document is refused all the same.
            WSCLOG(1, L"XML load error. %s\n", L"DTD is prohibited.");
            WSCLOG(1, L"loadXML failed.");
            ret = kDomFailure;
            return;
        }
        // MSXML3 answers selectSingleNode in XSL Patterns unless told
        // otherwise; the queries of the messages are XPath 1.0.
        {
            qv::UniqueBstr name = qv::MakeBstr(L"SelectionLanguage");
            qv::ComVariant value;
            value.get()->vt = VT_BSTR;
            value.get()->bstrVal = SysAllocString(L"XPath");
            if (!name || !value.get()->bstrVal || FAILED(document->setProperty(name.get(), value.value())))
                WSCLOG(2, L"setProperty(SelectionLanguage) failed. Continue.");
        }
        {
            const wchar_t* bindings = selectionNamespaces ? selectionNamespaces : L"";
            qv::UniqueBstr name = qv::MakeBstr(L"SelectionNamespaces");
            qv::ComVariant value;
            value.get()->vt = VT_BSTR;
            value.get()->bstrVal = SysAllocString(bindings);
            if (!name || !value.get()->bstrVal || FAILED(document->setProperty(name.get(), value.value())))
                WSCLOG(2, L"setProperty failed. Continue becouse this parametaer is not necesary. Namespace=%s\n",
                       bindings);
        }
        qv::ComPtr<IXMLDOMElement> element;
        hr = document->get_documentElement(element.put());
        if (FAILED(hr) || !element) {
            WSCLOG(1, L"get_documentElement failed.");
            ret = kDomFailure;
            return;
        }
        m_pDocumentElement.reset();
        m_pDocument = document;
        m_pDocumentElement = element;
    }();
    WSCLOG(4, L"SoapMessage::SetXMLData OUT return %d", static_cast<int>(ret));
    return ret;
}

DWORD SoapMessage::CheckReady(bool argumentsGiven) const {
    if (!argumentsGiven) {
        WSCLOG(1, L"invalid local params");
        return kInvalidArgument;
    }
    if (!m_pDocumentElement) {
        WSCLOG(1, L"XML status is invalid.");
        return kNoDocument;
    }
    return kOk;
}

DWORD SoapMessage::CheckQuery(const wchar_t* xpath) const {
    DWORD ret = CheckReady(xpath && *xpath);
    if (ret == kOk) WSCLOG(5, L"Target XPath = %s.", xpath);
    return ret;
}

DWORD SoapMessage::GetXMLNode(const wchar_t* xpath, qv::ComPtr<IXMLDOMNode>& node) {
    WSCLOG(4, L"SoapMessage::GetXMLNode IN");
    node.reset();
    DWORD ret = CheckQuery(xpath);
    if (ret == kOk) {
        qv::UniqueBstr query = qv::MakeBstr(xpath);
        // No match is S_FALSE with a null node: deliberately not a failure
        // here; the caller sees the empty node.
        if (!query || m_pDocumentElement->selectSingleNode(query.get(), node.put()) != S_OK || !node) {
            node.reset();
            WSCLOG(1, L"selectSingleNode failed.");
        }
    }
    WSCLOG(4, L"SoapMessage::GetXMLNode OUT return %d", static_cast<int>(ret));
    return ret;
}

DWORD SoapMessage::GetXMLNodeList(const wchar_t* xpath, qv::ComPtr<IXMLDOMNodeList>& nodes) {
    WSCLOG(4, L"SoapMessage::GetXMLNodeList IN");
    nodes.reset();
    DWORD ret = CheckQuery(xpath);
    if (ret == kOk) {
        qv::UniqueBstr query = qv::MakeBstr(xpath);
        if (!query || FAILED(m_pDocumentElement->selectNodes(query.get(), nodes.put())) || !nodes) {
            nodes.reset();
            WSCLOG(1, L"selectNodes failed.");
        }
    }
    WSCLOG(4, L"SoapMessage::GetXMLNodeList OUT return %d", static_cast<int>(ret));
    return ret;
}

DWORD SoapMessage::GetXMLDataValue(const wchar_t* xpath, std::wstring& value) {
    WSCLOG(4, L"SoapMessage::GetXMLDataValue IN");
    qv::ComPtr<IXMLDOMNode> node;
    DWORD ret = GetXMLNode(xpath, node);
    if (ret == kOk) ret = GetXMLDataValueFromNode(node.get(), value);
    WSCLOG(4, L"SoapMessage::GetXMLDataValue OUT return %d", static_cast<int>(ret));
    return ret;
}

DWORD SoapMessage::GetXMLString(const wchar_t* xpath, std::wstring& markup) {
    WSCLOG(4, L"SoapMessage::GetXMLString IN");
    qv::ComPtr<IXMLDOMNode> node;
    DWORD ret = GetXMLNode(xpath, node);
    if (ret == kOk) ret = GetXMLStringFromNode(node.get(), markup);
    WSCLOG(4, L"SoapMessage::GetXMLString OUT return %d", static_cast<int>(ret));
    return ret;
}

namespace {

// A failed clear of the value is only worth a warning: the value was read.
void ClearValue(qv::ComVariant& text) {
    if (FAILED(text.Clear())) WSCLOG(2, L"VariantClear(val) is failed. not cancel.");
}

}  // namespace

DWORD SoapMessage::GetXMLDataValueFromNode(IXMLDOMNode* node, std::wstring& value) {
    WSCLOG(4, L"SoapMessage::GetXMLDataValueFromNode IN");
    qv::ComVariant text;
    bool found = false;
    DWORD ret = CheckReady(node != nullptr);
    if (ret == kOk) ret = ReadFirstTextChild(node, text, found);
    if (ret == kOk && found) {
        const wchar_t* chars = text.bstr();
        try {
            value.assign(chars ? chars : L"");
        } catch (const std::bad_alloc&) {
            WSCLOG(1, L"pNode->get_nodeValue failed.");
            ret = kDomFailure;
        }
        ClearValue(text);
    }
    WSCLOG(4, L"SoapMessage::GetXMLDataValueFromNode OUT return %d", static_cast<int>(ret));
    return ret;
}

DWORD SoapMessage::GetXMLDataValueFromNode(IXMLDOMNode* node, wchar_t* buffer, int capacity) {
    WSCLOG(4, L"SoapMessage::GetXMLDataValueFromNode IN");
    qv::ComVariant text;
    bool found = false;
    DWORD ret = CheckReady(node && buffer && capacity > 0);
    if (ret == kOk) ret = ReadFirstTextChild(node, text, found);
    if (ret == kOk && found) {
        const wchar_t* chars = text.bstr();
        // Bounded and always terminated: a value that does not fit arrives cut.
        if (FAILED(StringCchCopyW(buffer, static_cast<size_t>(capacity), chars ? chars : L""))) {
            WSCLOG(1, L"StringCchCopy failed.");
            ret = kBufferTooSmall;
        }
        ClearValue(text);
    }
    WSCLOG(4, L"SoapMessage::GetXMLDataValueFromNode OUT return %d", static_cast<int>(ret));
    return ret;
}

DWORD SoapMessage::GetXMLStringFromNode(IXMLDOMNode* node, std::wstring& markup) {
    WSCLOG(4, L"SoapMessage::GetXMLStringFromNode IN");
    DWORD ret = CheckReady(node != nullptr);
    if (ret == kOk) {
        qv::UniqueBstr xml;
        if (FAILED(node->get_xml(xml.put()))) {
            WSCLOG(1, L"get_xml failed.");
            ret = kDomFailure;
        } else {
            try {
                markup.assign(xml ? xml.get() : L"");
            } catch (const std::bad_alloc&) {
                WSCLOG(1, L"get_xml failed.");
                ret = kDomFailure;
            }
        }
    }
    WSCLOG(4, L"SoapMessage::GetXMLStringFromNode OUT return %d", static_cast<int>(ret));
    return ret;
}
