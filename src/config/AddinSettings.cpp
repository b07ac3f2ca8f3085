#include "config/AddinSettings.h"

#include "common/Holders.h"

#include "log/TraceRedaction.h"
#include "log/WSCLog.h"

namespace {

constexpr DWORD kValueChars = 260;

SRWLOCK g_currentLock = SRWLOCK_INIT;
std::shared_ptr<const AddinSettings> g_current;

std::shared_ptr<const AddinSettings> Snapshot() {
    qv::SrwShared hold(g_currentLock);
    return g_current;
}

// A present but empty key leaves the previous value (for a path: its default).
void ReadString(const wchar_t* path, const wchar_t* key, std::wstring& field) {
    wchar_t value[kValueChars] = {};
    DWORD length = GetPrivateProfileStringW(AddinSettings::kSection, key, field.c_str(), value, kValueChars, path);
    if (length != 0) field.assign(value, length);
}

UINT ReadInt(const wchar_t* path, const wchar_t* key, UINT fallback) {
    return GetPrivateProfileIntW(AddinSettings::kSection, key, static_cast<INT>(fallback), path);
}

}  // namespace

AddinSettings::AddinSettings() : wstrIniPath(IniPathBesideModule()) { ReadIni(); }

AddinSettings::AddinSettings(const wchar_t* iniPath) : wstrIniPath(iniPath ? iniPath : L"") { ReadIni(); }

void AddinSettings::ReadIni() {
    const wchar_t* path = wstrIniPath.c_str();
    dwDebugLevel = ReadInt(path, L"DebugLevel", 0);
    ReadString(path, L"DebugFile", wstrDebugFile);
    ReadString(path, L"PolicyServiceUrl", wstrPolicyServiceUrl);
    ReadString(path, L"STSUrl", wstrSTSUrl);
    ReadString(path, L"DrvCommUrl", wstrDrvCommUrl);
    ReadString(path, L"WebProxy", wstrWebProxy);
    usPortNo = static_cast<USHORT>(ReadInt(path, L"PortNo", 8000));
    usSecurePortNo = static_cast<USHORT>(ReadInt(path, L"SecurePortNo", 8443));
    dwTimeout = ReadInt(path, L"Timeout", 20000);
    dwRetryCount = ReadInt(path, L"RetryCount", 0);
    dwEnableMTOM = ReadInt(path, L"EnableMTOM", 0);
    dwStrictServerCertificate = ReadInt(path, L"StrictServerCertificate", 0);
    dwTraceRedactSecrets = ReadInt(path, L"TraceRedactSecrets", 0);
    ReadString(path, L"WlsNamespace", wstrWlsNamespace);
    ReadString(path, L"ZebNamespace", wstrZebNamespace);
}

std::wstring AddinSettings::IniPathBesideModule() {
    std::wstring path = kIniName;
    HMODULE module = GetModuleHandleW(kModuleName);
    if (!module) return path;
    wchar_t name[MAX_PATH + 1] = {};
    DWORD length = GetModuleFileNameW(module, name, MAX_PATH);
    if (length == 0) return path;
    return IniPathForModuleFile(std::wstring(name, length));
}

std::wstring AddinSettings::IniPathForModuleFile(const std::wstring& moduleFileName) {
    std::wstring folder = moduleFileName;
    size_t slash = folder.rfind(L'\\');
    // A name with no backslash, or with only one at its very start, is kept
    // whole and the ini name is appended to it.
    if (slash != std::wstring::npos && slash + 1 > 1) folder.erase(slash + 1);
    return folder + kIniName;
}

std::shared_ptr<const AddinSettings> AddinSettings::Current() {
    std::shared_ptr<const AddinSettings> current = Snapshot();
    if (current) return current;
    // Replace never stores null: the second look finds a snapshot.
    Replace(std::make_shared<const AddinSettings>());
    return Snapshot();
}

void AddinSettings::Replace(std::shared_ptr<const AddinSettings> settings) {
    if (!settings) return;
    WSCLog::Configure(settings->dwDebugLevel, settings->wstrDebugFile);
    TraceRedaction::Configure(settings->dwTraceRedactSecrets != 0);
    qv::SrwExclusive hold(g_currentLock);
    g_current = std::move(settings);
}
