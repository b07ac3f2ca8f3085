// The add-in log for administrators, switched by registry values under
// HKCU\Software\Orvel\ZEB\DrvAddin (ATTR_LOG_*): debugger output or rotating
// UTF-16LE files "AddinLog_%04d.txt" in the user's profile, and selected kinds
// in the Windows event log (source "OrvelPrinterDriver3"). It never reports a
// failure to its caller.
#pragma once

#include <windows.h>

#include <cstdarg>

#include "common/HeapBuffer.h"

namespace AddinLog {

enum Kind : DWORD {
    kStart = 1,
    kEnd = 2,
    kInfo = 3,
    kWarn = 4,
    kError = 5,
    kFatal = 6,
    kDebug = 7,
    kUnrouted = 16,  // tagged as an error but sent nowhere
};

// The registry settings, read once per process on first use.
struct Settings {
    DWORD levelDebugStr = 0;
    DWORD useFile = 0;
    DWORD fileDevSize = 0x1400000;
    DWORD fileMaxCount = 10;
    DWORD levelEvent = 1;
    DWORD useMiniDump = 0;
    DWORD miniDumpType = 0;
    DWORD miniDumpMaxCount = 10;
};
const Settings& CurrentSettings();
// Tests only: read the registry again on next use.
void ResetSettingsForTest();

// Tests only: sinks that see every event-log report and every debugger line
// as well as the platform does (null: none).
using EventSink = void (*)(WORD eventType, DWORD eventId, bool hasUserSid, const wchar_t* line);
using DebugSink = void (*)(const wchar_t* line);
void SetEventSinkForTest(EventSink sink);
void SetDebugSinkForTest(DebugSink sink);

}  // namespace AddinLog

// One per function that logs: writes a start line at construction and, unless
// an end line was written already, an empty end line at destruction.
class AddinLogScope {
public:
    explicit AddinLogScope(const wchar_t* functionName, const wchar_t* format = nullptr, ...);
    ~AddinLogScope();
    AddinLogScope(const AddinLogScope&) = delete;
    AddinLogScope& operator=(const AddinLogScope&) = delete;

    void Write(DWORD kind, const wchar_t* format, ...);
    // Kind 6 "ApiName: %s, ErrorCode: %d : %s" with GetLastError()'s text.
    void WriteApiFailure(const wchar_t* apiName);

private:
    void WriteV(DWORD kind, const wchar_t* format, va_list args);
    qv::WideBuffer m_functionName;  // 1,024 characters, only when an output is on
    bool m_active;
};
