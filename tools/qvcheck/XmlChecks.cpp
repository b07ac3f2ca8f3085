// MSXML3 (DOMDocument30) as the add-in uses it for server answers: made by
// the add-in's DocumentFactory in a single-threaded apartment, with
// validateOnParse and resolveExternals off, ProhibitDTD on and
// MaxElementDepth 256 before the load, XPath with SelectionNamespaces after.
#include <windows.h>
#include <msxml2.h>

#include <cstring>
#include <string>
#include <vector>

#include "CheckGroups.h"
#include "common/ComPtr.h"
#include "common/ComString.h"
#include "soap/DocumentFactory.h"
#include "soap/SoapMessage.h"

namespace qvcheck {
namespace {

// The deepest nesting the add-in lets a server answer have.
constexpr LONG kAddinMaxElementDepth = 256;
// A second, small limit: a refusal under it can only come from the property.
constexpr LONG kProbeMaxElementDepth = 8;

constexpr const wchar_t* kBindings =
    L"xmlns:soap='http://www.w3.org/2003/05/soap-envelope' xmlns:q='urn:orvel:qvcheck'";

// The document uses other prefixes than the query: the names resolve by
// namespace URI through SelectionNamespaces, not by prefix text.
constexpr const wchar_t* kAnswer =
    L"<?xml version=\"1.0\" encoding=\"utf-8\"?>"
    L"<env:Envelope xmlns:env=\"http://www.w3.org/2003/05/soap-envelope\"><env:Body>"
    L"<value xmlns=\"urn:orvel:qvcheck\">qvcheck</value></env:Body></env:Envelope>";

constexpr const wchar_t* kAnswerWithDtd =
    L"<?xml version=\"1.0\" encoding=\"utf-8\"?><!DOCTYPE env:Envelope [<!ENTITY x \"expanded\">]>"
    L"<env:Envelope xmlns:env=\"http://www.w3.org/2003/05/soap-envelope\"><env:Body>"
    L"<value xmlns=\"urn:orvel:qvcheck\">&x;</value></env:Body></env:Envelope>";

// One COM apartment for the calling thread, as each of the add-in's message
// objects holds for its lifetime.
class ComApartment {
public:
    ComApartment() : m_result(CoInitialize(nullptr)) {}
    ~ComApartment() {
        if (SUCCEEDED(m_result)) CoUninitialize();
    }
    ComApartment(const ComApartment&) = delete;
    ComApartment& operator=(const ComApartment&) = delete;
    // Usable also when another apartment model already owns the thread.
    bool Usable() const { return SUCCEEDED(m_result) || m_result == RPC_E_CHANGED_MODE; }
    HRESULT Outcome() const { return m_result; }

private:
    HRESULT m_result;
};

HRESULT SetBoolProperty(IXMLDOMDocument2* document, const wchar_t* name, bool value) {
    qv::UniqueBstr property = qv::MakeBstr(name);
    qv::ComVariant variant;
    variant.get()->vt = VT_BOOL;
    variant.get()->boolVal = value ? VARIANT_TRUE : VARIANT_FALSE;
    return property ? document->setProperty(property.get(), variant.value()) : E_OUTOFMEMORY;
}

HRESULT SetLongProperty(IXMLDOMDocument2* document, const wchar_t* name, LONG value) {
    qv::UniqueBstr property = qv::MakeBstr(name);
    qv::ComVariant variant;
    variant.get()->vt = VT_I4;
    variant.get()->lVal = value;
    return property ? document->setProperty(property.get(), variant.value()) : E_OUTOFMEMORY;
}

HRESULT SetTextProperty(IXMLDOMDocument2* document, const wchar_t* name, const wchar_t* value) {
    qv::UniqueBstr property = qv::MakeBstr(name);
    qv::ComVariant variant;
    variant.get()->vt = VT_BSTR;
    variant.get()->bstrVal = SysAllocString(value);
    if (!property || !variant.get()->bstrVal) return E_OUTOFMEMORY;
    return document->setProperty(property.get(), variant.value());
}

// The property's value as text, for --verbose.
std::string PropertyText(IXMLDOMDocument2* document, const wchar_t* name) {
    qv::UniqueBstr property = qv::MakeBstr(name);
    qv::ComVariant value;
    HRESULT hr = property ? document->getProperty(property.get(), value.put()) : E_OUTOFMEMORY;
    if (FAILED(hr)) return "getProperty failed " + Code(static_cast<DWORD>(hr));
    if (value.value().vt == VT_BOOL) return value.value().boolVal ? "true" : "false";
    if (value.value().vt == VT_I4) return std::to_string(value.value().lVal);
    if (value.bstr()) return Ascii(std::wstring(value.bstr()));
    return "(type " + std::to_string(value.value().vt) + ")";
}

// A setting the DOM refused. The add-in logs a warning and goes on without it.
struct Refusal {
    const char* setting;
    HRESULT result;
};

// What Wine's msxml3 answers for a property it does not know.
bool IsUnknownToWine(const Refusal& refusal) {
    return std::strcmp(refusal.setting, "MaxElementDepth") == 0 && refusal.result == E_FAIL;
}

// A document made and set up as the add-in sets up every document that
// loads server text. False, with the step in *failure, only when there is no
// document; settings the DOM refuses are listed in *refused.
bool MakeHardenedDocument(LONG maxDepth, qv::ComPtr<IXMLDOMDocument2>& document, std::vector<Refusal>* refused,
                          std::string* failure) {
    HRESULT hr = DocumentFactory::Create(document.put());
    if (FAILED(hr) || !document) {
        *failure = "DocumentFactory::Create (DOMDocument30) " + Code(static_cast<DWORD>(hr));
        return false;
    }
    // In the add-in's order.
    const Refusal steps[] = {
        {"validateOnParse", document->put_validateOnParse(VARIANT_FALSE)},
        {"resolveExternals", document->put_resolveExternals(VARIANT_FALSE)},
        {"ProhibitDTD", SetBoolProperty(document.get(), L"ProhibitDTD", true)},
        {"MaxElementDepth", SetLongProperty(document.get(), L"MaxElementDepth", maxDepth)},
    };
    refused->clear();
    for (const Refusal& step : steps)
        if (FAILED(step.result)) refused->push_back(step);
    return true;
}

// The result a setting got: S_OK unless it is among the refused.
HRESULT ResultOf(const std::vector<Refusal>& refused, const char* setting) {
    for (const Refusal& refusal : refused)
        if (std::strcmp(refusal.setting, setting) == 0) return refusal.result;
    return S_OK;
}

std::string RefusalText(const std::vector<Refusal>& refused) {
    std::string text;
    for (const Refusal& refusal : refused)
        text += (text.empty() ? "" : ", ") + std::string(refusal.setting) + " " + Code(static_cast<DWORD>(refusal.result));
    return text;
}

// Whether the document loaded `text`; the parse error's code when it did not.
bool Load(IXMLDOMDocument2* document, const std::wstring& text, long* errorCode) {
    *errorCode = 0;
    qv::UniqueBstr bstr = qv::MakeBstr(text.c_str());
    VARIANT_BOOL loaded = VARIANT_FALSE;
    HRESULT hr = bstr ? document->loadXML(bstr.get(), &loaded) : E_OUTOFMEMORY;
    if (SUCCEEDED(hr) && loaded == VARIANT_TRUE) return true;
    qv::ComPtr<IXMLDOMParseError> parseError;
    if (SUCCEEDED(document->get_parseError(parseError.put())) && parseError) parseError->get_errorCode(errorCode);
    if (*errorCode == 0) *errorCode = static_cast<long>(hr);
    return false;
}

// An answer whose elements nest `depth` levels.
std::wstring Nested(int depth) {
    std::wstring text = L"<?xml version=\"1.0\" encoding=\"utf-8\"?>";
    for (int i = 0; i < depth; ++i) text += L"<n>";
    text += L"x";
    for (int i = 0; i < depth; ++i) text += L"</n>";
    return text;
}

std::string RefusedText(long errorCode) { return "refused (" + Code(static_cast<DWORD>(errorCode)) + ")"; }

// The plain SOAP answer in a document made as the add-in makes it. False,
// with the reason in *failure, when there is no document or it refused the
// text; settings it refused are listed in *refused.
bool LoadAnswer(qv::ComPtr<IXMLDOMDocument2>& document, std::vector<Refusal>* refused, std::string* failure) {
    if (!MakeHardenedDocument(kAddinMaxElementDepth, document, refused, failure)) return false;
    long errorCode = 0;
    if (Load(document.get(), kAnswer, &errorCode)) return true;
    *failure = "loadXML of a plain SOAP answer " + RefusedText(errorCode);
    return false;
}

}  // namespace

Result CheckXmlProperties(const Environment& environment) {
    const char* name = "msxml3-properties";
    ComApartment apartment;
    if (!apartment.Usable()) return Make(name, Status::kFail, "CoInitialize " + Code(static_cast<DWORD>(apartment.Outcome())));
    qv::ComPtr<IXMLDOMDocument2> document;
    std::vector<Refusal> refused;
    std::string failure;
    if (!LoadAnswer(document, &refused, &failure)) return Make(name, Status::kFail, failure);
    // After the load, as the add-in sets them.
    const HRESULT language = SetTextProperty(document.get(), L"SelectionLanguage", L"XPath");
    if (FAILED(language)) refused.push_back({"SelectionLanguage", language});
    const HRESULT namespaces = SetTextProperty(document.get(), L"SelectionNamespaces", kBindings);
    if (FAILED(namespaces)) refused.push_back({"SelectionNamespaces", namespaces});

    Result result = Make(name, Status::kPass, "");
    for (const wchar_t* property : {L"ProhibitDTD", L"MaxElementDepth", L"SelectionLanguage", L"SelectionNamespaces"})
        result.notes.push_back("getProperty(" + Ascii(std::wstring(property)) + ") = " + PropertyText(document.get(), property));
    if (refused.empty()) {
        result.detail = "DOMDocument30 made as the add-in makes it accepts validateOnParse, resolveExternals, "
                        "ProhibitDTD, MaxElementDepth 256, SelectionLanguage XPath and SelectionNamespaces";
        return result;
    }
    result.status = Judge(false, environment.wine, refused.size() == 1 && IsUnknownToWine(refused[0]));
    result.detail = "DOMDocument30 made as the add-in makes it refuses " + RefusalText(refused);
    if (result.status == Status::kKnown)
        result.detail += "; the other five settings are accepted (Wine: msxml3 does not know MaxElementDepth; the "
                         "add-in logs a warning and goes on without it)";
    return result;
}

Result CheckXmlXPath(const Environment&) {
    const char* name = "msxml3-xpath";
    ComApartment apartment;
    if (!apartment.Usable()) return Make(name, Status::kFail, "CoInitialize " + Code(static_cast<DWORD>(apartment.Outcome())));
    qv::ComPtr<IXMLDOMDocument2> document;
    std::vector<Refusal> refused;
    std::string failure;
    if (!LoadAnswer(document, &refused, &failure)) return Make(name, Status::kFail, failure);
    if (FAILED(SetTextProperty(document.get(), L"SelectionLanguage", L"XPath")) ||
        FAILED(SetTextProperty(document.get(), L"SelectionNamespaces", kBindings)))
        return Make(name, Status::kFail, "setProperty(SelectionLanguage/SelectionNamespaces) refused");
    qv::ComPtr<IXMLDOMElement> root;
    if (FAILED(document->get_documentElement(root.put())) || !root)
        return Make(name, Status::kFail, "get_documentElement failed");

    // Relative to the document element, as the add-in queries.
    qv::UniqueBstr query = qv::MakeBstr(L"soap:Body/q:value");
    qv::ComPtr<IXMLDOMNode> node;
    const HRESULT found = query ? root->selectSingleNode(query.get(), node.put()) : E_OUTOFMEMORY;
    qv::UniqueBstr text;
    if (found != S_OK || !node || FAILED(node->get_text(text.put())) || !text ||
        std::wstring(text.get()) != L"qvcheck")
        return Make(name, Status::kFail,
                    "selectSingleNode(\"soap:Body/q:value\") with SelectionNamespaces did not find the value (" +
                        Code(static_cast<DWORD>(found)) + ")");
    qv::UniqueBstr missingQuery = qv::MakeBstr(L"soap:Body/q:missing");
    qv::ComPtr<IXMLDOMNode> missing;
    const HRESULT notFound = missingQuery ? root->selectSingleNode(missingQuery.get(), missing.put()) : E_OUTOFMEMORY;
    if (notFound != S_FALSE || missing)
        return Make(name, Status::kFail,
                    "a query that matches nothing gave " + Code(static_cast<DWORD>(notFound)) +
                        " instead of S_FALSE with no node");
    return Make(name, Status::kPass,
                "prefixed XPath \"soap:Body/q:value\" bound by SelectionNamespaces finds the value; no match is "
                "S_FALSE with no node");
}

Result CheckXmlProhibitDtd(const Environment& environment) {
    const char* name = "msxml3-prohibit-dtd";
    ComApartment apartment;
    if (!apartment.Usable()) return Make(name, Status::kFail, "CoInitialize " + Code(static_cast<DWORD>(apartment.Outcome())));
    qv::ComPtr<IXMLDOMDocument2> document;
    std::vector<Refusal> refused;
    std::string failure;
    if (!MakeHardenedDocument(kAddinMaxElementDepth, document, &refused, &failure)) return Make(name, Status::kFail, failure);
    const HRESULT prohibit = ResultOf(refused, "ProhibitDTD");
    if (FAILED(prohibit)) return Make(name, Status::kFail, "setProperty(ProhibitDTD, true) " + Code(static_cast<DWORD>(prohibit)));
    long errorCode = 0;
    if (!Load(document.get(), kAnswerWithDtd, &errorCode))
        return Make(name, Status::kPass, "an answer with a DTD is " + RefusedText(errorCode) + " under ProhibitDTD");

    // The parser took the DTD. The add-in refuses any loaded document that
    // has a doctype; whether it does here decides Wine's known deviation.
    qv::ComPtr<IXMLDOMElement> root;
    qv::UniqueBstr text;
    const bool expanded = SUCCEEDED(document->get_documentElement(root.put())) && root &&
                          SUCCEEDED(root->get_text(text.put())) && text &&
                          std::wstring(text.get()).find(L"expanded") != std::wstring::npos;
    SoapMessage message;
    const bool addinRefuses = message.SetXMLData(kAnswerWithDtd, kBindings) == SoapMessage::kDomFailure;
    const Status status = Judge(false, environment.wine, addinRefuses);
    std::string detail = "an answer with a DTD loads despite ProhibitDTD";
    detail += expanded ? " (its entity expanded)" : "";
    detail += "; the add-in's own doctype check ";
    detail += addinRefuses ? "refuses it" : "does not refuse it";
    if (status == Status::kKnown) detail += " (Wine: msxml3 accepts ProhibitDTD and ignores it)";
    return Make(name, status, detail);
}

Result CheckXmlMaxDepth(const Environment& environment) {
    const char* name = "msxml3-max-depth";
    ComApartment apartment;
    if (!apartment.Usable()) return Make(name, Status::kFail, "CoInitialize " + Code(static_cast<DWORD>(apartment.Outcome())));
    qv::ComPtr<IXMLDOMDocument2> addin;
    qv::ComPtr<IXMLDOMDocument2> probe;
    std::vector<Refusal> addinRefused;
    std::vector<Refusal> probeRefused;
    std::string failure;
    if (!MakeHardenedDocument(kAddinMaxElementDepth, addin, &addinRefused, &failure) ||
        !MakeHardenedDocument(kProbeMaxElementDepth, probe, &probeRefused, &failure))
        return Make(name, Status::kFail, failure);
    const HRESULT setting = ResultOf(addinRefused, "MaxElementDepth");

    long shallowError = 0, deepError = 0, probeShallowError = 0, probeDeepError = 0;
    const bool shallow = Load(addin.get(), Nested(100), &shallowError);
    const bool deep = Load(addin.get(), Nested(300), &deepError);
    const bool probeShallow = Load(probe.get(), Nested(4), &probeShallowError);
    const bool probeDeep = Load(probe.get(), Nested(16), &probeDeepError);

    Result result = Make(name, Status::kFail, "");
    const std::string limit256 = "limit 256: 100 levels " + std::string(shallow ? "load" : RefusedText(shallowError)) +
                                 ", 300 levels " + (deep ? "load" : RefusedText(deepError));
    const std::string limit8 = "limit 8: 4 levels " + std::string(probeShallow ? "load" : RefusedText(probeShallowError)) +
                               ", 16 levels " + (probeDeep ? "load" : RefusedText(probeDeepError));
    result.notes.push_back(limit256);
    result.notes.push_back(limit8);
    const bool addinLimitHolds = shallow && !deep;
    const bool propertyApplied = SUCCEEDED(setting) && probeShallow && !probeDeep;
    if (addinLimitHolds && propertyApplied) {
        result.status = Status::kPass;
        result.detail = "MaxElementDepth 256: 100 levels load, 300 are " + RefusedText(deepError) +
                        "; MaxElementDepth 8: 4 levels load, 16 are refused";
        return result;
    }
    // Wine: the property is unknown (E_FAIL), the add-in goes on without it,
    // and the parser's own nesting limit still refuses the deep answer.
    const bool wineShape = addinLimitHolds && probeShallow && probeDeep && setting == E_FAIL;
    result.status = Judge(false, environment.wine, wineShape);
    if (result.status == Status::kKnown) {
        result.detail = "setProperty(MaxElementDepth) refused " + Code(static_cast<DWORD>(setting)) +
                        "; without it 100 levels load and 300 are " + RefusedText(deepError) +
                        " (Wine: by libxml2's own limit of 256 levels, not by the property)";
    } else {
        result.detail = (FAILED(setting) ? "setProperty(MaxElementDepth) refused " + Code(static_cast<DWORD>(setting)) + "; "
                                         : std::string()) +
                        limit256 + "; " + limit8;
    }
    return result;
}

}  // namespace qvcheck
