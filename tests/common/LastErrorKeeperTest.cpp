// The keeper that lets the loggers run without changing the thread's last error.
#include <gtest/gtest.h>
#include <windows.h>

#include "common/LastErrorKeeper.h"

namespace {

TEST(LastErrorKeeper, PutsTheLastErrorBackWhateverRanInItsScope) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    {
        qv::LastErrorKeeper keep;
        SetLastError(ERROR_ALREADY_EXISTS);  // as CreateFileW(OPEN_ALWAYS) leaves it
    }
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
}

TEST(LastErrorKeeper, KeepsZeroToo) {
    SetLastError(0);
    {
        qv::LastErrorKeeper keep;
        SetLastError(ERROR_ACCESS_DENIED);
    }
    EXPECT_EQ(GetLastError(), 0u);
}

}  // namespace
