// The trace lines the add-in's code in this process sends to the debugger,
// wide and narrow alike, while a capture lives. One capture at a time.
#pragma once

#include <string>
#include <vector>

namespace qvtest {

class TraceCapture {
public:
    TraceCapture();
    ~TraceCapture();
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    std::vector<std::wstring> Lines() const;
    // How many lines contain `text`.
    size_t Count(const std::wstring& text) const;
    bool Contains(const std::wstring& text) const { return Count(text) > 0; }
};

}  // namespace qvtest
