/* The export through __declspec(dllimport), as MSVC code that declares it
 * so calls it: through the import address __imp_ZEB_GetInterface. */
#define QUORVANTIS_NO_PROTOTYPES
#include <Quorvantis.h>

__declspec(dllimport) const ZEB_INTERFACE* WINAPI ZEB_GetInterface(USHORT version);

const ZEB_INTERFACE* GetThroughDllImport(USHORT version);
const ZEB_INTERFACE* GetThroughDllImport(USHORT version)
{
    return ZEB_GetInterface(version);
}
