// The trace log: one line per call with time, thread, source file and line,
// sent to the debugger and, when a file is configured, appended to it.
// Call sites use WSCLOG(level, format, ...) with a wide or narrow format;
// levels: 1 error, 2 warning, 3 event, 4 IN/OUT, 5 detail. A call site whose
// level is above the threshold costs one comparison and builds nothing.
#pragma once

#include <windows.h>

#include <atomic>
#include <string>

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
#define WSCLOG(level, ...)                                                          \
    do {                                                                            \
        if (::WSCLog::Enabled(level)) {                                             \
            ::WSCLog::Record qvLogRecord_(::qv::SourceBaseName(__FILE__), __LINE__, \
                                          static_cast<DWORD>(level));               \
            ::WSCLog::Print(qvLogRecord_, __VA_ARGS__);                             \
        }                                                                           \
    } while (0)
#endif
