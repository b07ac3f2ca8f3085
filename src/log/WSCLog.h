// The trace log: one line per call with time, thread, source file and line,
// sent to the debugger and, when a file is configured, appended to it.
// Call sites use WSCLOG(level, format, ...) with a wide or narrow format;
// levels: 1 error, 2 warning, 3 event, 4 IN/OUT, 5 detail. A call site whose
// level is above the threshold costs one comparison and builds nothing.
#pragma once

#include <windows.h>

#include <atomic>
#include <string>

#include "common/LastErrorKeeper.h"

class WSCLog {
public:
    // One call site: the source file (cut after its last backslash, also kept
    // as UTF-16), line, level and the calling thread.
    struct Record {
        Record(const char* sourcePath, DWORD line, DWORD level);
        std::string narrowFile;
        std::wstring wideFile;
        DWORD line;
        DWORD level;
        DWORD threadId;
    };

    static bool Enabled(DWORD level) { return level <= s_threshold.load(std::memory_order_relaxed); }
    static void Print(const Record& record, const wchar_t* format, ...);
    static void Print(const Record& record, const char* format, ...);

    // Set from the current settings (DebugLevel, DebugFile).
    static void Configure(DWORD threshold, const std::wstring& file);
    static DWORD Threshold() { return s_threshold.load(std::memory_order_relaxed); }

    // A failed platform call, reported the one way every family (WinHTTP,
    // CryptoAPI, SSPI) reports it: `error` mapped to the family's result code
    // with `map`, one level-1 line for the call site with `format` (which
    // takes the error, then the code), the code returned. Use it through
    // QV_FAILURE, QV_LAST_ERROR or QV_LAST_ERROR_WARNING, which name the call
    // site.
    // A warning (level 2) is written the same way for a failure the
    // operation gets over.
    static DWORD Failure(const char* sourcePath, DWORD line, DWORD level, DWORD error, DWORD (*map)(DWORD),
                         const wchar_t* format);
    // A failure of the add-in's own (an argument, a missing object, an
    // allocation): one level-1 line for the call site with `format` (which
    // takes the code), the code returned. Use it through QV_FAIL.
    static DWORD Fail(const char* sourcePath, DWORD line, DWORD code, const wchar_t* format);

    // Tests only: a clock used instead of GetSystemTime, and sinks that see
    // each debugger line as well as the debugger does (null: none).
    using Clock = void(WINAPI*)(LPSYSTEMTIME);
    using WideSink = void (*)(const wchar_t* line);
    using NarrowSink = void (*)(const char* line);
    static void SetClockForTest(Clock clock);
    static void SetDebugSinksForTest(WideSink wide, NarrowSink narrow);

private:
    static std::atomic<DWORD> s_threshold;
};

namespace qv {
// The bare name of a source file, so that records name "CWinHttp.cpp" whatever
// path the compiler was given.
constexpr const char* SourceBaseName(const char* path) {
    const char* base = path;
    for (const char* p = path; *p; ++p)
        if (*p == '/' || *p == '\\') base = p + 1;
    return base;
}
}  // namespace qv

// The last error is read before anything else runs.
// One-line failures: `if (!output) return QV_FAIL(code, text);` and
// `return QV_LAST_ERROR(&Map, text);`, the text taking the code (and the
// platform error before it).
#ifdef QV_NO_TRACE
#define QV_REPORT(level, error, map, format) ((void)(format), (map)(error))
#define QV_FAIL(code, format) ((void)(format), static_cast<DWORD>(code))
#else
#define QV_REPORT(level, error, map, format) \
    ::WSCLog::Failure(::qv::SourceBaseName(__FILE__), __LINE__, (level), (error), (map), (format))
#define QV_FAIL(code, format) ::WSCLog::Fail(::qv::SourceBaseName(__FILE__), __LINE__, (code), (format))
#endif
#define QV_FAILURE(error, map, format) QV_REPORT(1, error, map, format)
#define QV_LAST_ERROR(map, format) QV_REPORT(1, ::GetLastError(), map, format)
#define QV_LAST_ERROR_WARNING(map, format) QV_REPORT(2, ::GetLastError(), map, format)

#ifdef QV_NO_TRACE
// A build without trace call sites, only to measure what tracing costs. The
// arguments are still named (never evaluated), so values kept only for the
// trace do not turn into unused-variable warnings.
namespace qv {
template <typename... Args>
inline void DiscardTraceArguments(const Args&...) {}
}  // namespace qv
#define WSCLOG(level, ...)                                  \
    do {                                                    \
        if (false) ::qv::DiscardTraceArguments(__VA_ARGS__); \
    } while (0)
#else
// The record is built inside the keeper's scope: building it converts text,
// which may set the last error too.
#define WSCLOG(level, ...)                                                          \
    do {                                                                            \
        if (::WSCLog::Enabled(level)) {                                             \
            ::qv::LastErrorKeeper qvKeepLastError_;                                 \
            ::WSCLog::Record qvLogRecord_(::qv::SourceBaseName(__FILE__), __LINE__, \
                                          static_cast<DWORD>(level));               \
            ::WSCLog::Print(qvLogRecord_, __VA_ARGS__);                             \
        }                                                                           \
    } while (0)
#endif
