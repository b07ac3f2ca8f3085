// DocumentFactory: documents made with the one kept class factory work in
// every apartment, also after the apartment that first asked for it is gone.
#include <gtest/gtest.h>
#include <windows.h>
#include <objbase.h>

#include <string>

#include "common/ComPtr.h"
#include "common/ComString.h"
#include "soap/DocumentFactory.h"
#include "soap/SoapMessage.h"
#include "SoapTestSupport.h"

namespace {

const std::wstring kBindings = std::wstring(L"xmlns:soap='") + soaptest::kSoapUri + L"'";

// Runs `body` on a new thread inside an apartment of the given model, which
// the thread leaves before it ends.
template <typename Body>
void OnThreadInApartment(DWORD model, Body body) {
    struct Context {
        DWORD model;
        Body* body;
    } context{model, &body};
    HANDLE thread = CreateThread(
        nullptr, 0,
        [](LPVOID arg) -> DWORD {
            Context* c = static_cast<Context*>(arg);
            if (FAILED(CoInitializeEx(nullptr, c->model))) return 1;
            (*c->body)();
            CoUninitialize();
            return 0;
        },
        &context, 0, nullptr);
    ASSERT_NE(thread, nullptr);
    WaitForSingleObject(thread, INFINITE);
    DWORD exitCode = 1;
    GetExitCodeThread(thread, &exitCode);
    CloseHandle(thread);
    ASSERT_EQ(exitCode, 0u);
}

// Makes a document, loads a one-element text and reads the element's name.
std::wstring LoadAndReadRootName() {
    qv::ComPtr<IXMLDOMDocument2> document;
    if (FAILED(DocumentFactory::Create(document.put())) || !document) return L"(no document)";
    qv::UniqueBstr text = qv::MakeBstr(L"<root-element/>");
    VARIANT_BOOL loaded = VARIANT_FALSE;
    if (FAILED(document->loadXML(text.get(), &loaded)) || loaded != VARIANT_TRUE) return L"(not loaded)";
    qv::ComPtr<IXMLDOMElement> element;
    if (FAILED(document->get_documentElement(element.put())) || !element) return L"(no element)";
    qv::UniqueBstr name;
    if (FAILED(element->get_nodeName(name.put())) || !name) return L"(no name)";
    return name.get();
}

TEST(DocumentFactoryTest, DocumentsWorkInApartmentsMadeAfterTheFirstIsGone) {
    for (int round = 0; round < 3; ++round) {
        std::wstring name;
        OnThreadInApartment(COINIT_APARTMENTTHREADED, [&] { name = LoadAndReadRootName(); });
        EXPECT_EQ(name, L"root-element") << "round " << round;
    }
}

TEST(DocumentFactoryTest, DocumentsWorkInAMultiThreadedApartment) {
    std::wstring name;
    OnThreadInApartment(COINIT_MULTITHREADED, [&] { name = LoadAndReadRootName(); });
    EXPECT_EQ(name, L"root-element");
}

TEST(DocumentFactoryTest, EachCallMakesADocumentOfItsOwn) {
    std::wstring first, second;
    bool distinct = false;
    OnThreadInApartment(COINIT_APARTMENTTHREADED, [&] {
        qv::ComPtr<IXMLDOMDocument2> a, b;
        if (FAILED(DocumentFactory::Create(a.put())) || FAILED(DocumentFactory::Create(b.put())) || !a || !b) return;
        distinct = a.get() != b.get();
        VARIANT_BOOL loaded = VARIANT_FALSE;
        qv::UniqueBstr textA = qv::MakeBstr(L"<a/>"), textB = qv::MakeBstr(L"<b/>");
        a->loadXML(textA.get(), &loaded);
        b->loadXML(textB.get(), &loaded);
        qv::UniqueBstr xmlA, xmlB;
        a->get_xml(xmlA.put());
        b->get_xml(xmlB.put());
        first = xmlA ? xmlA.get() : L"";
        second = xmlB ? xmlB.get() : L"";
    });
    EXPECT_TRUE(distinct);
    EXPECT_NE(first.find(L"<a/>"), std::wstring::npos) << first;
    EXPECT_NE(second.find(L"<b/>"), std::wstring::npos) << second;
}

TEST(DocumentFactoryTest, NullOutputIsRefused) { EXPECT_EQ(DocumentFactory::Create(nullptr), E_POINTER); }

// A message on a thread without COM of its own sets up and tears down an
// apartment per object; loading still works object after object.
TEST(DocumentFactoryTest, MessagesLoadOnFreshApartmentsOneAfterAnother) {
    HANDLE thread = CreateThread(
        nullptr, 0,
        [](LPVOID) -> DWORD {
            for (int i = 0; i < 3; ++i) {
                SoapMessage message;
                if (message.SetXMLData(soaptest::Envelope(L"<v>x</v>").c_str(), kBindings.c_str()) !=
                    SoapMessage::kOk)
                    return 1;
                std::wstring value;
                if (message.GetXMLDataValue(L"soap:Body/v", value) != SoapMessage::kOk || value != L"x") return 2;
            }
            return 0;
        },
        nullptr, 0, nullptr);
    ASSERT_NE(thread, nullptr);
    WaitForSingleObject(thread, INFINITE);
    DWORD exitCode = 99;
    GetExitCodeThread(thread, &exitCode);
    CloseHandle(thread);
    EXPECT_EQ(exitCode, 0u);
}

}  // namespace
