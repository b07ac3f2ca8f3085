#include "support/TraceCapture.h"

#include <mutex>

#include "log/WSCLog.h"

namespace qvtest {

namespace {

std::mutex g_lock;
std::vector<std::wstring> g_lines;

void CaptureWide(const wchar_t* line) {
    std::lock_guard<std::mutex> hold(g_lock);
    g_lines.emplace_back(line);
}

// The channel's narrow lines are ASCII.
void CaptureNarrow(const char* line) {
    std::wstring wide;
    for (const char* p = line; *p; ++p) wide += static_cast<wchar_t>(static_cast<unsigned char>(*p));
    std::lock_guard<std::mutex> hold(g_lock);
    g_lines.push_back(wide);
}

}  // namespace

TraceCapture::TraceCapture() {
    {
        std::lock_guard<std::mutex> hold(g_lock);
        g_lines.clear();
    }
    WSCLog::SetDebugSinksForTest(CaptureWide, CaptureNarrow);
}

TraceCapture::~TraceCapture() { WSCLog::SetDebugSinksForTest(nullptr, nullptr); }

std::vector<std::wstring> TraceCapture::Lines() const {
    std::lock_guard<std::mutex> hold(g_lock);
    return g_lines;
}

size_t TraceCapture::Count(const std::wstring& text) const {
    size_t n = 0;
    for (const std::wstring& line : Lines())
        if (line.find(text) != std::wstring::npos) ++n;
    return n;
}

}  // namespace qvtest
