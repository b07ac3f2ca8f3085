#include "log/WSCLog.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "common/HeapBuffer.h"
#include "common/Holders.h"
#include "log/StringConv.h"

std::atomic<DWORD> WSCLog::s_threshold{0};

namespace {

// Each piece of a line is formatted with this limit; longer text is cut.
constexpr size_t kPieceChars = 8192;

SRWLOCK g_fileLock = SRWLOCK_INIT;
std::wstring g_file;
WSCLog::Clock g_clock = nullptr;
WSCLog::WideSink g_wideSink = nullptr;
WSCLog::NarrowSink g_narrowSink = nullptr;

void Now(SYSTEMTIME* now) {
    if (g_clock)
        g_clock(now);
    else
        GetSystemTime(now);
}

void SendToDebugger(const wchar_t* line) {
    if (g_wideSink) g_wideSink(line);
    OutputDebugStringW(line);
}

void SendToDebugger(const char* line) {
    if (g_narrowSink) g_narrowSink(line);
    OutputDebugStringA(line);
}

std::wstring CurrentFile() {
    qv::SrwShared hold(g_fileLock);
    return g_file;
}

// Appends (or, for a path starting with two backslashes such as a device or
// pipe, writes from the start) one line to the log file; failures drop it.
void WriteToFile(const std::wstring& path, const void* bytes, DWORD size) {
    qv::UniqueFile file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) return;
    if (path.compare(0, 2, L"\\\\") != 0) SetFilePointer(file.get(), 0, nullptr, FILE_END);
    DWORD written = 0;
    WriteFile(file.get(), bytes, size, &written, nullptr);
}

// The three pieces of a line, formatted by the wide or narrow printf family.
template <typename Char>
struct Pieces;

template <>
struct Pieces<wchar_t> {
    static constexpr const wchar_t* kTime = L"\n Time(H%02d:M%02d:S%02d:%2d), ";
    static constexpr const wchar_t* kWhere = L"Thread(%d), FILE(%20s), LINE(%4d) : ";
    static int Format(wchar_t* out, const wchar_t* format, ...) {
        va_list args;
        va_start(args, format);
        int n = _vsnwprintf(out, kPieceChars, format, args);
        va_end(args);
        return n;
    }
    static int FormatV(wchar_t* out, const wchar_t* format, va_list args) {
        return _vsnwprintf(out, kPieceChars, format, args);
    }
    static const wchar_t* File(const WSCLog::Record& r) { return r.wideFile.c_str(); }
};

template <>
struct Pieces<char> {
    static constexpr const char* kTime = "\n Time(H%02d:M%02d:S%02d:%2d), ";
    static constexpr const char* kWhere = "Thread(%d), FILE(%20s), LINE(%4d) : ";
    static int Format(char* out, const char* format, ...) {
        va_list args;
        va_start(args, format);
        int n = _vsnprintf(out, kPieceChars, format, args);
        va_end(args);
        return n;
    }
    static int FormatV(char* out, const char* format, va_list args) {
        return _vsnprintf(out, kPieceChars, format, args);
    }
    static const char* File(const WSCLog::Record& r) { return r.narrowFile.c_str(); }
};

template <typename Char>
std::basic_string<Char> BuildLine(const WSCLog::Record& record, const Char* format, va_list args) {
    using P = Pieces<Char>;
    std::basic_string<Char> line;
    // One zeroed scratch buffer of 8,193 characters: a piece cut at 8,192
    // characters still ends in a zero.
    qv::HeapBuffer<Char> buffer;
    if (!buffer.allocate((kPieceChars + 1) * sizeof(Char))) return line;
    Char* scratch = buffer.get();

    SYSTEMTIME now = {};
    Now(&now);
    // UTC shifted by a fixed nine hours and never wrapped (H24..H32 from 15:00 UTC).
    P::Format(scratch, P::kTime, now.wHour + 9, now.wMinute, now.wSecond, now.wMilliseconds);
    line += scratch;
    std::memset(scratch, 0, (kPieceChars + 1) * sizeof(Char));
    P::Format(scratch, P::kWhere, static_cast<int>(record.threadId), P::File(record), static_cast<int>(record.line));
    line += scratch;
    std::memset(scratch, 0, (kPieceChars + 1) * sizeof(Char));
    P::FormatV(scratch, format, args);
    line += scratch;
    return line;
}

}  // namespace

WSCLog::Record::Record(const char* sourcePath, DWORD lineNo, DWORD lvl)
    : narrowFile(sourcePath ? sourcePath : ""), line(lineNo), level(lvl), threadId(GetCurrentThreadId()) {
    size_t slash = narrowFile.rfind('\\');
    if (slash != std::string::npos && slash + 1 < narrowFile.size()) narrowFile.erase(0, slash + 1);
    wideFile = qv::Utf8ToWide(narrowFile.data(), narrowFile.size());
}

void WSCLog::Configure(DWORD threshold, const std::wstring& file) {
    {
        qv::SrwExclusive hold(g_fileLock);
        g_file = file;
    }
    s_threshold.store(threshold, std::memory_order_relaxed);
}

DWORD WSCLog::Failure(const char* sourcePath, DWORD line, DWORD level, DWORD error, DWORD (*map)(DWORD),
                      const wchar_t* format) {
    const DWORD code = map(error);
    if (Enabled(level)) {
        qv::LastErrorKeeper keepLastError;
        Print(Record(sourcePath, line, level), format, error, code);
    }
    return code;
}

DWORD WSCLog::Fail(const char* sourcePath, DWORD line, DWORD code, const wchar_t* format) {
    if (Enabled(1)) {
        qv::LastErrorKeeper keepLastError;
        Print(Record(sourcePath, line, 1), format, code);
    }
    return code;
}

void WSCLog::SetClockForTest(Clock clock) { g_clock = clock; }

void WSCLog::SetDebugSinksForTest(WideSink wide, NarrowSink narrow) {
    g_wideSink = wide;
    g_narrowSink = narrow;
}

void WSCLog::Print(const Record& record, const wchar_t* format, ...) {
    if (record.level > Threshold() || !format) return;
    qv::LastErrorKeeper keepLastError;
    try {
        va_list args;
        va_start(args, format);
        std::wstring line = BuildLine<wchar_t>(record, format, args);
        va_end(args);
        if (line.empty()) return;
        SendToDebugger(line.c_str());
        std::wstring file = CurrentFile();
        if (file.empty()) return;
        DWORD size = 0;
        qv::CharBuffer ansi;
        char* converted = ConvertWideToMulti(line.c_str(), CP_ACP, &size);
        ansi.reset(converted, size);
        if (!ansi) return;
        WriteToFile(file, ansi.get(), size);
    } catch (...) {
        OutputDebugStringW(L"WSCLog::Print Exception");
    }
}

void WSCLog::Print(const Record& record, const char* format, ...) {
    if (record.level > Threshold() || !format) return;
    qv::LastErrorKeeper keepLastError;
    try {
        va_list args;
        va_start(args, format);
        std::string line = BuildLine<char>(record, format, args);
        va_end(args);
        if (line.empty()) return;
        SendToDebugger(line.c_str());
        std::wstring file = CurrentFile();
        if (file.empty()) return;
        WriteToFile(file, line.data(), static_cast<DWORD>(line.size()));
    } catch (...) {
        OutputDebugStringW(L"WSCLog::Print for ASCII Exception");
    }
}
