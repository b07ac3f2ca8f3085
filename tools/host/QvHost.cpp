// qvhost: a command-line host that loads Quorvantis.dll the way a printer
// driver does and drives it through the interface table only.
#include <windows.h>

#include <cstdio>
#include <cwchar>

#define QUORVANTIS_NO_PROTOTYPES
#include "Quorvantis.h"

int wmain(int argc, wchar_t** argv) {
    const wchar_t* dll = L"Quorvantis.dll";
    const wchar_t* ini = nullptr;
    const wchar_t* address = L"127.0.0.1";
    for (int i = 1; i + 1 < argc; i += 2) {
        if (wcscmp(argv[i], L"--dll") == 0) dll = argv[i + 1];
        else if (wcscmp(argv[i], L"--ini") == 0) ini = argv[i + 1];
        else if (wcscmp(argv[i], L"--address") == 0) address = argv[i + 1];
    }
    HMODULE module = LoadLibraryW(dll);
    if (!module) {
        fwprintf(stderr, L"cannot load %ls (error %lu)\n", dll, GetLastError());
        return 2;
    }
    auto getInterface = reinterpret_cast<PFN_ZEB_GetInterface>(GetProcAddress(module, "ZEB_GetInterface"));
    const ZEB_INTERFACE* zeb = getInterface ? getInterface(ZEB_INTERFACE_VERSION) : nullptr;
    if (!zeb) {
        fwprintf(stderr, L"no interface 0x%04x\n", ZEB_INTERFACE_VERSION);
        return 2;
    }
    wprintf(L"interface version 0x%04x\n", ZEB_INTERFACE_VERSION);
    if (ini) wprintf(L"Initialize -> 0x%08lx\n", zeb->Initialize(ini));
    DWORD handle = 0;
    DWORD result = zeb->Open(address, &handle, 0);
    wprintf(L"Open -> 0x%08lx handle %lu\n", result, handle);
    if (!ZEB_FAILED(result)) zeb->Close(handle);
    FreeLibrary(module);
    return ZEB_FAILED(result) ? 1 : 0;
}
