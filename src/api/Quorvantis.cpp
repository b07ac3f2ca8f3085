// The module entry point. The export, ZEB_GetInterface, is defined with the
// interface table it hands out (QuorvantisAPI.cpp).
#include <windows.h>

#include "Quorvantis.h"
#include "api/QuorvantisAPI.h"

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    switch (reason) {
        case DLL_PROCESS_ATTACH:
            QuorvantisAPI::OnProcessAttach(instance);
            break;
        case DLL_PROCESS_DETACH:
            QuorvantisAPI::OnProcessDetach(instance);
            break;
        default:
            break;
    }
    return TRUE;
}
