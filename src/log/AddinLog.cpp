#include "log/AddinLog.h"

#include <strsafe.h>
#include <userenv.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cwchar>

#include "common/HeapBuffer.h"
#include "common/LastErrorKeeper.h"
#include "common/Holders.h"

namespace AddinLog {
namespace {

constexpr const wchar_t* kKeyPath = L"Software\\Orvel\\ZEB\\DrvAddin";
constexpr const wchar_t* kEventSource = L"OrvelPrinterDriver3";
constexpr DWORD kEventId = 0xC0000002;
constexpr const wchar_t* kLinePrefix = L"[ ZEB ][ Quorvantis.dll ]";
constexpr const wchar_t* kLoggingError = L"____Logging Error!";

constexpr size_t kNameChars = 1024;
// A message is formatted into 1,024 characters, doubled while it does not
// fit; 65,536 is the last size below the 102,400-character limit.
constexpr size_t kFirstMessageChars = 1024;
constexpr size_t kLastMessageChars = 65536;
// Room for the tags and the function name around the message.
constexpr size_t kLineExtraChars = 1024;

// The folders below the user profile that hold the rotating files, created
// one level after another.
constexpr const wchar_t* kLogFolders[] = {L"Local Settings", L"Application Data", L"Orvel", L"ZEB", L"V401", L"DA"};

// How each kind is tagged and where it may go: the event-log mask bit that
// lets it into the event log, the lowest ATTR_LOG_LEVEL_DEBUGSTR that lets
// it into the debug output (0: never), and its event type.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): six rows; the fields follow the table's columns.
struct KindRow {
    DWORD kind;
    const wchar_t* tag;
    DWORD eventMaskBit;
    DWORD debugLevel;
    WORD eventType;
    bool blankInsteadOfName;
};
constexpr KindRow kKinds[] = {
    {kStart, L"[ start ]", 0, 1, EVENTLOG_INFORMATION_TYPE, false},
    {kEnd, L"[ end   ]", 0, 1, EVENTLOG_INFORMATION_TYPE, false},
    {kInfo, L"[ info  ]", 4, 2, EVENTLOG_INFORMATION_TYPE, true},
    {kWarn, L"[ warn  ]", 2, 2, EVENTLOG_WARNING_TYPE, true},
    {kError, L"[ error ]", 1, 2, EVENTLOG_ERROR_TYPE, false},
    {kFatal, L"[ fatal ]", 1, 2, EVENTLOG_ERROR_TYPE, false},
    {kDebug, L"[ debug ]", 0, 2, EVENTLOG_INFORMATION_TYPE, false},
    // Formatted with an error tag but routed nowhere: kept for callers that
    // want a line built and dropped.
    {kUnrouted, L"[ error ]", 0, 0, EVENTLOG_INFORMATION_TYPE, false},
};

const KindRow* FindKind(DWORD kind) {
    for (const KindRow& row : kKinds)
        if (row.kind == kind) return &row;
    return nullptr;
}

SRWLOCK g_settingsLock = SRWLOCK_INIT;
bool g_settingsRead = false;
Settings g_settings;
EventSink g_eventSink = nullptr;
DebugSink g_debugSink = nullptr;

DWORD ReadDword(HKEY key, const wchar_t* name, DWORD fallback) {
    DWORD value = 0;
    DWORD type = 0;
    DWORD size = sizeof(value);
    LONG status = RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&value), &size);
    if (status != ERROR_SUCCESS || type != REG_DWORD || size != sizeof(value)) return fallback;
    return value;
}

Settings ReadSettings() {
    Settings settings;
    qv::UniqueKey key;
    if (RegOpenKeyExW(HKEY_CURRENT_USER, kKeyPath, 0, KEY_READ, key.put()) != ERROR_SUCCESS) return settings;
    settings.levelDebugStr = ReadDword(key.get(), L"ATTR_LOG_LEVEL_DEBUGSTR", settings.levelDebugStr);
    if (settings.levelDebugStr != 0) {
        settings.useFile = ReadDword(key.get(), L"ATTR_LOG_USEFILE", settings.useFile);
        if (settings.useFile != 0) {
            settings.fileDevSize = ReadDword(key.get(), L"ATTR_LOG_USEFILE_DEVSIZE", settings.fileDevSize);
            settings.fileMaxCount = ReadDword(key.get(), L"ATTR_LOG_USEFILE_MAXCOUNT", settings.fileMaxCount);
        }
    }
    settings.levelEvent = ReadDword(key.get(), L"ATTR_LOG_LEVEL_EVENT", settings.levelEvent);
    settings.useMiniDump = ReadDword(key.get(), L"ATTR_LOG_USEMINIDUMP", settings.useMiniDump);
    if (settings.useMiniDump != 0) {
        settings.miniDumpType = ReadDword(key.get(), L"ATTR_LOG_USEMINIDUMP_TYPE", settings.miniDumpType);
        settings.miniDumpMaxCount = ReadDword(key.get(), L"ATTR_LOG_USEMINIDUMP_MAXCOUNT", settings.miniDumpMaxCount);
    }
    return settings;
}

// The message formatted into a new buffer of 1,024 characters or, while it
// does not fit, of twice the size; null when it never fits.
wchar_t* FormatMessageText(const wchar_t* format, va_list args) {
    for (size_t chars = kFirstMessageChars; chars <= kLastMessageChars; chars *= 2) {
        auto* buffer = static_cast<wchar_t*>(std::calloc(chars, sizeof(wchar_t)));
        if (!buffer) {
            OutputDebugStringW(kLoggingError);
            return nullptr;
        }
        va_list copy;
        va_copy(copy, args);
        HRESULT hr = StringCchVPrintfW(buffer, chars, format, copy);
        va_end(copy);
        if (SUCCEEDED(hr)) return buffer;
        std::free(buffer);
        if (hr != STRSAFE_E_INSUFFICIENT_BUFFER) return nullptr;
    }
    return nullptr;
}

// "[ ZEB ][ Quorvantis.dll ]<tag>" and the function name or a blank, then
// the message, with line breaks turned into blanks.
wchar_t* BuildLine(const KindRow& row, const wchar_t* functionName, const wchar_t* message) {
    const size_t chars = wcslen(message) + kLineExtraChars;
    auto* line = static_cast<wchar_t*>(std::calloc(chars, sizeof(wchar_t)));
    if (!line) {
        OutputDebugStringW(kLoggingError);
        return nullptr;
    }
    // Pieces that do not fit are cut; the line is still written.
    (void)StringCchCopyW(line, chars, kLinePrefix);
    StringCchCatW(line, chars, row.tag);
    if (row.blankInsteadOfName) {
        StringCchCatW(line, chars, L" ");
    } else if (functionName && *functionName) {
        size_t used = wcslen(line);
        StringCchPrintfW(line + used, chars - used, L"[ %s ] ", functionName);
    }
    StringCchCatW(line, chars, message);
    for (wchar_t* p = line; *p; ++p)
        if (*p == L'\r' || *p == L'\n') *p = L' ';
    return line;
}

// The SID of the thread's user or, without a thread token, the process's,
// inside `storage`; null when neither can be had.
PSID UserSid(qv::ByteBuffer& storage) {
    qv::UniqueKernelHandle token;
    if (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.put()) &&
        !OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put()))
        return nullptr;
    DWORD needed = 0;
    GetTokenInformation(token.get(), TokenUser, nullptr, 0, &needed);
    if (needed == 0 || !storage.allocate(needed)) return nullptr;
    if (!GetTokenInformation(token.get(), TokenUser, storage.get(), needed, &needed)) return nullptr;
    return reinterpret_cast<TOKEN_USER*>(storage.get())->User.Sid;
}

void ReportToEventLog(WORD eventType, const wchar_t* line) {
    qv::ByteBuffer sidStorage;
    PSID sid = UserSid(sidStorage);
    if (g_eventSink) g_eventSink(eventType, kEventId, sid != nullptr, line);
    qv::UniqueEventSource source(RegisterEventSourceW(nullptr, kEventSource));
    if (!source) return;
    const wchar_t* strings[] = {line};
    ReportEventW(source.get(), eventType, 0, kEventId, sid, 1, 0, strings, nullptr);
}

void SendToDebugger(const wchar_t* line) {
    if (g_debugSink) g_debugSink(line);
    OutputDebugStringW(line);
}

// "<profile>\Local Settings\Application Data\Orvel\ZEB\V401\DA", created as
// needed; false when the profile folder cannot be found.
bool LogFolder(wchar_t* folder, DWORD folderChars) {
    qv::UniqueKernelHandle token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put())) return false;
    DWORD size = folderChars;
    if (!GetUserProfileDirectoryW(token.get(), folder, &size)) return false;
    for (const wchar_t* name : kLogFolders) {
        if (FAILED(StringCchCatW(folder, folderChars, L"\\")) || FAILED(StringCchCatW(folder, folderChars, name)))
            return false;
        CreateDirectoryW(folder, nullptr);  // an existing folder is fine
    }
    return true;
}

HANDLE OpenLogFile(const wchar_t* folder, DWORD index, DWORD disposition) {
    wchar_t path[MAX_PATH + 32] = {};
    if (FAILED(StringCchPrintfW(path, MAX_PATH + 32, L"%s\\AddinLog_%04d.txt", folder, static_cast<int>(index))))
        return INVALID_HANDLE_VALUE;
    return CreateFileW(path, GENERIC_WRITE, FILE_SHARE_WRITE, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
}

// Appends "<local time> <line>\r\n" in UTF-16LE to the current file of the
// ring, moving on to the next file (started empty) once this one is past
// the size limit. The index lives in the registry for every process.
void WriteToFile(const Settings& settings, const wchar_t* line) {
    qv::UniqueKey key;
    if (RegOpenKeyExW(HKEY_CURRENT_USER, kKeyPath, 0, KEY_ALL_ACCESS, key.put()) != ERROR_SUCCESS) return;
    DWORD index = ReadDword(key.get(), L"ATTR_LOG_USEFILE_PARAM1", 0) % settings.fileMaxCount;

    wchar_t folder[MAX_PATH] = {};
    if (!LogFolder(folder, MAX_PATH)) return;
    qv::UniqueFile file(OpenLogFile(folder, index, OPEN_ALWAYS));
    if (!file) return;
    LARGE_INTEGER size = {};
    SetFilePointerEx(file.get(), size, nullptr, FILE_END);
    if (!GetFileSizeEx(file.get(), &size)) return;
    if (size.QuadPart > static_cast<LONGLONG>(settings.fileDevSize)) {
        index = (index + 1) % settings.fileMaxCount;
        if (RegSetValueExW(key.get(), L"ATTR_LOG_USEFILE_PARAM1", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&index),
                           sizeof(index)) != ERROR_SUCCESS)
            return;
        file.reset(OpenLogFile(folder, index, CREATE_ALWAYS));
        if (!file) return;
    }

    SYSTEMTIME now;
    GetLocalTime(&now);
    const size_t chars = wcslen(line) + 32;
    qv::WideBuffer text;
    if (!text.allocate(chars * sizeof(wchar_t))) return;
    // The time is exactly 25 characters: "yyyy/mm/dd hh:mm:ss:mmmm ".
    StringCchPrintfW(text.get(), chars, L"%04d/%02d/%02d %02d:%02d:%02d:%04d ", now.wYear, now.wMonth, now.wDay,
                     now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
    StringCchCatW(text.get(), chars, line);
    StringCchCatW(text.get(), chars, L"\r\n");
    DWORD bytes = static_cast<DWORD>(wcslen(text.get()) * sizeof(wchar_t));
    DWORD written = 0;
    WriteFile(file.get(), text.get(), bytes, &written, nullptr);
}

}  // namespace

const Settings& CurrentSettings() {
    qv::SrwExclusive hold(g_settingsLock);
    if (!g_settingsRead) {
        g_settings = ReadSettings();
        g_settingsRead = true;
    }
    return g_settings;
}

void ResetSettingsForTest() {
    qv::SrwExclusive hold(g_settingsLock);
    g_settingsRead = false;
}

void SetEventSinkForTest(EventSink sink) { g_eventSink = sink; }
void SetDebugSinkForTest(DebugSink sink) { g_debugSink = sink; }

}  // namespace AddinLog

AddinLogScope::AddinLogScope(const wchar_t* functionName, const wchar_t* format, ...)
    : m_active(true) {
    qv::LastErrorKeeper keepLastError;
    try {
        const AddinLog::Settings& settings = AddinLog::CurrentSettings();
        if (settings.levelDebugStr == 0 && settings.levelEvent == 0) return;
        if (!m_functionName.allocate(AddinLog::kNameChars * sizeof(wchar_t))) {
            OutputDebugStringW(AddinLog::kLoggingError);
            return;
        }
        if (functionName) (void)StringCchCopyW(m_functionName.get(), AddinLog::kNameChars, functionName);  // cut if long
        if (settings.levelDebugStr == 0) return;
        va_list args;
        va_start(args, format);
        WriteV(AddinLog::kStart, format ? format : L"", args);
        va_end(args);
    } catch (...) {
    }
}

AddinLogScope::~AddinLogScope() {
    qv::LastErrorKeeper keepLastError;
    try {
        if (m_active) Write(AddinLog::kEnd, L"");
    } catch (...) {
    }
}

void AddinLogScope::Write(DWORD kind, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    WriteV(kind, format, args);
    va_end(args);
}

void AddinLogScope::WriteApiFailure(const wchar_t* apiName) {
    qv::LastErrorKeeper keepLastError;
    DWORD error = GetLastError();
    wchar_t* text = nullptr;
    DWORD length = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                      FORMAT_MESSAGE_IGNORE_INSERTS,
                                  nullptr, error, 1033, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    if (length != 0 && text) Write(AddinLog::kFatal, L"ApiName: %s, ErrorCode: %d : %s", apiName ? apiName : L"",
                                   static_cast<int>(error), text);
    if (text) LocalFree(text);
}

void AddinLogScope::WriteV(DWORD kind, const wchar_t* format, va_list args) {
    using namespace AddinLog;
    qv::LastErrorKeeper keepLastError;
    if (kind == kEnd) m_active = false;
    const KindRow* row = FindKind(kind);
    if (!row || !format) return;
    const Settings& settings = CurrentSettings();
    const bool toEvent = (settings.levelEvent & row->eventMaskBit) != 0;
    const bool debugOn = settings.levelDebugStr == 1 || settings.levelDebugStr == 2;
    const bool toDebug = debugOn && row->debugLevel != 0 && settings.levelDebugStr >= row->debugLevel;
    if (!toEvent && !toDebug) return;

    qv::WideBuffer message(FormatMessageText(format, args), 0);
    if (!message) return;
    qv::WideBuffer line(BuildLine(*row, m_functionName.get(), message.get()), 0);
    if (!line) return;
    if (toEvent) ReportToEventLog(row->eventType, line.get());
    if (toDebug) {
        // A ring of no files means no file output: the debugger gets the line.
        if (settings.useFile != 0 && settings.fileMaxCount != 0)
            WriteToFile(settings, line.get());
        else
            SendToDebugger(line.get());
    }
}
