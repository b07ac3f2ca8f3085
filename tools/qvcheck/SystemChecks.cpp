// The rest of the platform the add-in leans on: the NTLM security package,
// UUIDs for message identifiers, the event-log source, the add-in log's
// registry key and the profile folder its log files go to.
#include <windows.h>
#ifndef SECURITY_WIN32
#define SECURITY_WIN32
#endif
#include <security.h>
#include <sspi.h>
#include <userenv.h>

#include <cstring>
#include <cwchar>
#include <string>

#include "CheckGroups.h"
#include "Holders.h"
#include "auth/Auth_NTLM.h"
#include "log/AddinLog.h"
#include "messages/WSRequest.h"

namespace qvcheck {
namespace {

// The add-in log's key under HKEY_CURRENT_USER and its files' folders below
// the user profile (src/log/AddinLog.cpp).
constexpr const wchar_t* kAddinLogKey = L"Software\\Orvel\\ZEB\\DrvAddin";
constexpr const wchar_t* kProfileLogFolders[] = {L"Local Settings", L"Application Data"};
constexpr const wchar_t* kEventSource = L"OrvelPrinterDriver3";
constexpr const wchar_t* kEventSourceKey =
    L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\OrvelPrinterDriver3";

// QuerySecurityPackageInfoW and AcquireCredentialsHandleW take a writable name.
wchar_t kNtlmPackage[] = L"NTLM";
// "NTLMSSP\0" and message type 1 (NEGOTIATE_MESSAGE), little-endian.
constexpr BYTE kNegotiateHeader[] = {'N', 'T', 'L', 'M', 'S', 'S', 'P', 0, 1, 0, 0, 0};

// The message-identifier maker of the add-in's messages, reached from outside.
struct MessageIds : WSRequest {
    using WSRequest::MessageIdStatus;
    using WSRequest::NewMessageId;
};

// One first leg of NTLM: outbound credentials and a negotiate token. Null
// identity: the logged-on user, as the add-in's default.
std::string NegotiateLeg(ULONG maxToken, SEC_WINNT_AUTH_IDENTITY_W* identity, size_t* tokenBytes) {
    qv::UniqueSspiCredential credentials;
    TimeStamp expiry;
    qv::SspiHandle* credential = credentials.put();
    SECURITY_STATUS status = AcquireCredentialsHandleW(nullptr, kNtlmPackage, SECPKG_CRED_OUTBOUND, nullptr, identity,
                                                       nullptr, nullptr, &credential->handle, &expiry);
    if (status != SEC_E_OK) return "AcquireCredentialsHandle " + Code(static_cast<DWORD>(status));
    credential->valid = true;

    std::vector<BYTE> token(maxToken);
    SecBuffer outBuffer = {maxToken, SECBUFFER_TOKEN, token.data()};
    SecBufferDesc outDescription = {SECBUFFER_VERSION, 1, &outBuffer};
    qv::UniqueSspiContext context;
    qv::SspiHandle* contextValue = context.put();
    qv::SspiHandle credentialValue = credentials.get();
    ULONG attributes = 0;
    status = InitializeSecurityContextW(&credentialValue.handle, nullptr, nullptr, 0, 0, SECURITY_NATIVE_DREP, nullptr,
                                        0, &contextValue->handle, &outDescription, &attributes, &expiry);
    contextValue->valid = status >= 0;
    if (status != SEC_I_CONTINUE_NEEDED)
        return "InitializeSecurityContext " + Code(static_cast<DWORD>(status)) + " instead of SEC_I_CONTINUE_NEEDED";
    if (outBuffer.cbBuffer < sizeof(kNegotiateHeader) ||
        std::memcmp(token.data(), kNegotiateHeader, sizeof(kNegotiateHeader)) != 0)
        return "the first token (" + std::to_string(outBuffer.cbBuffer) + " bytes) is no NTLM negotiate message";
    *tokenBytes = outBuffer.cbBuffer;
    return std::string();
}

// 8-4-4-4-12 lower-case hex digits.
bool IsUuidText(const std::wstring& text) {
    if (text.size() != 36) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash != (text[i] == L'-')) return false;
        if (!dash && !((text[i] >= L'0' && text[i] <= L'9') || (text[i] >= L'a' && text[i] <= L'f'))) return false;
    }
    return true;
}

bool IsDirectory(const std::wstring& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// Where a path really lands, junctions and links followed; empty if unknown.
std::wstring FinalPath(const std::wstring& path) {
    UniqueFile folder(CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                  nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (!folder) return std::wstring();
    wchar_t buffer[MAX_PATH * 2] = {};
    const DWORD length = GetFinalPathNameByHandleW(folder.get(), buffer, MAX_PATH * 2, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    if (length == 0 || length >= MAX_PATH * 2) return std::wstring();
    std::wstring text(buffer, length);
    // "\\?\C:\..." -> "C:\..."
    if (text.compare(0, 4, L"\\\\?\\") == 0) text.erase(0, 4);
    return text;
}

bool SamePath(const std::wstring& a, const std::wstring& b) {
    return CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_EQUAL;
}

}  // namespace

Result CheckNtlm(const Environment&) {
    const char* name = "sspi-ntlm";
    PSecPkgInfoW rawInfo = nullptr;
    SECURITY_STATUS status = QuerySecurityPackageInfoW(kNtlmPackage, &rawInfo);
    qv::UniqueSspiPackageInfo info(rawInfo);
    if (status != SEC_E_OK || !info)
        return Make(name, Status::kFail, "QuerySecurityPackageInfo(NTLM) " + Code(static_cast<DWORD>(status)));
    const ULONG maxToken = info.get()->cbMaxToken;

    size_t ownTokenBytes = 0;
    const std::string own = NegotiateLeg(maxToken, nullptr, &ownTokenBytes);
    if (!own.empty()) return Make(name, Status::kFail, "logged-on user: " + own);

    // Explicit credentials (AUTH_FLAG_EXPLICIT_CREDENTIAL): made-up ones do
    // for the first leg, which carries no password; nothing is sent.
    wchar_t user[] = L"qvcheck";
    wchar_t domain[] = L"QVCHECK";
    wchar_t password[] = L"qvcheck";
    SEC_WINNT_AUTH_IDENTITY_W identity = {};
    identity.User = reinterpret_cast<unsigned short*>(user);
    identity.UserLength = static_cast<unsigned long>(wcslen(user));
    identity.Domain = reinterpret_cast<unsigned short*>(domain);
    identity.DomainLength = static_cast<unsigned long>(wcslen(domain));
    identity.Password = reinterpret_cast<unsigned short*>(password);
    identity.PasswordLength = static_cast<unsigned long>(wcslen(password));
    identity.Flags = SEC_WINNT_AUTH_IDENTITY_UNICODE;
    size_t explicitTokenBytes = 0;
    const std::string explicitLeg = NegotiateLeg(maxToken, &identity, &explicitTokenBytes);
    if (!explicitLeg.empty()) return Make(name, Status::kFail, "explicit credentials: " + explicitLeg);

    return Make(name, Status::kPass,
                "package NTLM (max token " + std::to_string(maxToken) + " bytes); outbound credentials and a negotiate "
                "token for the logged-on user (" + std::to_string(ownTokenBytes) + " bytes) and for explicit "
                "credentials (" + std::to_string(explicitTokenBytes) + " bytes)");
}

Result CheckUuid(const Environment&) {
    const char* name = "uuid";
    std::wstring first;
    std::wstring second;
    // The add-in's own maker: UuidCreate (RPC_S_OK only), UuidToStringW.
    const MessageIds::MessageIdStatus a = MessageIds::NewMessageId(first);
    const MessageIds::MessageIdStatus b = MessageIds::NewMessageId(second);
    if (a != MessageIds::MessageIdStatus::Ok || b != MessageIds::MessageIdStatus::Ok)
        return Make(name, Status::kFail,
                    (a == MessageIds::MessageIdStatus::CreateFailed || b == MessageIds::MessageIdStatus::CreateFailed)
                        ? "UuidCreate did not give RPC_S_OK (a local-only or failed UUID)"
                        : "UuidToStringW failed");
    if (!IsUuidText(first) || !IsUuidText(second))
        return Make(name, Status::kFail, "UuidToStringW gave \"" + Ascii(first) + "\", not 36 characters of 8-4-4-4-12 hex");
    if (first == second) return Make(name, Status::kFail, "two UuidCreate calls gave the same UUID " + Ascii(first));
    Result result = Make(name, Status::kPass, "UuidCreate + UuidToStringW: 36-character texts, two calls differ");
    result.notes.push_back(Ascii(first));
    result.notes.push_back(Ascii(second));
    return result;
}

Result CheckEventSource(const Environment& environment) {
    const char* name = "event-source";
    UniqueEventSource source(RegisterEventSourceW(nullptr, kEventSource));
    if (!source) return Make(name, Status::kFail, "RegisterEventSource(OrvelPrinterDriver3) " + Code(GetLastError()));
    UniqueRegKey key;
    const LONG opened = RegOpenKeyExW(HKEY_LOCAL_MACHINE, kEventSourceKey, 0, KEY_READ, key.put());
    std::string detail = "RegisterEventSource(OrvelPrinterDriver3) gives a handle; the source is ";
    detail += opened == ERROR_SUCCESS ? "registered in the Application log"
                                      : "not registered (entries go to the Application log without message texts)";
    if (environment.wine) detail += " (Wine: ReportEvent stores nothing)";
    return Make(name, Status::kPass, detail);
}

Result CheckAddinLogKey(const Environment&) {
    const char* name = "addin-log-key";
    UniqueRegKey key;
    const LONG opened = RegOpenKeyExW(HKEY_CURRENT_USER, kAddinLogKey, 0, KEY_READ, key.put());
    if (opened == ERROR_FILE_NOT_FOUND)
        return Make(name, Status::kPass,
                    "HKCU\\Software\\Orvel\\ZEB\\DrvAddin is absent: defaults apply (no debug output, no files, "
                    "errors to the event log); not created");
    if (opened != ERROR_SUCCESS)
        return Make(name, Status::kFail,
                    "HKCU\\Software\\Orvel\\ZEB\\DrvAddin cannot be opened for reading: " + Code(static_cast<DWORD>(opened)));
    key.reset();
    // The settings as the add-in reads them.
    const AddinLog::Settings& settings = AddinLog::CurrentSettings();
    std::string detail = "HKCU\\Software\\Orvel\\ZEB\\DrvAddin opens for reading: ATTR_LOG_LEVEL_DEBUGSTR " +
                         std::to_string(settings.levelDebugStr) + ", ATTR_LOG_USEFILE " + std::to_string(settings.useFile) +
                         ", ATTR_LOG_LEVEL_EVENT " + std::to_string(settings.levelEvent);
    const bool filesOn = (settings.levelDebugStr == 1 || settings.levelDebugStr == 2) && settings.useFile != 0 &&
                         settings.fileMaxCount != 0;
    if (!filesOn) return Make(name, Status::kPass, detail);
    // File logging keeps its ring index in the key: it opens it for writing
    // (KEY_ALL_ACCESS). Opening changes nothing.
    const LONG writable = RegOpenKeyExW(HKEY_CURRENT_USER, kAddinLogKey, 0, KEY_ALL_ACCESS, key.put());
    if (writable != ERROR_SUCCESS)
        return Make(name, Status::kFail,
                    detail + "; file logging is on but the key does not open for writing (" +
                        Code(static_cast<DWORD>(writable)) + "): no log file would be written");
    return Make(name, Status::kPass, detail + "; file logging is on and the key opens for writing");
}

Result CheckProfileFolder(const Environment& environment) {
    const char* name = "profile-folder";
    UniqueKernelHandle token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put()))
        return Make(name, Status::kFail, "OpenProcessToken " + Code(GetLastError()));
    wchar_t profile[MAX_PATH] = {};
    DWORD size = MAX_PATH;
    if (!GetUserProfileDirectoryW(token.get(), profile, &size))
        return Make(name, Status::kFail, "GetUserProfileDirectory " + Code(GetLastError()));

    // The add-in creates each level as needed when it writes log files; so
    // does qvcheck for these two, and says so.
    std::wstring folder = profile;
    std::string created;
    for (const wchar_t* level : kProfileLogFolders) {
        folder += L"\\";
        folder += level;
        if (IsDirectory(folder)) continue;
        if (!CreateDirectoryW(folder.c_str(), nullptr)) {
            const DWORD error = GetLastError();
            if (error != ERROR_ALREADY_EXISTS)
                return Make(name, Status::kFail,
                            "\"" + Ascii(folder) + "\" is missing and cannot be created: " + Code(error));
        }
        created += (created.empty() ? "" : ", ") + ("\"" + Ascii(std::wstring(level)) + "\"");
    }
    if (!IsDirectory(folder)) return Make(name, Status::kFail, "\"" + Ascii(folder) + "\" is no folder");
    const std::wstring landing = FinalPath(folder);
    std::string detail = "profile " + Ascii(std::wstring(profile)) + "; \"Local Settings\\Application Data\" ";
    if (landing.empty())
        detail += "is reachable (its final path is not readable)";
    else if (SamePath(landing, folder))
        detail += environment.wine ? "is a plain folder (Wine: no junction to AppData\\Local)" : "is a plain folder";
    else
        detail += "lands in " + Ascii(landing);
    if (!created.empty()) detail += "; qvcheck created " + created + " as the add-in would";
    return Make(name, Status::kPass, detail);
}

}  // namespace qvcheck
