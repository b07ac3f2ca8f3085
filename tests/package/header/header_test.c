/* Compiled as C89, C99 and C++ (tests/package/CMakeLists.txt) with
 * -Wall -Wextra -pedantic -Werror, from the release archive's include/:
 * the public header must build cleanly in each, as an integrator's code
 * includes it. Uses every kind of declaration the header makes. */
#include <Quorvantis.h>

static DWORD WINAPI Initialize(LPCWSTR iniPath) { return iniPath ? ZEB_SUCCESS : ZEB_ERROR_INVALID_PARAMETER; }

int main(void)
{
    ZEB_INTERFACE table;
    AuthInfo info;
    AuthCredential credential;
    PFN_ZEB_GetInterface get = ZEB_GetInterface;
    DWORD code = ZEB_ERROR_WINHTTP_TIMEOUT;
    DWORD flags = ZEB_ACT_FLAG_ACV256 | ZEB_ACT_FLAG_ACV770 | AUTH_FLAG_RETURN_DIGEST | ZEB_OPEN_FLAG_SSL;
    const char* version = QUORVANTIS_VERSION_STRING;

    table.ZEB_GetInterface = get;
    table.Initialize = Initialize;
    info.bEnableCredentialCache = 1;
    credential.UserID = info.Info;
    credential.Password = info.AuthType;
    credential.Domain = 0;
    if (sizeof(AuthInfo) != 260 || !ZEB_FAILED(code) || ZEB_FAILED(ZEB_SUCCESS))
        return 1;
    if (QUORVANTIS_VERSION_MAJOR * 10000L + QUORVANTIS_VERSION_MINOR * 100L + QUORVANTIS_VERSION_PATCH < 10000L || !version[0])
        return 1;
    return table.Initialize(credential.UserID) == ZEB_SUCCESS && flags != 0 && ZEB_INTERFACE_VERSION == 0x0100 ? 0 : 1;
}
