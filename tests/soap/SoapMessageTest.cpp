// SoapMessage over the real MSXML3 DOM: loading, XPath relative to the root
// element, first-text-child values, buffer bounds and COM apartment rules.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "soap/SoapMessage.h"
#include "SoapTestSupport.h"
#include "support/RefServer.h"
#include "support/TestSupport.h"

using soaptest::Envelope;
using soaptest::kSoapUri;

namespace {

const std::wstring kBindings = std::wstring(L"xmlns:soap='") + kSoapUri + L"' xmlns:t='urn:test'";

class SoapMessageTest : public soaptest::LoggedTest {
protected:
    DWORD Load(SoapMessage& message, const std::wstring& body) {
        return message.SetXMLData(Envelope(body, L" xmlns:t=\"urn:test\"").c_str(), kBindings.c_str());
    }
};

TEST_F(SoapMessageTest, ConstructorInitialisesComOnAFreshThreadForItsOwnLifetime) {
    struct Probe {
        BOOL available = FALSE;
        BOOL release = FALSE;
        HRESULT afterDestroy = E_FAIL;
    } probe;
    HANDLE thread = CreateThread(
        nullptr, 0,
        [](LPVOID arg) -> DWORD {
            Probe* p = static_cast<Probe*>(arg);
            {
                SoapMessage message;
                p->available = message.ComAvailable();
                p->release = message.ComToRelease();
            }
            // The destructor balanced its CoInitialize: the thread is free
            // again, so a multi-threaded apartment can now be entered.
            p->afterDestroy = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            if (SUCCEEDED(p->afterDestroy)) CoUninitialize();
            return 0;
        },
        &probe, 0, nullptr);
    ASSERT_NE(thread, nullptr);
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
    EXPECT_EQ(probe.available, TRUE);
    EXPECT_EQ(probe.release, TRUE);
    EXPECT_EQ(probe.afterDestroy, S_OK);
}

TEST_F(SoapMessageTest, OnAMultiThreadedApartmentComIsAvailableAndNotUninitialised) {
    struct Probe {
        BOOL available = FALSE;
        BOOL release = TRUE;
        DWORD load = 99;
        std::wstring value;
        HRESULT afterDestroy = E_FAIL;
    } probe;
    HANDLE thread = CreateThread(
        nullptr, 0,
        [](LPVOID arg) -> DWORD {
            Probe* p = static_cast<Probe*>(arg);
            if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) return 1;
            {
                SoapMessage message;
                p->available = message.ComAvailable();
                p->release = message.ComToRelease();
                p->load = message.SetXMLData(Envelope(L"<v>mta</v>").c_str(),
                                             (std::wstring(L"xmlns:soap='") + kSoapUri + L"'").c_str());
                message.GetXMLDataValue(L"soap:Body/v", p->value);
            }
            // Still initialised by us (S_FALSE): the message did not undo it.
            p->afterDestroy = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            if (SUCCEEDED(p->afterDestroy)) CoUninitialize();
            CoUninitialize();
            return 0;
        },
        &probe, 0, nullptr);
    ASSERT_NE(thread, nullptr);
    WaitForSingleObject(thread, INFINITE);
    DWORD exitCode = 1;
    GetExitCodeThread(thread, &exitCode);
    CloseHandle(thread);
    ASSERT_EQ(exitCode, 0u);
    EXPECT_EQ(probe.available, TRUE);
    EXPECT_EQ(probe.release, FALSE);
    EXPECT_EQ(probe.load, SoapMessage::kOk);
    EXPECT_EQ(probe.value, L"mta");
    EXPECT_EQ(probe.afterDestroy, S_FALSE);
    EXPECT_TRUE(Logged(L"CoInitialize return 0x80010106.\n"));
}

TEST_F(SoapMessageTest, ValueIsTheFirstTextChildOnly) {
    SoapMessage message;
    ASSERT_EQ(Load(message, L"<t:v>x<t:e/>y</t:v>"), SoapMessage::kOk);
    std::wstring value;
    EXPECT_EQ(message.GetXMLDataValue(L"soap:Body/t:v", value), SoapMessage::kOk);
    EXPECT_EQ(value, L"x");
}

TEST_F(SoapMessageTest, TextAfterAnElementIsStillTheFirstTextChild) {
    SoapMessage message;
    ASSERT_EQ(Load(message, L"<t:v><t:e>inner</t:e>after<t:f/>last</t:v>"), SoapMessage::kOk);
    std::wstring value;
    EXPECT_EQ(message.GetXMLDataValue(L"soap:Body/t:v", value), SoapMessage::kOk);
    EXPECT_EQ(value, L"after");
}

TEST_F(SoapMessageTest, ElementWithOnlyAnEmptyElementChildLeavesTheOutputUnchanged) {
    SoapMessage message;
    ASSERT_EQ(Load(message, L"<t:v><t:e/></t:v><t:w/>"), SoapMessage::kOk);
    std::wstring value = L"unchanged";
    EXPECT_EQ(message.GetXMLDataValue(L"soap:Body/t:v", value), SoapMessage::kOk);
    EXPECT_EQ(value, L"unchanged");
    EXPECT_EQ(message.GetXMLDataValue(L"soap:Body/t:w", value), SoapMessage::kOk);
    EXPECT_EQ(value, L"unchanged");

    qv::ComPtr<IXMLDOMNode> node;
    ASSERT_EQ(message.GetXMLNode(L"soap:Body/t:v", node), SoapMessage::kOk);
    ASSERT_TRUE(node);
    wchar_t buffer[8] = L"keep";
    EXPECT_EQ(message.GetXMLDataValueFromNode(node.get(), buffer, 8), SoapMessage::kOk);
    EXPECT_STREQ(buffer, L"keep");
}

TEST_F(SoapMessageTest, EntitiesInTheValueAreDecoded) {
    SoapMessage message;
    ASSERT_EQ(Load(message, L"<t:v>a&amp;b&lt;c</t:v>"), SoapMessage::kOk);
    std::wstring value = L"old";
    EXPECT_EQ(message.GetXMLDataValue(L"soap:Body/t:v", value), SoapMessage::kOk);
    EXPECT_EQ(value, L"a&b<c");
}

TEST_F(SoapMessageTest, MalformedXmlGivesDomFailureAndLogsTheParserReason) {
    SoapMessage message;
    EXPECT_EQ(message.SetXMLData(L"<soap:Envelope><unclosed></soap:Envelope>", kBindings.c_str()),
              SoapMessage::kDomFailure);
    EXPECT_FALSE(message.HasDocument());
    // Wine's parser reasons are generic ("error"): only the line is checked.
    EXPECT_TRUE(LoggedContaining(L"XML load error. "));
    EXPECT_TRUE(Logged(L"loadXML failed."));
    EXPECT_TRUE(Logged(L"SoapMessage::SetXMLData OUT return 11"));
    std::wstring value;
    EXPECT_EQ(message.GetXMLDataValue(L"soap:Body", value), SoapMessage::kNoDocument);
}

TEST_F(SoapMessageTest, EmptyOrNonXmlTextGivesDomFailure) {
    SoapMessage message;
    EXPECT_EQ(message.SetXMLData(L"", kBindings.c_str()), SoapMessage::kDomFailure);
    EXPECT_EQ(message.SetXMLData(L"HTTP/1.1 500 Internal Server Error", kBindings.c_str()),
              SoapMessage::kDomFailure);
    EXPECT_FALSE(message.HasDocument());
}

TEST_F(SoapMessageTest, FailedLoadKeepsTheDocumentLoadedBefore) {
    SoapMessage message;
    ASSERT_EQ(Load(message, L"<t:v>first</t:v>"), SoapMessage::kOk);
    EXPECT_EQ(message.SetXMLData(L"<broken", kBindings.c_str()), SoapMessage::kDomFailure);
    std::wstring value;
    EXPECT_EQ(message.GetXMLDataValue(L"soap:Body/t:v", value), SoapMessage::kOk);
    EXPECT_EQ(value, L"first");
}

TEST_F(SoapMessageTest, SecondLoadReplacesTheDocument) {
    SoapMessage message;
    ASSERT_EQ(Load(message, L"<t:v>first</t:v>"), SoapMessage::kOk);
    ASSERT_EQ(Load(message, L"<t:v>second</t:v>"), SoapMessage::kOk);
    std::wstring value;
    EXPECT_EQ(message.GetXMLDataValue(L"soap:Body/t:v", value), SoapMessage::kOk);
    EXPECT_EQ(value, L"second");
}

TEST_F(SoapMessageTest, QueriesBeforeSetXMLDataGiveNoDocument) {
    SoapMessage loaded;
    ASSERT_EQ(Load(loaded, L"<t:v>x</t:v>"), SoapMessage::kOk);
    qv::ComPtr<IXMLDOMNode> foreign;
    ASSERT_EQ(loaded.GetXMLNode(L"soap:Body/t:v", foreign), SoapMessage::kOk);
    ASSERT_TRUE(foreign);

    SoapMessage message;
    EXPECT_FALSE(message.HasDocument());
    qv::ComPtr<IXMLDOMNode> node;
    qv::ComPtr<IXMLDOMNodeList> nodes;
    std::wstring text;
    wchar_t buffer[16] = {};
    EXPECT_EQ(message.GetXMLNode(L"soap:Body", node), SoapMessage::kNoDocument);
    EXPECT_EQ(message.GetXMLNodeList(L"soap:Body", nodes), SoapMessage::kNoDocument);
    EXPECT_EQ(message.GetXMLDataValue(L"soap:Body", text), SoapMessage::kNoDocument);
    EXPECT_EQ(message.GetXMLString(L"soap:Body", text), SoapMessage::kNoDocument);
    EXPECT_EQ(message.GetXMLDataValueFromNode(foreign.get(), text), SoapMessage::kNoDocument);
    EXPECT_EQ(message.GetXMLDataValueFromNode(foreign.get(), buffer, 16), SoapMessage::kNoDocument);
    EXPECT_EQ(message.GetXMLStringFromNode(foreign.get(), text), SoapMessage::kNoDocument);
    EXPECT_TRUE(Logged(L"XML status is invalid."));
}

TEST_F(SoapMessageTest, MissingArgumentsGiveInvalidArgument) {
    SoapMessage message;
    EXPECT_EQ(message.SetXMLData(nullptr, kBindings.c_str()), SoapMessage::kInvalidArgument);
    EXPECT_TRUE(Logged(L"invalid local params"));
    ASSERT_EQ(Load(message, L"<t:v>x</t:v>"), SoapMessage::kOk);
    qv::ComPtr<IXMLDOMNode> node;
    qv::ComPtr<IXMLDOMNodeList> nodes;
    std::wstring text;
    wchar_t buffer[16] = {};
    EXPECT_EQ(message.GetXMLNode(nullptr, node), SoapMessage::kInvalidArgument);
    EXPECT_EQ(message.GetXMLNodeList(nullptr, nodes), SoapMessage::kInvalidArgument);
    EXPECT_EQ(message.GetXMLDataValueFromNode(nullptr, text), SoapMessage::kInvalidArgument);
    EXPECT_EQ(message.GetXMLStringFromNode(nullptr, text), SoapMessage::kInvalidArgument);
    ASSERT_EQ(message.GetXMLNode(L"soap:Body/t:v", node), SoapMessage::kOk);
    EXPECT_EQ(message.GetXMLDataValueFromNode(nullptr, buffer, 16), SoapMessage::kInvalidArgument);
    EXPECT_EQ(message.GetXMLDataValueFromNode(node.get(), nullptr, 16), SoapMessage::kInvalidArgument);
    EXPECT_EQ(message.GetXMLDataValueFromNode(node.get(), buffer, 0), SoapMessage::kInvalidArgument);
    EXPECT_EQ(message.GetXMLDataValueFromNode(node.get(), buffer, -1), SoapMessage::kInvalidArgument);
}

TEST_F(SoapMessageTest, NoMatchIsAnEmptyNodeButAValueQueryGivesInvalidArgument) {
    SoapMessage message;
    ASSERT_EQ(Load(message, L"<t:v>x</t:v>"), SoapMessage::kOk);
    qv::ComPtr<IXMLDOMNode> node;
    EXPECT_EQ(message.GetXMLNode(L"soap:Body/t:missing", node), SoapMessage::kOk);
    EXPECT_FALSE(node);
    EXPECT_TRUE(Logged(L"selectSingleNode failed."));
    EXPECT_TRUE(Logged(L"Target XPath = soap:Body/t:missing."));

    std::wstring value = L"unchanged";
    EXPECT_EQ(message.GetXMLDataValue(L"soap:Body/t:missing", value), SoapMessage::kInvalidArgument);
    EXPECT_EQ(value, L"unchanged");
    EXPECT_EQ(message.GetXMLString(L"soap:Body/t:missing", value), SoapMessage::kInvalidArgument);
}

TEST_F(SoapMessageTest, UnboundPrefixMatchesNothing) {
    SoapMessage message;
    ASSERT_EQ(Load(message, L"<t:v>x</t:v>"), SoapMessage::kOk);
    qv::ComPtr<IXMLDOMNode> node;
    EXPECT_EQ(message.GetXMLNode(L"soap:Body/unbound:v", node), SoapMessage::kOk);
    EXPECT_FALSE(node);
    qv::ComPtr<IXMLDOMNodeList> nodes;
    EXPECT_EQ(message.GetXMLNodeList(L"soap:Body/unbound:v", nodes), SoapMessage::kOk);
    long count = 0;
    if (nodes) nodes->get_length(&count);
    EXPECT_EQ(count, 0);
}

TEST_F(SoapMessageTest, NodeOutputIsClearedBeforeTheQuery) {
    SoapMessage message;
    ASSERT_EQ(Load(message, L"<t:v>x</t:v>"), SoapMessage::kOk);
    qv::ComPtr<IXMLDOMNode> node;
    ASSERT_EQ(message.GetXMLNode(L"soap:Body/t:v", node), SoapMessage::kOk);
    ASSERT_TRUE(node);
    EXPECT_EQ(message.GetXMLNode(L"soap:Body/t:nothing", node), SoapMessage::kOk);
    EXPECT_FALSE(node);
}

TEST_F(SoapMessageTest, QueriesStartAtTheRootElement) {
    SoapMessage message;
    ASSERT_EQ(Load(message, L"<t:v>x</t:v>"), SoapMessage::kOk);
    std::wstring value;
    qv::ComPtr<IXMLDOMNode> node;
    EXPECT_EQ(message.GetXMLNode(L"soap:Envelope/soap:Body/t:v", node), SoapMessage::kOk);
    EXPECT_FALSE(node);
    EXPECT_EQ(message.GetXMLDataValue(L"soap:Envelope/soap:Body/t:v", value), SoapMessage::kInvalidArgument);
    EXPECT_EQ(message.GetXMLDataValue(L"soap:Body/t:v", value), SoapMessage::kOk);
    EXPECT_EQ(value, L"x");
}

TEST_F(SoapMessageTest, PrefixesComeFromTheSelectionNamespacesNotTheDocument) {
    SoapMessage message;
    // The document calls the test namespace "q"; the query says "t".
    ASSERT_EQ(message.SetXMLData(Envelope(L"<q:v xmlns:q=\"urn:test\">bound</q:v>").c_str(), kBindings.c_str()),
              SoapMessage::kOk);
    std::wstring value;
    EXPECT_EQ(message.GetXMLDataValue(L"soap:Body/t:v", value), SoapMessage::kOk);
    EXPECT_EQ(value, L"bound");
}

TEST_F(SoapMessageTest, NodeListFindsEveryMatchInDocumentOrder) {
    SoapMessage message;
    ASSERT_EQ(Load(message, L"<t:v>1</t:v><t:w>skip</t:w><t:v>2</t:v><t:v>3</t:v>"), SoapMessage::kOk);
    qv::ComPtr<IXMLDOMNodeList> nodes;
    ASSERT_EQ(message.GetXMLNodeList(L"soap:Body/t:v", nodes), SoapMessage::kOk);
    ASSERT_TRUE(nodes);
    long count = 0;
    ASSERT_EQ(nodes->get_length(&count), S_OK);
    ASSERT_EQ(count, 3);
    for (long i = 0; i < count; ++i) {
        qv::ComPtr<IXMLDOMNode> node;
        ASSERT_EQ(nodes->get_item(i, node.put()), S_OK);
        std::wstring value;
        EXPECT_EQ(message.GetXMLDataValueFromNode(node.get(), value), SoapMessage::kOk);
        EXPECT_EQ(value, std::to_wstring(i + 1));
    }
}

TEST_F(SoapMessageTest, NodeListWithoutMatchIsSuccess) {
    SoapMessage message;
    ASSERT_EQ(Load(message, L"<t:v>1</t:v>"), SoapMessage::kOk);
    qv::ComPtr<IXMLDOMNodeList> nodes;
    EXPECT_EQ(message.GetXMLNodeList(L"soap:Body/t:none", nodes), SoapMessage::kOk);
    long count = 0;
    if (nodes) {
        ASSERT_EQ(nodes->get_length(&count), S_OK);
    }
    EXPECT_EQ(count, 0);
}

TEST_F(SoapMessageTest, BufferFormCopiesAValueThatFits) {
    SoapMessage message;
    const std::wstring value63(63, L'a');
    ASSERT_EQ(Load(message, L"<t:v>" + value63 + L"</t:v>"), SoapMessage::kOk);
    qv::ComPtr<IXMLDOMNode> node;
    ASSERT_EQ(message.GetXMLNode(L"soap:Body/t:v", node), SoapMessage::kOk);
    wchar_t buffer[64];
    wmemset(buffer, L'#', 64);
    EXPECT_EQ(message.GetXMLDataValueFromNode(node.get(), buffer, 64), SoapMessage::kOk);
    EXPECT_EQ(std::wstring(buffer), value63);
}

TEST_F(SoapMessageTest, BufferFormWithSixtyFourCharactersForSixtyFourIsTooSmall) {
    SoapMessage message;
    std::wstring value64;
    for (int i = 0; i < 64; ++i) value64 += static_cast<wchar_t>(L'A' + i % 26);
    ASSERT_EQ(Load(message, L"<t:v>" + value64 + L"</t:v>"), SoapMessage::kOk);
    qv::ComPtr<IXMLDOMNode> node;
    ASSERT_EQ(message.GetXMLNode(L"soap:Body/t:v", node), SoapMessage::kOk);
    wchar_t buffer[64];
    EXPECT_EQ(message.GetXMLDataValueFromNode(node.get(), buffer, 64), SoapMessage::kBufferTooSmall);
    EXPECT_TRUE(Logged(L"StringCchCopy failed."));
    // The copy is bounded and terminated: the first 63 characters arrive.
    EXPECT_EQ(std::wstring(buffer), value64.substr(0, 63));
}

TEST_F(SoapMessageTest, MarkupOfANode) {
    SoapMessage message;
    ASSERT_EQ(Load(message, L"<t:v a=\"1\">x<t:e/></t:v>"), SoapMessage::kOk);
    std::wstring markup;
    EXPECT_EQ(message.GetXMLString(L"soap:Body/t:v", markup), SoapMessage::kOk);
    EXPECT_EQ(markup, L"<t:v a=\"1\">x<t:e/></t:v>");
    qv::ComPtr<IXMLDOMNode> node;
    ASSERT_EQ(message.GetXMLNode(L"soap:Body", node), SoapMessage::kOk);
    EXPECT_EQ(message.GetXMLStringFromNode(node.get(), markup), SoapMessage::kOk);
    EXPECT_EQ(soaptest::Unindented(markup), L"<soap:Body><t:v a=\"1\">x<t:e/></t:v></soap:Body>");
}

TEST_F(SoapMessageTest, ABadSelectionNamespacesValueDoesNotStopTheLoad) {
    SoapMessage message;
    EXPECT_EQ(message.SetXMLData(Envelope(L"<v>x</v>").c_str(), L"this is no declaration"), SoapMessage::kOk);
    EXPECT_TRUE(message.HasDocument());
    // Unprefixed steps need no binding.
    qv::ComPtr<IXMLDOMNodeList> nodes;
    EXPECT_EQ(message.GetXMLNodeList(L"*", nodes), SoapMessage::kOk);
}

TEST_F(SoapMessageTest, NullSelectionNamespacesIsAccepted) {
    SoapMessage message;
    EXPECT_EQ(message.SetXMLData(L"<root><v>x</v></root>", nullptr), SoapMessage::kOk);
    std::wstring value;
    EXPECT_EQ(message.GetXMLDataValue(L"v", value), SoapMessage::kOk);
    EXPECT_EQ(value, L"x");
}

TEST_F(SoapMessageTest, TracesEntryAndExitWithTheResult) {
    {
        SoapMessage message;
        Load(message, L"<t:v>x</t:v>");
        std::wstring value;
        message.GetXMLDataValue(L"soap:Body/t:v", value);
    }
    EXPECT_TRUE(Logged(L"SoapMessage::SoapMessage IN"));
    EXPECT_TRUE(Logged(L"SoapMessage::SoapMessage OUT"));
    EXPECT_TRUE(LoggedContaining(L"CoInitialize return 0x0000000"));
    EXPECT_TRUE(Logged(L"SoapMessage::SetXMLData IN"));
    EXPECT_TRUE(Logged(L"SoapMessage::SetXMLData OUT return 0"));
    EXPECT_TRUE(Logged(L"SoapMessage::GetXMLNode IN"));
    EXPECT_TRUE(Logged(L"SoapMessage::GetXMLNode OUT return 0"));
    EXPECT_TRUE(Logged(L"Target XPath = soap:Body/t:v."));
    EXPECT_TRUE(Logged(L"SoapMessage::GetXMLDataValueFromNode OUT return 0"));
    EXPECT_TRUE(Logged(L"SoapMessage::GetXMLDataValue OUT return 0"));
    EXPECT_TRUE(Logged(L"SoapMessage::~SoapMessage OUT"));
}

}  // namespace

// Server text never brings a document type declaration into a loaded
// document: not an internal subset, not an external one, and whatever it
// names is not fetched.
class SoapMessageDtdTest : public SoapMessageTest {
protected:
    static std::wstring WithDoctype(const std::wstring& doctype, const std::wstring& value) {
        return L"<?xml version=\"1.0\" encoding=\"utf-8\"?>" + doctype + L"<soap:Envelope xmlns:soap=\"" + kSoapUri +
               L"\" xmlns:t=\"urn:test\"><soap:Body><t:v>" + value + L"</t:v></soap:Body></soap:Envelope>";
    }
};

TEST_F(SoapMessageDtdTest, InternalSubsetIsRefusedAndTheDocumentBeforeIsKept) {
    SoapMessage message;
    ASSERT_EQ(Load(message, L"<t:v>first</t:v>"), SoapMessage::kOk);
    const std::wstring text =
        WithDoctype(L"<!DOCTYPE soap:Envelope [<!ENTITY x \"expanded\">]>", L"&x;");
    EXPECT_EQ(message.SetXMLData(text.c_str(), kBindings.c_str()), SoapMessage::kDomFailure);
    EXPECT_TRUE(LoggedContaining(L"XML load error. "));
    EXPECT_TRUE(Logged(L"loadXML failed."));
    std::wstring value;
    EXPECT_EQ(message.GetXMLDataValue(L"soap:Body/t:v", value), SoapMessage::kOk);
    EXPECT_EQ(value, L"first");
}

TEST_F(SoapMessageDtdTest, ADoctypeWithoutDeclarationsIsRefusedToo) {
    SoapMessage message;
    const std::wstring text = WithDoctype(L"<!DOCTYPE soap:Envelope>", L"plain");
    EXPECT_EQ(message.SetXMLData(text.c_str(), kBindings.c_str()), SoapMessage::kDomFailure);
    EXPECT_FALSE(message.HasDocument());
}

TEST_F(SoapMessageDtdTest, NothingNamedByTheDeclarationIsFetched) {
    qvtest::RefServerInstance srv;
    ASSERT_TRUE(srv.Ok());
    const std::wstring base = L"http://127.0.0.1:" + std::to_wstring(srv.HttpPort());
    const std::wstring external = WithDoctype(L"<!DOCTYPE soap:Envelope SYSTEM \"" + base + L"/subset.dtd\">", L"x");
    const std::wstring entity =
        WithDoctype(L"<!DOCTYPE soap:Envelope [<!ENTITY e SYSTEM \"" + base + L"/entity.txt\">]>", L"&e;");
    const std::wstring parameter = WithDoctype(
        L"<!DOCTYPE soap:Envelope [<!ENTITY % p SYSTEM \"" + base + L"/parameter.dtd\"> %p;]>", L"x");
    for (const std::wstring* text : {&external, &entity, &parameter}) {
        SoapMessage message;
        EXPECT_EQ(message.SetXMLData(text->c_str(), kBindings.c_str()), SoapMessage::kDomFailure) << qvtest::Narrow(*text);
    }
    EXPECT_EQ(srv.Requests().size(), 0u);
}

// Wine's msxml3 accepts ProhibitDTD but ignores it (it parses the DTD and expands entities, and stops a
// "billion laughs" by libxml2's amplification limit): what these tests see there is the load's own refusal.
TEST_F(SoapMessageDtdTest, EntityExpansionIsRefusedWithoutGrowingMemory) {
    std::wstring declarations = L"<!ENTITY a0 \"laugh laugh laugh laugh laugh laugh laugh laugh laugh laugh\">";
    for (int i = 1; i <= 9; ++i) {
        std::wstring line = L"<!ENTITY a" + std::to_wstring(i) + L" \"";
        for (int j = 0; j < 10; ++j) line += L"&a" + std::to_wstring(i - 1) + L";";
        declarations += line + L"\">";
    }
    const std::wstring text = WithDoctype(L"<!DOCTYPE soap:Envelope [" + declarations + L"]>", L"&a9;");
    const SIZE_T before = qvtest::PrivateBytes();
    SoapMessage message;
    EXPECT_EQ(message.SetXMLData(text.c_str(), kBindings.c_str()), SoapMessage::kDomFailure);
    EXPECT_FALSE(message.HasDocument());
    // Fully expanded the value would be 6 * 10^9 characters.
    EXPECT_LT(qvtest::PrivateBytes(), before + 64u * 1024 * 1024);
}

// Deeply nested answers are refused by the load, not by a blown stack (under
// Wine, libxml2's own nesting limit of 256 applies as well).
TEST_F(SoapMessageDtdTest, DeeplyNestedAnswersAreRefused) {
    auto nested = [](int depth) {
        std::wstring open, close;
        for (int i = 0; i < depth; ++i) {
            open += L"<t:n>";
            close += L"</t:n>";
        }
        return std::wstring(L"<?xml version=\"1.0\" encoding=\"utf-8\"?><soap:Envelope xmlns:soap=\"") + kSoapUri +
               L"\" xmlns:t=\"urn:test\"><soap:Body>" + open + L"x" + close + L"</soap:Body></soap:Envelope>";
    };
    SoapMessage shallow;
    EXPECT_EQ(shallow.SetXMLData(nested(100).c_str(), kBindings.c_str()), SoapMessage::kOk);
    for (int depth : {300, 100000}) {
        SoapMessage message;
        EXPECT_EQ(message.SetXMLData(nested(depth).c_str(), kBindings.c_str()), SoapMessage::kDomFailure) << depth;
        EXPECT_FALSE(message.HasDocument());
    }
}
