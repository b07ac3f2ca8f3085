// The add-in's settings, read from an ini file (section "Quorvantis"). One
// module-wide current instance is built at load from "Quorvantis.ini" beside
// the module; Initialize replaces it with the file the host names. Readers take
// a snapshot (Current()) and keep what they need for their own lifetime.
#pragma once

#include <windows.h>

#include <memory>
#include <string>

struct AddinSettings {
    // Fields in their documented order; the defaults hold before the ini is read.
    DWORD dwDebugLevel = 0;
    std::wstring wstrDebugFile;
    std::wstring wstrPolicyServiceUrl = L"/wls/WLSPolicyService.actv";
    std::wstring wstrSTSUrl = L"/wls/STSServer.actv";
    std::wstring wstrDrvCommUrl = L"/zeb/Drv-Comm.actv";
    std::wstring wstrWebProxy;
    std::wstring wstrIniPath;
    USHORT usPortNo = 8000;
    USHORT usSecurePortNo = 8443;
    DWORD dwTimeout = 20000;
    DWORD dwRetryCount = 0;
    DWORD dwEnableMTOM = 0;
    // Non-zero: the server's certificate must pass every platform check
    // (authority, name, date); 0 keeps the lenient trust of servers with
    // self-signed certificates.
    DWORD dwStrictServerCertificate = 0;
    // Non-zero: level-5 trace lines show "***" in place of passwords,
    // challenge answers, the Basic payload, the encrypted HMAC key and the
    // SAML assertion; 0 writes every line as it always was.
    DWORD dwTraceRedactSecrets = 0;
    // The two service namespaces are the server's; they must match it.
    std::wstring wstrWlsNamespace = kDefaultWlsNamespace;
    std::wstring wstrZebNamespace = kDefaultZebNamespace;

    static constexpr const wchar_t* kSection = L"Quorvantis";
    static constexpr const wchar_t* kIniName = L"Quorvantis.ini";
    static constexpr const wchar_t* kModuleName = L"Quorvantis.dll";
    static constexpr const wchar_t* kDefaultWlsNamespace = L"urn:orvel:zeb:wls";
    static constexpr const wchar_t* kDefaultZebNamespace = L"urn:orvel:zeb:drvcomm";

    // Reads "Quorvantis.ini" beside the module.
    AddinSettings();
    // Reads the ini file at `iniPath`.
    explicit AddinSettings(const wchar_t* iniPath);

    // "<module folder>\Quorvantis.ini", or the bare "Quorvantis.ini" when the
    // module's name cannot be had.
    static std::wstring IniPathBesideModule();
    // The same for a given module file name: its folder (through the last
    // backslash) and "Quorvantis.ini"; a name without a backslash, or with
    // only one at its very start, is kept whole before the ini name.
    static std::wstring IniPathForModuleFile(const std::wstring& moduleFileName);

    // The current settings; built from the module's ini on first use if the
    // module has not loaded them yet.
    static std::shared_ptr<const AddinSettings> Current();
    // Makes `settings` current (also the trace log's level and file).
    static void Replace(std::shared_ptr<const AddinSettings> settings);

private:
    void ReadIni();
};
