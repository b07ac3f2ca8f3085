// Puts the thread's last error back as it was when the scope began. The
// loggers run between a platform call and the GetLastError() that reports
// it; on Windows debugger output, file opens, registry and event-log calls
// all change the last error, so without this a result code would depend on
// whether tracing is on.
#pragma once

#include <windows.h>

namespace qv {

class LastErrorKeeper {
public:
    LastErrorKeeper() noexcept : m_error(GetLastError()) {}
    ~LastErrorKeeper() { SetLastError(m_error); }
    LastErrorKeeper(const LastErrorKeeper&) = delete;
    LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;

private:
    DWORD m_error;
};

}  // namespace qv
