/* An MSVC-ABI host (clang --target=x86_64-pc-windows-msvc, linked by lld-link
 * against the archive's lib/Quorvantis.lib, as an MSVC integrator's link
 * would): calls the export through the header's prototype (the import
 * library's thunk, ZEB_GetInterface) and through a dllimport declaration
 * (its import address, __imp_ZEB_GetInterface; see import.c). No C runtime:
 * the entry point returns the exit status. 0: both calls gave the same table
 * for ZEB_INTERFACE_VERSION and NULL for another version. */
#include <Quorvantis.h>

const ZEB_INTERFACE* GetThroughDllImport(USHORT version);

int mainCRTStartup(void)
{
    const ZEB_INTERFACE* table = ZEB_GetInterface(ZEB_INTERFACE_VERSION);
    if (!table || !table->Initialize || !table->GetACT || !table->Close)
        return 2;
    if (GetThroughDllImport(ZEB_INTERFACE_VERSION) != table)
        return 3;
    if (ZEB_GetInterface(0x0200) != 0 || GetThroughDllImport(0x0200) != 0)
        return 4;
    return 0;
}
