// A hostile host, driven through the interface table only: every null and
// empty argument in every position on a live session, unknown and closed
// handles, megabyte strings, and user-supplied values made of XML special
// characters, control characters, characters outside the Basic Multilingual
// Plane and unpaired surrogates. None of it may crash, hang, leak or lose a
// buffer, and the session must stay usable after every bad call.
//
// On the wire, the values the add-in escapes must stay inside their element:
// each recorded request is parsed with MSXML 3 and the element's text is
// compared with the host's value. The values that go in unescaped by design
// (the Basic payload, the SDL payload and SDL's Info) are shown raw.
#include <gtest/gtest.h>
#include <windows.h>
#include <msxml2.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#define QUORVANTIS_NO_PROTOTYPES
#include "Quorvantis.h"
#include "support/Json.h"
#include "support/RefServer.h"
#include "support/HostTable.h"
#include "support/TestSupport.h"

namespace {

constexpr DWORD kParam = ZEB_ERROR_INVALID_PARAMETER;
constexpr DWORD kHandle = ZEB_ERROR_INVALID_HANDLE;
// MD5 of "pw", the stored digest the SDL mechanisms accept in place of it.
const wchar_t* kPwDigest = L"8fe4c11451281c094a6578e6ddbf5eed";
const char* kStsPath = "/wls/STSServer.actv";
const char* kDrvCommPath = "/zeb/Drv-Comm.actv";

// ---- Text helpers ----------------------------------------------------------

using qvtest::Narrow;

bool IsHigh(wchar_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLow(wchar_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

// UTF-8 written here rather than by the platform, so that the expected bytes
// do not depend on the converter under test: a pair becomes one four-byte
// sequence, an unpaired surrogate U+FFFD.
std::string Utf8Of(const std::wstring& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned long c = static_cast<unsigned short>(text[i]);
        if (IsHigh(text[i]) && i + 1 < text.size() && IsLow(text[i + 1])) {
            c = 0x10000 + ((c - 0xD800) << 10) + (static_cast<unsigned short>(text[i + 1]) - 0xDC00);
            ++i;
        } else if (IsHigh(text[i]) || IsLow(text[i])) {
            c = 0xFFFD;
        }
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (c >> 6)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (c >> 12)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (c >> 18)));
            out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return out;
}

// What UTF-8 can carry of a UTF-16 value: unpaired surrogates become U+FFFD.
std::wstring WireForm(const std::wstring& text) {
    std::wstring out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (IsHigh(text[i]) && i + 1 < text.size() && IsLow(text[i + 1])) {
            out += text[i];
            out += text[++i];
        } else if (IsHigh(text[i]) || IsLow(text[i])) {
            out += static_cast<wchar_t>(0xFFFD);
        } else {
            out += text[i];
        }
    }
    return out;
}

// The escaping the add-in applies to user input before it goes into XML:
// control characters and DEL become a blank, the five specials an entity,
// everything else (non-ASCII and surrogates included) is copied.
std::wstring Escaped(const std::wstring& text) {
    std::wstring out;
    for (wchar_t c : text) {
        switch (c) {
            case L'"': out += L"&quot;"; break;
            case L'&': out += L"&amp;"; break;
            case L'\'': out += L"&#39;"; break;
            case L'<': out += L"&lt;"; break;
            case L'>': out += L"&gt;"; break;
            default: out += (c < 0x20 || c == 0x7F) ? L' ' : c;
        }
    }
    return out;
}

// The text an XML reader gets back from an escaped value.
std::wstring Decoded(const std::wstring& text) {
    std::wstring out;
    for (wchar_t c : text) out += (c < 0x20 || c == 0x7F) ? L' ' : c;
    return WireForm(out);
}

std::string Between(const std::string& text, const std::string& open, const std::string& close,
                    size_t from = 0) {
    size_t begin = text.find(open, from);
    if (begin == std::string::npos) return "<none>";
    begin += open.size();
    size_t end = text.find(close, begin);
    return end == std::string::npos ? "<none>" : text.substr(begin, end - begin);
}

// Printable form of a value for failure messages.
std::string Show(const std::wstring& text) {
    std::string out;
    for (wchar_t c : text.substr(0, 80)) {
        if (c >= 0x20 && c < 0x7F) {
            out.push_back(static_cast<char>(c));
        } else {
            char buf[12];
            snprintf(buf, sizeof(buf), "\\u%04x", static_cast<unsigned>(c) & 0xFFFFu);
            out += buf;
        }
    }
    if (text.size() > 80) out += "...(" + std::to_string(text.size()) + " code units)";
    return out;
}

// ---- The hostile values ----------------------------------------------------

std::wstring Controls() {
    std::wstring s = L"c";
    for (wchar_t c = 1; c < 0x20; ++c) s += c;
    s += static_cast<wchar_t>(0x7F);
    return s + L"c";
}

struct Sample {
    const char* name;
    std::wstring value;
};

// Each at most 30 code units with a two-letter prefix, so that an SDL2 user
// ID (32 at most) can carry it too.
std::vector<Sample> Samples() {
    const wchar_t hi = static_cast<wchar_t>(0xD83D), lo = static_cast<wchar_t>(0xDE00);
    return {
        {"xml specials", L"a&b<c>d\"e'f"},
        {"entity look-alikes", L"&amp;&#65;&lt;]]>"},
        {"tag injection", L"</wls:Id><wls:Id>x"},
        {"comment and pi", L"<!--x--><?pi?>"},
        {"controls 01-0F", Controls().substr(0, 16)},
        {"controls 10-1F and 7F", L"c" + Controls().substr(16)},
        {"outside the BMP", L"\U0001F600 \U0001F680\u00e9\u4e2d\U0010FFFF"},
        {"unpaired high", std::wstring(L"x") + hi + L"y"},
        {"unpaired low", std::wstring(1, lo) + L"start"},
        {"reversed pair", std::wstring(L"r") + lo + hi},
        {"high at the end", std::wstring(L"end") + hi},
        {"everything", L"<&>\"'" + std::wstring(1, 0x01) + L"\t\r\n" + std::wstring(1, 0x7F) + L"\U0001F600" + hi},
    };
}

// A few samples, one of each kind, where every login costs a platform
// round (NTLM, SDL2) and all twelve would make the suite slow.
std::vector<Sample> FewSamples() {
    std::vector<Sample> all = Samples(), few;
    for (size_t i : {0u, 2u, 4u, 6u, 7u, 11u}) few.push_back(all[i]);
    return few;
}

// A megabyte (2^20 code units) of text with the hostile characters at both
// ends and in the middle.
std::wstring Megabyte(const std::wstring& seed) {
    const size_t size = 1u << 20;
    std::wstring mixed = seed + L"<&>\"'" + std::wstring(1, 0x01) + L"\U0001F600";
    std::wstring out = mixed;
    out.append(size / 2 - out.size(), L'm');
    out += mixed;
    out.append(size - mixed.size() - out.size(), L'M');
    out += mixed;
    return out;
}

// ---- MSXML 3: what a conforming XML reader makes of a recorded body ---------

const CLSID kClsidDomDocument30 = {0xF5078F32, 0xC551, 0x11D3, {0x89, 0xB9, 0x00, 0x00, 0xF8, 0x1F, 0xE2, 0x21}};
const IID kIidXmlDomDocument2 = {0x2933BF95, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};
const wchar_t* kSelectionNamespaces =
    L"xmlns:soap='http://www.w3.org/2003/05/soap-envelope' "
    L"xmlns:wst='http://schemas.xmlsoap.org/ws/2005/02/trust' "
    L"xmlns:wsse='http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.0.xsd' "
    L"xmlns:wls='urn:orvel:zeb:wls' xmlns:zeb='urn:orvel:zeb:drvcomm'";

class XmlBody {
public:
    XmlBody() { m_com = SUCCEEDED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)); }
    ~XmlBody() {
        if (m_doc) m_doc->Release();
        if (m_com) CoUninitialize();
    }
    XmlBody(const XmlBody&) = delete;
    XmlBody& operator=(const XmlBody&) = delete;

    // Loads a recorded body: strictly valid UTF-8, then well-formed XML.
    bool Load(const std::string& body, std::string* why) {
        int count = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, body.data(), static_cast<int>(body.size()),
                                        nullptr, 0);
        if (count <= 0) {
            *why = "the body is not valid UTF-8";
            return false;
        }
        std::wstring text(static_cast<size_t>(count), L'\0');
        MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, body.data(), static_cast<int>(body.size()), &text[0],
                            count);
        // The text is handed over as UTF-16, so its encoding declaration goes.
        if (text.compare(0, 5, L"<?xml") == 0) text.erase(0, text.find(L"?>") + 2);
        if (FAILED(CoCreateInstance(kClsidDomDocument30, nullptr, CLSCTX_INPROC_SERVER, kIidXmlDomDocument2,
                                    reinterpret_cast<void**>(&m_doc)))) {
            *why = "no DOMDocument30";
            return false;
        }
        m_doc->put_async(VARIANT_FALSE);
        m_doc->put_preserveWhiteSpace(VARIANT_TRUE);
        m_doc->put_resolveExternals(VARIANT_FALSE);
        SetProperty(L"SelectionLanguage", L"XPath");
        SetProperty(L"SelectionNamespaces", kSelectionNamespaces);
        BSTR source = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
        VARIANT_BOOL loaded = VARIANT_FALSE;
        HRESULT hr = m_doc->loadXML(source, &loaded);
        SysFreeString(source);
        if (FAILED(hr) || loaded != VARIANT_TRUE) {
            *why = "not well-formed XML";
            return false;
        }
        return true;
    }

    // Number of nodes an XPath selects.
    long Count(const wchar_t* xpath) {
        IXMLDOMNodeList* list = Select(xpath);
        if (!list) return -1;
        long length = -1;
        list->get_length(&length);
        list->Release();
        return length;
    }

    // The character data of the first element an XPath selects, gathered
    // from its text children; *elementChildren tells whether the value made
    // any element of its own.
    std::wstring Text(const wchar_t* xpath, bool* found, bool* elementChildren) {
        *found = false;
        *elementChildren = false;
        std::wstring out;
        IXMLDOMNodeList* list = Select(xpath);
        if (!list) return out;
        IXMLDOMNode* node = nullptr;
        if (list->get_item(0, &node) == S_OK && node) {
            *found = true;
            IXMLDOMNodeList* children = nullptr;
            if (SUCCEEDED(node->get_childNodes(&children)) && children) {
                long n = 0;
                children->get_length(&n);
                for (long i = 0; i < n; ++i) {
                    IXMLDOMNode* child = nullptr;
                    if (children->get_item(i, &child) != S_OK || !child) continue;
                    DOMNodeType type = NODE_INVALID;
                    child->get_nodeType(&type);
                    if (type == NODE_TEXT || type == NODE_CDATA_SECTION) {
                        VARIANT value;
                        VariantInit(&value);
                        if (SUCCEEDED(child->get_nodeValue(&value)) && value.vt == VT_BSTR && value.bstrVal)
                            out.append(value.bstrVal, SysStringLen(value.bstrVal));
                        VariantClear(&value);
                    } else {
                        *elementChildren = true;
                    }
                    child->Release();
                }
                children->Release();
            }
            node->Release();
        }
        list->Release();
        return out;
    }

private:
    void SetProperty(const wchar_t* name, const wchar_t* value) {
        BSTR n = SysAllocString(name);
        VARIANT v;
        VariantInit(&v);
        v.vt = VT_BSTR;
        v.bstrVal = SysAllocString(value);
        m_doc->setProperty(n, v);
        VariantClear(&v);
        SysFreeString(n);
    }
    IXMLDOMNodeList* Select(const wchar_t* xpath) {
        if (!m_doc) return nullptr;
        BSTR query = SysAllocString(xpath);
        IXMLDOMNodeList* list = nullptr;
        HRESULT hr = m_doc->selectNodes(query, &list);
        SysFreeString(query);
        return SUCCEEDED(hr) ? list : nullptr;
    }

    bool m_com = false;
    IXMLDOMDocument2* m_doc = nullptr;
};

// Checks that `value`, escaped into the element at `xpath` (and written
// between `open` and `close` on the wire), stays inside it: the element
// occurs once (`allOfThem`), it has no element children, its text is the
// host's value as the escaping leaves it, the exact bytes between the tags
// are the escaped form, and the document has `expectedElements` elements
// (when not negative), as many as a request with a plain value.
void ExpectEscapedIn(XmlBody& xml, const std::string& body, const wchar_t* xpath, const wchar_t* allOfThem,
                     const std::string& open, const std::string& close, const std::wstring& value,
                     long expectedElements, const std::string& what) {
    EXPECT_EQ(xml.Count(allOfThem), 1) << what;
    bool found = false, elementChildren = false;
    std::wstring text = xml.Text(xpath, &found, &elementChildren);
    ASSERT_TRUE(found) << what;
    EXPECT_FALSE(elementChildren) << what;
    EXPECT_TRUE(text == Decoded(value)) << what << ": got " << Show(text) << ", sent " << Show(value);
    EXPECT_TRUE(Between(body, open, close) == Utf8Of(Escaped(value))) << what;
    if (expectedElements >= 0) {
        EXPECT_EQ(xml.Count(L"//*"), expectedElements) << what << ": element count";
    }
}

// The same for a body parsed here first (strictly valid UTF-8, well-formed).
void ExpectEscapedElement(const std::string& body, const wchar_t* xpath, const wchar_t* allOfThem,
                          const std::string& open, const std::string& close, const std::wstring& value,
                          long expectedElements, const std::string& what) {
    XmlBody xml;
    std::string why;
    ASSERT_TRUE(xml.Load(body, &why)) << what << ": " << why;
    ExpectEscapedIn(xml, body, xpath, allOfThem, open, close, value, expectedElements, what);
}

long ElementCount(const std::string& body) {
    XmlBody xml;
    std::string why;
    return xml.Load(body, &why) ? xml.Count(L"//*") : -1;
}

// ---- Process figures for the leak check ------------------------------------

// ---- The fixture -----------------------------------------------------------

AuthInfo Entry(const wchar_t* type, const std::wstring& info = L"login") {
    AuthInfo entry = {};
    wcsncpy(entry.Info, info.c_str(), 63);
    wcsncpy(entry.AuthType, type, 63);
    return entry;
}

// A valid user for every test, beside whatever hostile ones a test adds.
std::string UsersJson(const std::vector<std::string>& extra = {}) {
    std::string users = R"({"alice": {"password": "pw", "domain": "LAB"})";
    for (const std::string& e : extra) users += ", " + e;
    return users + "}";
}

std::string UserJson(const std::wstring& id, const std::wstring& password, const std::wstring& domain) {
    return qvtest::JsonQuoteWide(id) + ": {\"password\": " + qvtest::JsonQuoteWide(password) +
           ", \"domain\": " + qvtest::JsonQuoteWide(domain) + "}";
}

std::string Config(const std::vector<std::string>& extraUsers = {}) {
    return R"({"users": )" + UsersJson(extraUsers) +
           R"(, "policy": [{"Info": "login", "AuthType": "Basic2", "EnableCredentialCache": "true"}]})";
}

class HostileHost : public ::testing::Test {
protected:
    void SetUp() override {
        m_api = m_host.zeb;
        ASSERT_NE(m_api, nullptr);
    }
    void TearDown() override {
        // Back to defaults, so that nothing writes into the folder being removed.
        if (m_api) m_api->Initialize(m_dir.File(L"absent.ini").c_str());
    }

    void Initialize(qvtest::RefServerInstance& srv, int level = 4) {
        ASSERT_TRUE(srv.Ok());
        ASSERT_EQ(qvtest::InitializeWithIni(m_api, m_dir,
                                            qvtest::ServerKeys(srv) + "Timeout=15000\r\n" +
                                                qvtest::TraceKeys(m_dir.File(L"trace.log"), level)),
                  0u);
    }

    std::string Trace() const { return qvtest::ReadFileBytes(m_dir.File(L"trace.log")); }
    // Trace entries whose message is exactly `text`.
    size_t Traced(const std::string& text) const {
        std::string log = Trace();
        size_t n = 0;
        for (size_t at = log.find(" : " + text); at != std::string::npos; at = log.find(" : " + text, at + 1)) {
            size_t end = at + 3 + text.size();
            if (end == log.size() || log[end] == '\n') ++n;
        }
        return n;
    }

    DWORD Open(DWORD* handle, DWORD flags = 0) { return m_api->Open(L"127.0.0.1", handle, flags); }

    DWORD Login(DWORD handle, const AuthInfo& entry, const std::wstring& user, const std::wstring& password,
                const std::wstring& domain, DWORD flags = 0) {
        std::wstring u = user, p = password, d = domain;
        AuthCredential credential = {&u[0], &p[0], &d[0]};
        BYTE* output = nullptr;
        DWORD outputSize = 0;
        DWORD result = m_api->Authentication(handle, flags, &entry, &credential, &output, &outputSize);
        m_api->BufferFree(output);
        return result;
    }

    // GetACT with every buffer freed again; the code, and whether an ACT came.
    DWORD GetAct(DWORD handle, const std::wstring& subject, bool* gotAct = nullptr) {
        BYTE *key = nullptr, *act = nullptr, *signature = nullptr;
        DWORD keySize = 0, actSize = 0, signatureSize = 0;
        DWORD result =
            m_api->GetACT(handle, subject.c_str(), 0, &key, &keySize, &act, &actSize, &signature, &signatureSize);
        if (gotAct) *gotAct = act && actSize > 0;
        m_api->BufferFree(key);
        m_api->BufferFree(act);
        m_api->BufferFree(signature);
        return result;
    }

    // The session still does everything: policy, a login and an ACT.
    void ExpectUsable(DWORD handle, const std::string& after) {
        DWORD count = 0, ssl = 0;
        AuthInfo* list = nullptr;
        EXPECT_EQ(m_api->GetPolicy(handle, &count, &list, &ssl), 0u) << "after " << after;
        EXPECT_EQ(count, 1u) << "after " << after;
        m_api->BufferFree(list);
        EXPECT_EQ(Login(handle, Entry(L"Basic2"), L"alice", L"pw", L"LAB"), 0u) << "after " << after;
        bool gotAct = false;
        EXPECT_EQ(GetAct(handle, L"printer", &gotAct), 0u) << "after " << after;
        EXPECT_TRUE(gotAct) << "after " << after;
    }

    static std::vector<qvtest::RecordedRequest> On(qvtest::RefServerInstance& srv, const char* path,
                                                   const char* marker) {
        std::vector<qvtest::RecordedRequest> out;
        for (auto& r : srv.Requests())
            if (r.path == path && r.body.find(marker) != std::string::npos) out.push_back(r);
        return out;
    }

    qvtest::HostTable m_host;
    const ZEB_INTERFACE* m_api = nullptr;
    qvtest::TempDir m_dir;
};

// ---- Null and empty arguments -------------------------------------------------

TEST_F(HostileHost, InitializeRefusesOnlyANullPath) {
    qvtest::RefServerInstance srv(Config());
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    EXPECT_EQ(m_api->Initialize(nullptr), kParam);
    EXPECT_EQ(Traced("Initialize PARAMETER ZEB_ERROR = d5000057"), 1u);
    // Anything else is a file name, readable or not: the defaults then.
    const std::wstring paths[] = {
        L"",
        m_dir.File(L"no such folder\\Quorvantis.ini"),
        m_dir.File(L"a&b<c>d\"e'f\U0001F600.ini"),
        std::wstring(1, static_cast<wchar_t>(0xD800)) + L".ini",
        L"\\\\?\\" + m_dir.File(L"x.ini"),
        std::wstring(1u << 20, L'p'),
    };
    for (const std::wstring& path : paths) EXPECT_EQ(m_api->Initialize(path.c_str()), 0u) << Show(path);
    // A session opened before keeps its server.
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    ExpectUsable(handle, "hostile Initialize paths");
    m_api->Close(handle);
}

TEST_F(HostileHost, OpenRefusesEveryNullOrEmptyArgumentAndTakesNoNumber) {
    qvtest::RefServerInstance srv(Config());
    // Errors only: every refused call writes its one line.
    ASSERT_NO_FATAL_FAILURE(Initialize(srv, 1));
    DWORD before = 0;
    ASSERT_EQ(Open(&before), 0u);
    const wchar_t* addresses[] = {nullptr, L"", L"127.0.0.1"};
    size_t refused = 0;
    for (const wchar_t* address : addresses) {
        for (bool withHandle : {false, true}) {
            for (DWORD flags : {0u, 1u, 0xFFFFFFFFu}) {
                if (address && *address && withHandle) continue;  // the valid case
                DWORD handle = 0xDEADBEEF;
                EXPECT_EQ(m_api->Open(address, withHandle ? &handle : nullptr, flags), kParam);
                EXPECT_EQ(handle, 0xDEADBEEFu);
                ++refused;
            }
        }
    }
    EXPECT_EQ(Traced("Open PARAMETER ZEB_ERROR = d5000057"), refused);
    // No request went out and no number was used up.
    EXPECT_EQ(srv.Requests().size(), 0u);
    DWORD after = 0;
    ASSERT_EQ(Open(&after), 0u);
    EXPECT_EQ(after, before + 1);
    ExpectUsable(before, "refused Opens");
    ExpectUsable(after, "refused Opens");
    m_api->Close(before);
    m_api->Close(after);
}

TEST_F(HostileHost, OpenFlagsWithEveryBitSetMeanHttps) {
    qvtest::RefServerInstance srv(Config());
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle, 0xFFFFFFFFu), 0u);
    DWORD count = 0, ssl = 0;
    AuthInfo* list = nullptr;
    ASSERT_EQ(m_api->GetPolicy(handle, &count, &list, &ssl), 0u);
    m_api->BufferFree(list);
    EXPECT_EQ(ssl, 1u);
    ExpectUsable(handle, "an Open with every flag bit");
    m_api->Close(handle);
    for (auto& r : srv.Requests()) EXPECT_TRUE(r.tls) << r.path;
}

TEST_F(HostileHost, GetPolicyNullOutputsOnALiveSessionSendNothing) {
    qvtest::RefServerInstance srv(Config());
    // Errors only: every refused call writes its one line.
    ASSERT_NO_FATAL_FAILURE(Initialize(srv, 1));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    size_t refused = 0;
    for (int mask = 0; mask < 7; ++mask) {  // every combination with at least one null
        DWORD count = 7, ssl = 7;
        AuthInfo* list = reinterpret_cast<AuthInfo*>(0x1234);
        EXPECT_EQ(m_api->GetPolicy(handle, (mask & 1) ? &count : nullptr, (mask & 2) ? &list : nullptr,
                                   (mask & 4) ? &ssl : nullptr),
                  kParam)
            << mask;
        // Refused before any work: nothing written.
        EXPECT_EQ(count, 7u);
        EXPECT_EQ(ssl, 7u);
        EXPECT_EQ(list, reinterpret_cast<AuthInfo*>(0x1234));
        ++refused;
    }
    EXPECT_EQ(Traced("GetPolicy PARAMETER ZEB_ERROR = d5000057"), refused);
    EXPECT_EQ(srv.Requests().size(), 0u);
    ExpectUsable(handle, "refused GetPolicy calls");
    m_api->Close(handle);
}

// The argument rules of Authentication, written down from the interface's
// contract: which arguments each mechanism needs.
bool ArgumentsFit(const wchar_t* type, DWORD flags, bool record, bool user, bool password, bool domain, bool output,
                  bool outputSize) {
    const std::wstring t = type;
    if (t == L"NTLM") return !(flags & AUTH_FLAG_EXPLICIT_CREDENTIAL) || (record && user && password && domain);
    if (t == L"SDL" || t == L"SDL2") {
        if (!record || !user) return false;
        if (!(flags & AUTH_FLAG_DIGEST_PASSWORD) && !password) return false;
        if ((flags & AUTH_FLAG_RETURN_DIGEST) && (!output || !outputSize)) return false;
        return true;
    }
    if (t == L"Basic" || t == L"Basic2") return record && user && password && domain;
    return false;
}

TEST_F(HostileHost, AuthenticationNullArgumentsOnALiveSessionSendNothing) {
    qvtest::RefServerInstance srv(Config());
    // Errors only: every refused call writes its one line.
    ASSERT_NO_FATAL_FAILURE(Initialize(srv, 1));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    const wchar_t* types[] = {L"NTLM", L"SDL", L"SDL2", L"Basic", L"Basic2", L"", L"basic2", L"Basic2 "};
    const DWORD flagSets[] = {0, 1, 2, 4, 6, 0xFFFFFFFFu};
    size_t refused = 0;
    for (const wchar_t* type : types) {
        for (DWORD flags : flagSets) {
            // Bits: record, user, password, domain, output, output size;
            // every combination with at least one of them missing.
            for (int present = 0; present < 63; ++present) {
                bool record = present & 1, user = present & 2, password = present & 4, domain = present & 8,
                     output = present & 16, outputSize = present & 32;
                if (!record && (user || password || domain)) continue;  // fields need a record
                if (ArgumentsFit(type, flags, record, user, password, domain, output, outputSize)) continue;
                wchar_t u[] = L"alice", p[] = L"pw", d[] = L"LAB";
                AuthCredential credential = {user ? u : nullptr, password ? p : nullptr, domain ? d : nullptr};
                AuthInfo entry = Entry(type);
                BYTE* out = reinterpret_cast<BYTE*>(0x5678);
                DWORD outSize = 9;
                DWORD result = m_api->Authentication(handle, flags, &entry, record ? &credential : nullptr,
                                                     output ? &out : nullptr, outputSize ? &outSize : nullptr);
                EXPECT_EQ(result, kParam) << Narrow(type) << " flags " << flags << " present " << present;
                EXPECT_EQ(out, reinterpret_cast<BYTE*>(0x5678));
                EXPECT_EQ(outSize, 9u);
                ++refused;
            }
        }
    }
    // The null record, with and without everything else.
    EXPECT_EQ(m_api->Authentication(handle, 0, nullptr, nullptr, nullptr, nullptr), kParam);
    wchar_t u[] = L"alice", p[] = L"pw", d[] = L"LAB";
    AuthCredential credential = {u, p, d};
    BYTE* out = nullptr;
    DWORD outSize = 0;
    EXPECT_EQ(m_api->Authentication(handle, 0, nullptr, &credential, &out, &outSize), kParam);
    refused += 2;
    EXPECT_GT(refused, 1000u);
    EXPECT_EQ(Traced("Authentication ERROR_INVALID_PARAMETER ZEB_ERROR = d5000057"), refused);
    EXPECT_EQ(srv.Requests().size(), 0u);
    ExpectUsable(handle, "refused Authentication calls");
    m_api->Close(handle);
}

TEST_F(HostileHost, EmptyCredentialsAreRefusedByTheServerNotTheAddIn) {
    qvtest::RefServerInstance srv(Config());
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    const struct {
        const wchar_t* type;
        DWORD flags;
    } mechanisms[] = {{L"Basic", 0}, {L"Basic2", 0}, {L"SDL", AUTH_FLAG_RETURN_DIGEST},
                      {L"SDL2", AUTH_FLAG_DIGEST_PASSWORD | AUTH_FLAG_RETURN_DIGEST}};
    for (const auto& m : mechanisms) {
        // With the digest flag the password field holds the password's MD5.
        const wchar_t* goodPassword = (m.flags & AUTH_FLAG_DIGEST_PASSWORD) ? kPwDigest : L"pw";
        // The right user first, so each row below fails for its empty field.
        EXPECT_EQ(Login(handle, Entry(m.type), L"alice", goodPassword, L"LAB", m.flags), 0u) << Narrow(m.type);
        for (int empty = 1; empty < 8; ++empty) {
            std::wstring user = (empty & 1) ? L"" : L"alice", password = (empty & 2) ? L"" : goodPassword,
                         domain = (empty & 4) ? L"" : L"LAB";
            // The SDL mechanisms do not send the domain: an empty one is fine.
            const std::wstring t = m.type;
            bool sdl = t == L"SDL" || t == L"SDL2";
            if (sdl && empty == 4) continue;
            BYTE* out = nullptr;
            DWORD outSize = 0;
            AuthCredential credential = {&user[0], &password[0], &domain[0]};
            AuthInfo entry = Entry(m.type);
            DWORD result = m_api->Authentication(handle, m.flags, &entry, &credential, &out, &outSize);
            EXPECT_EQ(result, ZEB_ERROR_FAULT_FAILED_AUTHENTICATION)
                << Narrow(t) << " flags " << m.flags << " empty " << empty;
            EXPECT_EQ(out, nullptr);
            EXPECT_EQ(outSize, 0u);
            m_api->BufferFree(out);
        }
    }
    ExpectUsable(handle, "logins with empty credentials");
    m_api->Close(handle);
}

TEST_F(HostileHost, ReturnDigestFlagWithoutOutputsIsHarmlessForOtherMechanisms) {
    qvtest::RefServerInstance srv(Config());
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    // Only SDL and SDL2 need the outputs for flag 4; the password logins pass
    // the check without them and must not write through them.
    for (const wchar_t* type : {L"Basic", L"Basic2"}) {
        wchar_t u[] = L"alice", p[] = L"pw", d[] = L"LAB";
        AuthCredential credential = {u, p, d};
        AuthInfo entry = Entry(type);
        EXPECT_EQ(m_api->Authentication(handle, AUTH_FLAG_RETURN_DIGEST, &entry, &credential, nullptr, nullptr), 0u)
            << Narrow(type);
        BYTE* out = reinterpret_cast<BYTE*>(0x5678);
        DWORD outSize = 9;
        EXPECT_EQ(m_api->Authentication(handle, AUTH_FLAG_RETURN_DIGEST, &entry, &credential, &out, nullptr), 0u);
        EXPECT_EQ(m_api->Authentication(handle, AUTH_FLAG_RETURN_DIGEST, &entry, &credential, nullptr, &outSize),
                  0u);
        // With both outputs the (empty) digest is handed over.
        EXPECT_EQ(m_api->Authentication(handle, AUTH_FLAG_RETURN_DIGEST, &entry, &credential, &out, &outSize), 0u);
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(outSize, 0u);
    }
    ExpectUsable(handle, "flag 4 without outputs");
    m_api->Close(handle);
}

TEST_F(HostileHost, GetActNullArgumentsOnALiveSessionSendNothing) {
    qvtest::RefServerInstance srv(Config());
    // Errors only: every refused call writes its one line.
    ASSERT_NO_FATAL_FAILURE(Initialize(srv, 1));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    ASSERT_EQ(Login(handle, Entry(L"Basic2"), L"alice", L"pw", L"LAB"), 0u);
    const size_t sent = srv.Requests().size();
    size_t refused = 0;
    // Bit 0: subject; bits 1-6: the six out pointers.
    for (int present = 0; present < 127; ++present) {
        BYTE* const sentinel = reinterpret_cast<BYTE*>(0x5678);
        BYTE *key = sentinel, *act = sentinel, *signature = sentinel;
        DWORD keySize = 9, actSize = 9, signatureSize = 9;
        auto pick = [&](int bit, auto* p) { return (present & (1 << bit)) ? p : nullptr; };
        EXPECT_EQ(m_api->GetACT(handle, (present & 1) ? L"printer" : nullptr, 0, pick(1, &key), pick(2, &keySize),
                                pick(3, &act), pick(4, &actSize), pick(5, &signature), pick(6, &signatureSize)),
                  kParam)
            << present;
        EXPECT_TRUE(key == sentinel && act == sentinel && signature == sentinel) << present;
        EXPECT_TRUE(keySize == 9 && actSize == 9 && signatureSize == 9) << present;
        ++refused;
    }
    EXPECT_EQ(Traced("GetACT ERROR_INVALID_PARAMETER ZEB_ERROR = d5000057"), refused);
    EXPECT_EQ(srv.Requests().size(), sent);
    // An empty subject is a subject: an empty FPName goes out.
    bool gotAct = false;
    EXPECT_EQ(GetAct(handle, L"", &gotAct), 0u);
    EXPECT_TRUE(gotAct);
    auto acts = On(srv, kDrvCommPath, "GetACTRequest");
    ASSERT_FALSE(acts.empty());
    for (auto& r : acts) EXPECT_NE(r.body.find("<FPName></FPName>"), std::string::npos);
    ExpectUsable(handle, "refused GetACT calls");
    m_api->Close(handle);
}

// ---- Unknown and closed handles ------------------------------------------------

TEST_F(HostileHost, UnknownAndClosedHandlesTouchNothing) {
    qvtest::RefServerInstance srv(Config());
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD live = 0, closed = 0;
    ASSERT_EQ(Open(&live), 0u);
    ASSERT_EQ(Open(&closed), 0u);
    ASSERT_EQ(Login(closed, Entry(L"Basic2"), L"alice", L"pw", L"LAB"), 0u);
    m_api->Close(closed);
    m_api->Close(closed);  // double Close: ignored
    const size_t sent = srv.Requests().size();

    const DWORD handles[] = {0, closed, closed + 2, 0x7FFFFFFFu, 0xFFFFFFFFu, live ^ 0x80000000u};
    size_t rounds = 0;
    for (DWORD h : handles) {
        DWORD count = 7, ssl = 7;
        AuthInfo* list = reinterpret_cast<AuthInfo*>(0x1234);
        EXPECT_EQ(m_api->GetPolicy(h, &count, &list, &ssl), kHandle) << h;
        EXPECT_TRUE(count == 7 && ssl == 7 && list == reinterpret_cast<AuthInfo*>(0x1234)) << h;

        for (const wchar_t* type : {L"NTLM", L"SDL2", L"Basic2"}) {
            wchar_t u[] = L"alice", p[] = L"pw", d[] = L"LAB";
            AuthCredential credential = {u, p, d};
            AuthInfo entry = Entry(type);
            BYTE* out = reinterpret_cast<BYTE*>(0x5678);
            DWORD outSize = 9;
            EXPECT_EQ(m_api->Authentication(h, 7, &entry, &credential, &out, &outSize), kHandle) << h;
            EXPECT_TRUE(out == reinterpret_cast<BYTE*>(0x5678) && outSize == 9) << h;
        }

        BYTE* const sentinel = reinterpret_cast<BYTE*>(0x5678);
        BYTE *key = sentinel, *act = sentinel, *signature = sentinel;
        DWORD keySize = 9, actSize = 9, signatureSize = 9;
        EXPECT_EQ(m_api->GetACT(h, L"printer", 0, &key, &keySize, &act, &actSize, &signature, &signatureSize),
                  kHandle);
        EXPECT_TRUE(key == sentinel && act == sentinel && signature == sentinel) << h;
        EXPECT_TRUE(keySize == 9 && actSize == 9 && signatureSize == 9) << h;

        m_api->Close(h);
        m_api->Close(h);
        ++rounds;
    }
    EXPECT_EQ(Traced("GetPolicy CDeviceList::GetCDevice ZEB_ERROR = d5000006"), rounds);
    EXPECT_EQ(Traced("Authentication CDeviceList::GetCDevice ZEB_ERROR = d5000006"), rounds * 3);
    EXPECT_EQ(Traced("GetACT CDeviceList::GetCDevice ZEB_ERROR = d5000006"), rounds);
    EXPECT_EQ(srv.Requests().size(), sent);
    // The closed session's login was cancelled once, the live one is untouched.
    qvtest::JsonValue cancels;
    ASSERT_TRUE(qvtest::ParseJson(srv.StateJson("cancels"), &cancels));
    EXPECT_EQ(cancels.Size(), 1u);
    ExpectUsable(live, "calls on unknown handles");
    m_api->Close(live);
    m_api->Close(live);
    ASSERT_TRUE(qvtest::ParseJson(srv.StateJson("cancels"), &cancels));
    EXPECT_EQ(cancels.Size(), 2u);
}

TEST_F(HostileHost, BufferFreeOfNullIsIgnored) {
    qvtest::RefServerInstance srv(Config());
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    for (int i = 0; i < 3; ++i) m_api->BufferFree(nullptr);
    EXPECT_EQ(Traced("BufferFree OUT"), 3u);
    ExpectUsable(handle, "BufferFree(NULL)");
    m_api->Close(handle);
}

// ---- Hostile characters: escaped values --------------------------------------------

TEST_F(HostileHost, Basic2CredentialsStayInsideTheirElements) {
    // Each sample once as user ID, password and domain (told apart by a
    // prefix). The server knows each user as its escaped form reads back, so
    // a successful login proves that it read exactly those values.
    std::vector<Sample> samples = Samples();
    std::vector<std::string> users;
    for (const Sample& s : samples)
        users.push_back(UserJson(Decoded(L"u:" + s.value), Decoded(L"p:" + s.value), Decoded(L"d:" + s.value)));
    qvtest::RefServerInstance srv(Config(users));
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    ASSERT_EQ(Login(handle, Entry(L"Basic2"), L"alice", L"pw", L"LAB"), 0u);
    auto reference = On(srv, kStsPath, "BasicAuthenticationData");
    ASSERT_EQ(reference.size(), 1u);
    const long elements = ElementCount(reference[0].body);
    ASSERT_GT(elements, 0);

    for (const Sample& s : samples) {
        EXPECT_EQ(Login(handle, Entry(L"Basic2"), L"u:" + s.value, L"p:" + s.value, L"d:" + s.value), 0u) << s.name;
    }
    auto sent = On(srv, kStsPath, "BasicAuthenticationData");
    ASSERT_EQ(sent.size(), samples.size() + 1);
    for (size_t i = 0; i < samples.size(); ++i) {
        const Sample& s = samples[i];
        const std::wstring user = L"u:" + s.value, password = L"p:" + s.value, domain = L"d:" + s.value;
        const std::string& body = sent[i + 1].body;
        XmlBody xml;
        std::string why;
        ASSERT_TRUE(xml.Load(body, &why)) << s.name << ": " << why;
        const std::wstring base = L"/soap:Envelope/soap:Body/wst:RequestSecurityToken/";
        ExpectEscapedIn(xml, body, (base + L"wls:BasicAuthenticationData/wls:Id").c_str(), L"//wls:Id", "<wls:Id>",
                        "</wls:Id>", user, elements, std::string(s.name) + " as user ID");
        ExpectEscapedIn(xml, body, (base + L"wls:BasicAuthenticationData/wls:Password").c_str(), L"//wls:Password",
                        "<wls:Password>", "</wls:Password>", password, elements, std::string(s.name) + " as password");
        ExpectEscapedIn(xml, body, (base + L"wls:BasicAuthenticationData/wls:Domain").c_str(), L"//wls:Domain",
                        "<wls:Domain>", "</wls:Domain>", domain, elements, std::string(s.name) + " as domain");
        // The domain also names the login in Info, escaped the same way.
        ExpectEscapedIn(xml, body, (base + L"wls:AuthInfo/wls:Info").c_str(), L"//wls:Info", "<wls:Info>",
                        "</wls:Info>", domain, elements, std::string(s.name) + " as Info");
    }
    ExpectUsable(handle, "hostile Basic2 logins");
    m_api->Close(handle);
}

TEST_F(HostileHost, SubjectStaysInsideFPName) {
    qvtest::RefServerInstance srv(Config());
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    ASSERT_EQ(Login(handle, Entry(L"Basic2"), L"alice", L"pw", L"LAB"), 0u);
    ASSERT_EQ(GetAct(handle, L"printer"), 0u);  // the key exchange, once
    auto reference = On(srv, kDrvCommPath, "GetACTRequest");
    ASSERT_FALSE(reference.empty());
    const long elements = ElementCount(reference.back().body);
    ASSERT_GT(elements, 0);

    std::vector<Sample> samples = Samples();
    for (const Sample& s : samples) {
        bool gotAct = false;
        EXPECT_EQ(GetAct(handle, s.value, &gotAct), 0u) << s.name;
        EXPECT_TRUE(gotAct) << s.name;
    }
    auto sent = On(srv, kDrvCommPath, "GetACTRequest");
    ASSERT_EQ(sent.size(), samples.size() + 2);
    for (size_t i = 0; i < samples.size(); ++i) {
        ExpectEscapedElement(sent[i + 2].body,
                             L"/soap:Envelope/soap:Body/zeb:GetACTRequest/zeb:ACTParameter/zeb:FPName",
                             L"//zeb:FPName", "<FPName>", "</FPName>", samples[i].value, elements, samples[i].name);
    }
    // The server read each subject as the host gave it (escaping undone).
    qvtest::JsonValue names;
    ASSERT_TRUE(qvtest::ParseJson(srv.StateJson("extra"), &names));
    const qvtest::JsonValue& fp = names["fp_names"];
    ASSERT_EQ(fp.Size(), samples.size() + 2);  // + the two of the key exchange
    for (size_t i = 0; i < samples.size(); ++i)
        EXPECT_EQ(fp[i + 2].AsString(), Utf8Of(Decoded(samples[i].value))) << samples[i].name;
    ExpectUsable(handle, "hostile subjects");
    m_api->Close(handle);
}

TEST_F(HostileHost, NtlmDomainStaysInsideInfo) {
    // NTLM sends the domain twice: escaped in Info, and inside the NTLM
    // tokens, which the platform builds.
    qvtest::RefServerInstance srv(Config());
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    std::vector<Sample> samples = FewSamples();
    size_t checked = 0;
    for (const Sample& s : samples) {
        const std::wstring domain = L"d:" + s.value;
        size_t before = On(srv, kStsPath, "wls:AuthenticationData").size();
        DWORD result = Login(handle, Entry(L"NTLM"), L"nobody", L"pw", domain, AUTH_FLAG_EXPLICIT_CREDENTIAL);
        // Nobody is known: refused, by the server or by the platform's NTLM.
        EXPECT_TRUE(ZEB_FAILED(result)) << s.name;
        auto sent = On(srv, kStsPath, "wls:AuthenticationData");
        if (sent.size() == before) continue;  // the platform refused before anything was sent
        ExpectEscapedElement(sent[before].body, L"/soap:Envelope/soap:Body/wst:RequestSecurityToken/wls:AuthInfo/wls:Info",
                             L"//wls:Info", "<wls:Info>", "</wls:Info>", domain, -1, s.name);
        ++checked;
    }
    EXPECT_GT(checked, 0u);
    ExpectUsable(handle, "hostile NTLM domains");
    m_api->Close(handle);
}

// ---- Hostile characters: values that go in unescaped by design --------------------

TEST_F(HostileHost, BasicPayloadCarriesTheValuesVerbatim) {
    // Basic packs the credentials into a fragment that is Base64-encoded and
    // never parsed by the add-in, so the values go in as they are: no
    // entities, no blanks for control characters. Only Info (the domain) is
    // escaped. The server knows each user by the raw values.
    std::vector<Sample> samples = Samples();
    std::vector<std::string> users;
    for (const Sample& s : samples)
        users.push_back(UserJson(WireForm(L"u:" + s.value), WireForm(L"p:" + s.value), WireForm(L"d:" + s.value)));
    qvtest::RefServerInstance srv(Config(users));
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    for (const Sample& s : samples) {
        const std::wstring user = L"u:" + s.value, password = L"p:" + s.value, domain = L"d:" + s.value;
        EXPECT_EQ(Login(handle, Entry(L"Basic"), user, password, domain), 0u) << s.name;
        auto sent = On(srv, kStsPath, "wls:AuthenticationData");
        ASSERT_FALSE(sent.empty());
        const std::string& body = sent.back().body;
        // Deliberately raw: the fragment holds the host's text unchanged.
        EXPECT_EQ(qvtest::Base64Decode(Between(body, "<wls:AuthenticationData>", "</wls:AuthenticationData>")),
                  Utf8Of(L"<wls:ID>" + user + L"</wls:ID><wls:PASSWORD>" + password + L"</wls:PASSWORD><wls:Domain>" +
                         domain + L"</wls:Domain>"))
            << s.name;
        ExpectEscapedElement(body, L"/soap:Envelope/soap:Body/wst:RequestSecurityToken/wls:AuthInfo/wls:Info",
                             L"//wls:Info", "<wls:Info>", "</wls:Info>", domain, -1, s.name);
    }
    ExpectUsable(handle, "hostile Basic logins");
    m_api->Close(handle);
}

TEST_F(HostileHost, SdlSendsTheUserIdInItsPayloadAndInfoAsItIs) {
    // SDL and SDL2 put the user ID into a Base64 payload and the policy
    // entry's Info into the request unescaped, by design.
    std::vector<Sample> samples = Samples();
    std::vector<std::string> users;
    for (const Sample& s : samples) users.push_back(UserJson(WireForm(L"u:" + s.value), L"pw<&>'\"\x01", L""));
    qvtest::RefServerInstance srv(Config(users));
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    for (const wchar_t* type : {L"SDL", L"SDL2"}) {
        for (const Sample& s : std::wstring(type) == L"SDL" ? samples : FewSamples()) {
            const std::wstring user = L"u:" + s.value;
            ASSERT_LE(user.size(), 32u);
            EXPECT_EQ(Login(handle, Entry(type), user, L"pw<&>'\"\x01", L"LAB"), 0u) << Narrow(type) << " " << s.name;
            auto sent = On(srv, kStsPath, "wls:AuthenticationData");
            ASSERT_GE(sent.size(), 2u);
            const std::string& first = sent[sent.size() - 2].body;
            EXPECT_EQ(qvtest::Base64Decode(Between(first, "<wls:AuthenticationData>", "</wls:AuthenticationData>")),
                      "SDLChallengeRequest" + Utf8Of(user))
                << s.name;
        }
    }
    // Info as the host passes it: deliberately unescaped, so a "<" in it
    // breaks the request and the server refuses it. The session survives.
    for (const Sample& s : samples) {
        AuthInfo entry = Entry(L"SDL", s.value);
        const size_t before = On(srv, kStsPath, "wls:AuthenticationData").size();
        DWORD result = Login(handle, entry, L"alice", L"pw", L"LAB");
        auto sent = On(srv, kStsPath, "wls:AuthenticationData");
        ASSERT_GT(sent.size(), before);
        const std::string& first = sent[before].body;
        EXPECT_EQ(Between(first, "<wls:Info>", "</wls:Info>"), Utf8Of(s.value)) << s.name;
        // Where the raw text is not well-formed XML the server cannot read the
        // request and refuses it; otherwise the login goes through.
        XmlBody xml;
        std::string why;
        if (xml.Load(first, &why)) {
            EXPECT_EQ(result, 0u) << s.name;
        } else {
            EXPECT_TRUE(ZEB_FAILED(result)) << s.name << " " << std::hex << result;
        }
    }
    ExpectUsable(handle, "hostile SDL logins");
    m_api->Close(handle);
}

// ---- Megabyte strings ---------------------------------------------------------------

TEST_F(HostileHost, MegabyteAddressFailsCleanly) {
    qvtest::RefServerInstance srv(Config());
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD live = 0;
    ASSERT_EQ(Open(&live), 0u);
    const std::wstring address = Megabyte(L"host");
    DWORD handle = 0;
    DWORD result = m_api->Open(address.c_str(), &handle, 0);
    EXPECT_EQ(handle, live + 1);
    if (!ZEB_FAILED(result)) {
        // Wine's WinHttpConnect accepts any host name; the first request fails.
        DWORD count = 7, ssl = 0;
        AuthInfo* list = nullptr;
        EXPECT_TRUE(ZEB_FAILED(m_api->GetPolicy(handle, &count, &list, &ssl)));
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(list, nullptr);
        m_api->Close(handle);
    }
    EXPECT_EQ(srv.Requests().size(), 0u);
    ExpectUsable(live, "a megabyte address");
    m_api->Close(live);
}

TEST_F(HostileHost, MegabyteCredentials) {
    const std::wstring user = Megabyte(L"u"), password = Megabyte(L"p"), domain = Megabyte(L"d");
    {
        // Basic2: escaped, and read back by the server exactly.
        qvtest::RefServerInstance srv(Config({UserJson(Decoded(user), Decoded(password), Decoded(domain))}));
        ASSERT_NO_FATAL_FAILURE(Initialize(srv));
        DWORD handle = 0;
        ASSERT_EQ(Open(&handle), 0u);
        ASSERT_EQ(Login(handle, Entry(L"Basic2"), user, password, domain), 0u);
        auto sent = On(srv, kStsPath, "BasicAuthenticationData");
        ASSERT_EQ(sent.size(), 1u);
        const std::string& body = sent[0].body;
        XmlBody xml;
        std::string why;
        ASSERT_TRUE(xml.Load(body, &why)) << why;
        const std::wstring base = L"/soap:Envelope/soap:Body/wst:RequestSecurityToken/wls:BasicAuthenticationData/";
        ExpectEscapedIn(xml, body, (base + L"wls:Id").c_str(), L"//wls:Id", "<wls:Id>", "</wls:Id>", user, -1,
                        "megabyte user ID");
        ExpectEscapedIn(xml, body, (base + L"wls:Password").c_str(), L"//wls:Password", "<wls:Password>",
                        "</wls:Password>", password, -1, "megabyte password");
        ExpectEscapedIn(xml, body, (base + L"wls:Domain").c_str(), L"//wls:Domain", "<wls:Domain>",
                        "</wls:Domain>", domain, -1, "megabyte domain");
        m_api->Close(handle);
    }
    {
        // Basic: verbatim inside the payload; the server knows the raw values.
        qvtest::RefServerInstance srv(Config({UserJson(WireForm(user), WireForm(password), WireForm(domain))}));
        ASSERT_NO_FATAL_FAILURE(Initialize(srv));
        DWORD handle = 0;
        ASSERT_EQ(Open(&handle), 0u);
        EXPECT_EQ(Login(handle, Entry(L"Basic"), user, password, domain), 0u);
        // SDL carries any length; the server knows no such SDL password.
        EXPECT_EQ(Login(handle, Entry(L"SDL"), user, L"pw", domain), ZEB_ERROR_FAULT_FAILED_AUTHENTICATION);
        // NTLM with a megabyte identity: refused one way or another, never a
        // crash. The password stays short: Wine's msv1_0 overruns a fixed
        // buffer Base64-encoding a megabyte password for ntlm_auth.
        EXPECT_TRUE(ZEB_FAILED(Login(handle, Entry(L"NTLM"), user, L"pw", domain, AUTH_FLAG_EXPLICIT_CREDENTIAL)));
        m_api->Close(handle);
    }
    {
        // SDL2 cannot answer a challenge for a user ID beyond 32 characters:
        // it refuses before sending anything.
        qvtest::RefServerInstance srv(Config());
        ASSERT_NO_FATAL_FAILURE(Initialize(srv));
        DWORD handle = 0;
        ASSERT_EQ(Open(&handle), 0u);
        EXPECT_EQ(Login(handle, Entry(L"SDL2"), user, password, domain), kParam);
        EXPECT_EQ(srv.Requests().size(), 0u);
        ExpectUsable(handle, "megabyte credentials");
        m_api->Close(handle);
    }
}

TEST_F(HostileHost, MegabyteSubject) {
    qvtest::RefServerInstance srv(Config());
    ASSERT_NO_FATAL_FAILURE(Initialize(srv));
    DWORD handle = 0;
    ASSERT_EQ(Open(&handle), 0u);
    ASSERT_EQ(Login(handle, Entry(L"Basic2"), L"alice", L"pw", L"LAB"), 0u);
    const std::wstring subject = Megabyte(L"s");
    bool gotAct = false;
    EXPECT_EQ(GetAct(handle, subject, &gotAct), 0u);  // with the key exchange
    EXPECT_TRUE(gotAct);
    EXPECT_EQ(GetAct(handle, subject, &gotAct), 0u);  // with the key held
    EXPECT_TRUE(gotAct);
    ExpectUsable(handle, "megabyte subjects");
    m_api->Close(handle);
    auto acts = On(srv, kDrvCommPath, "GetACTRequest");
    ASSERT_GE(acts.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        ExpectEscapedElement(acts[i].body, L"/soap:Envelope/soap:Body/zeb:GetACTRequest/zeb:ACTParameter/zeb:FPName",
                             L"//zeb:FPName", "<FPName>", "</FPName>", subject, -1, "megabyte subject");
    }
}

// ---- No leak across rounds of all of it --------------------------------------------

TEST_F(HostileHost, RepeatedHostileRoundsLeakNothing) {
    std::vector<Sample> samples = FewSamples();
    std::vector<std::string> users;
    for (const Sample& s : samples)
        users.push_back(UserJson(Decoded(L"u:" + s.value), Decoded(L"p:" + s.value), Decoded(L"d:" + s.value)));
    qvtest::RefServerInstance srv(Config(users));
    ASSERT_NO_FATAL_FAILURE(Initialize(srv, 0));
    const std::wstring bigSubject = Megabyte(L"s");

    auto round = [&] {
        DWORD handle = 0;
        ASSERT_EQ(Open(&handle), 0u);
        // Refused arguments of every entry.
        DWORD count = 0, ssl = 0;
        AuthInfo* list = nullptr;
        EXPECT_EQ(m_api->GetPolicy(handle, nullptr, &list, &ssl), kParam);
        EXPECT_EQ(m_api->Authentication(handle, 0, nullptr, nullptr, nullptr, nullptr), kParam);
        BYTE *key = nullptr, *act = nullptr, *signature = nullptr;
        DWORD keySize = 0, actSize = 0, signatureSize = 0;
        EXPECT_EQ(m_api->GetACT(handle, nullptr, 0, &key, &keySize, &act, &actSize, &signature, &signatureSize),
                  kParam);
        EXPECT_EQ(m_api->Open(L"", &count, 0), kParam);
        m_api->BufferFree(nullptr);
        // The real flow with hostile values.
        EXPECT_EQ(m_api->GetPolicy(handle, &count, &list, &ssl), 0u);
        m_api->BufferFree(list);
        for (const Sample& s : samples) {
            EXPECT_EQ(Login(handle, Entry(L"Basic2"), L"u:" + s.value, L"p:" + s.value, L"d:" + s.value), 0u)
                << s.name;
        }
        EXPECT_EQ(Login(handle, Entry(L"Basic2"), L"u:x", L"p", L"d"), ZEB_ERROR_FAULT_FAILED_AUTHENTICATION);
        EXPECT_EQ(Login(handle, Entry(L"Basic2"), L"alice", L"pw", L"LAB"), 0u);
        EXPECT_EQ(GetAct(handle, samples[0].value), 0u);
        EXPECT_EQ(GetAct(handle, bigSubject), 0u);
        m_api->Close(handle);
        m_api->Close(handle);
        EXPECT_EQ(m_api->GetPolicy(handle, &count, &list, &ssl), kHandle);
    };

    for (int i = 0; i < 2; ++i) ASSERT_NO_FATAL_FAILURE(round());
    const DWORD handlesBefore = qvtest::HandleCount();
    const SIZE_T bytesBefore = qvtest::PrivateBytes();
    const int kRounds = 8;
    for (int i = 0; i < kRounds; ++i) ASSERT_NO_FATAL_FAILURE(round());
    const DWORD handlesAfter = qvtest::HandleCount();
    const SIZE_T bytesAfter = qvtest::PrivateBytes();
    ASSERT_GT(handlesBefore, 0u);
    ASSERT_GT(bytesBefore, 0u);
    // A leak per round would show as at least kRounds handles; the heap may
    // keep a few pages more, not a megabyte subject per round.
    EXPECT_LT(handlesAfter, handlesBefore + kRounds / 2) << handlesBefore << " -> " << handlesAfter;
    EXPECT_LT(bytesAfter, bytesBefore + 2 * 1024 * 1024) << bytesBefore << " -> " << bytesAfter;
    std::printf("handles %lu -> %lu, private bytes %lu KiB -> %lu KiB over %d rounds\n",
                static_cast<unsigned long>(handlesBefore), static_cast<unsigned long>(handlesAfter),
                static_cast<unsigned long>(bytesBefore / 1024), static_cast<unsigned long>(bytesAfter / 1024),
                kRounds);
}

}  // namespace
