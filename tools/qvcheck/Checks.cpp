#include "Checks.h"

#include <cstdio>

#include "CheckGroups.h"

namespace qvcheck {
namespace {

using WineGetVersionFn = const char*(CDECL*)();
using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOW*);

HMODULE Ntdll() { return GetModuleHandleW(L"ntdll.dll"); }

}  // namespace

Environment DetectEnvironment() {
    Environment environment;
    HMODULE ntdll = Ntdll();
    auto wineGetVersion =
        ntdll ? reinterpret_cast<WineGetVersionFn>(GetProcAddress(ntdll, "wine_get_version")) : nullptr;
    if (wineGetVersion) {
        environment.wine = true;
        const char* version = wineGetVersion();
        environment.wineVersion = version ? version : "";
    }
    return environment;
}

std::string DescribePlatform(const Environment& environment) {
    // RtlGetVersion tells the real version; GetVersionEx answers what the
    // program's manifest allows.
    OSVERSIONINFOW version = {};
    version.dwOSVersionInfoSize = sizeof(version);
    HMODULE ntdll = Ntdll();
    auto rtlGetVersion = ntdll ? reinterpret_cast<RtlGetVersionFn>(GetProcAddress(ntdll, "RtlGetVersion")) : nullptr;
    std::string text = "Windows";
    if (rtlGetVersion && rtlGetVersion(&version) == 0) {
        char number[48];
        std::snprintf(number, sizeof(number), " %lu.%lu.%lu", static_cast<unsigned long>(version.dwMajorVersion),
                      static_cast<unsigned long>(version.dwMinorVersion),
                      static_cast<unsigned long>(version.dwBuildNumber));
        text += number;
    }
    text += sizeof(void*) == 8 ? ", x64 process" : ", x86 process";
    if (environment.wine) text += " (Wine " + Ascii(environment.wineVersion) + ")";
    return text;
}

const std::vector<Check>& AllChecks() {
    static const std::vector<Check> checks = {
        {"crypt-context", &CheckCryptContext},
        {"crypt-container", &CheckCryptContainer},
        {"crypt-random", &CheckCryptRandom},
        {"md5", &CheckMd5},
        {"hmac-md5", &CheckHmacMd5},
        {"hmac-sha1", &CheckHmacSha1},
        {"rsa-pkcs1", &CheckRsaPkcs1},
        {"uuid", &CheckUuid},
        {"msxml3-properties", &CheckXmlProperties},
        {"msxml3-xpath", &CheckXmlXPath},
        {"msxml3-prohibit-dtd", &CheckXmlProhibitDtd},
        {"msxml3-max-depth", &CheckXmlMaxDepth},
        {"winhttp-timeouts", &CheckHttpTimeouts},
        {"winhttp-tls-protocols", &CheckHttpTlsProtocols},
        {"winhttp-security-flags", &CheckHttpSecurityFlags},
        {"winhttp-disable-feature", &CheckHttpDisableFeature},
        {"sspi-ntlm", &CheckNtlm},
        {"event-source", &CheckEventSource},
        {"addin-log-key", &CheckAddinLogKey},
        {"profile-folder", &CheckProfileFolder},
    };
    return checks;
}

}  // namespace qvcheck
