#include "soap/DocumentFactory.h"

#include <strsafe.h>

namespace {

// MinGW's import libraries define neither of these; the GUIDs are MSXML3's
// published ones. Local names keep them clear of the SDK's own declarations.
const CLSID kClsidDomDocument30 = {0xF5078F32, 0xC551, 0x11D3, {0x89, 0xB9, 0x00, 0x00, 0xF8, 0x1F, 0xE2, 0x21}};
const IID kIidXmlDomDocument2 = {0x2933BF95, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};

// The server the registry names for DOMDocument30, loaded from the system
// folder by its full path (never through the search path).
constexpr const wchar_t* kServerName = L"msxml3.dll";

using DllGetClassObjectFn = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);

INIT_ONCE g_once = INIT_ONCE_STATIC_INIT;
// Kept for the life of the process (see the header); null when it could not
// be had, and documents then come from CoCreateInstance.
IClassFactory* g_factory = nullptr;

IClassFactory* LoadFactory() {
    wchar_t path[MAX_PATH] = {};
    UINT length = GetSystemDirectoryW(path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) return nullptr;
    if (path[length - 1] != L'\\') path[length++] = L'\\';
    if (FAILED(StringCchCopyW(path + length, MAX_PATH - length, kServerName))) return nullptr;
    HMODULE server = LoadLibraryW(path);
    if (!server) return nullptr;
    // GetProcAddress gives every export one generic type; the export's real
    // type is restored through the no-argument function type, the documented
    // way to tell GCC's -Wcast-function-type that the cast is meant.
    using AnyFn = void (*)();
    auto getClassObject = reinterpret_cast<DllGetClassObjectFn>(
        reinterpret_cast<AnyFn>(GetProcAddress(server, "DllGetClassObject")));
    IClassFactory* factory = nullptr;
    if (!getClassObject ||
        FAILED(getClassObject(kClsidDomDocument30, IID_IClassFactory, reinterpret_cast<void**>(&factory))) ||
        !factory) {
        FreeLibrary(server);
        return nullptr;
    }
    // The module reference is kept with the factory: nothing unloads the
    // server while documents may still be made with it.
    // cppcheck-suppress resourceLeak
    return factory;
}

BOOL CALLBACK InitFactory(PINIT_ONCE, PVOID, PVOID*) {
    g_factory = LoadFactory();
    return TRUE;
}

}  // namespace

namespace DocumentFactory {

HRESULT Create(IXMLDOMDocument2** document) {
    if (!document) return E_POINTER;
    *document = nullptr;
    InitOnceExecuteOnce(&g_once, InitFactory, nullptr, nullptr);
    if (g_factory)
        return g_factory->CreateInstance(nullptr, kIidXmlDomDocument2, reinterpret_cast<void**>(document));
    return CoCreateInstance(kClsidDomDocument30, nullptr, CLSCTX_INPROC_SERVER, kIidXmlDomDocument2,
                            reinterpret_cast<void**>(document));
}

}  // namespace DocumentFactory
