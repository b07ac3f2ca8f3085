// The trace log: threshold, line format, clock quirk, cutting, file output.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

#include "log/StringConv.h"
#include "log/WSCLog.h"
#include "support/TestSupport.h"

namespace {

std::vector<std::wstring> g_wideLines;
std::vector<std::string> g_narrowLines;

void CaptureWide(const wchar_t* line) { g_wideLines.push_back(line); }
void CaptureNarrow(const char* line) { g_narrowLines.push_back(line); }

void WINAPI At1630(LPSYSTEMTIME now) {
    *now = SYSTEMTIME{};
    now->wYear = 2026;
    now->wMonth = 3;
    now->wDay = 4;
    now->wHour = 16;
    now->wMinute = 30;
    now->wSecond = 5;
    now->wMilliseconds = 7;
}

void WINAPI At2359(LPSYSTEMTIME now) {
    At1630(now);
    now->wHour = 23;
    now->wMinute = 59;
    now->wSecond = 59;
    now->wMilliseconds = 999;
}

class WSCLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_wideLines.clear();
        g_narrowLines.clear();
        WSCLog::SetDebugSinksForTest(CaptureWide, CaptureNarrow);
        WSCLog::SetClockForTest(At1630);
    }
    void TearDown() override {
        WSCLog::Configure(0, L"");
        WSCLog::SetDebugSinksForTest(nullptr, nullptr);
        WSCLog::SetClockForTest(nullptr);
    }
    std::wstring ThreadText() const { return L"Thread(" + std::to_wstring(GetCurrentThreadId()) + L")"; }

    qvtest::TempDir m_dir;
};

DWORD WINAPI PrintFiftyLines(LPVOID) {
    for (int i = 0; i < 50; ++i) WSCLOG(4, L"thread line %d", i);
    return 0;
}

bool FileExists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

TEST_F(WSCLogTest, ThresholdZeroWritesNothingEvenForErrors) {
    std::wstring file = m_dir.File(L"trace.log");
    WSCLog::Configure(0, file);
    WSCLOG(1, L"an error %d", 1);
    WSCLOG(1, "a narrow error %d", 1);
    WSCLog::Record record("Direct.cpp", 10, 1);
    WSCLog::Print(record, L"printed directly");
    EXPECT_TRUE(g_wideLines.empty());
    EXPECT_TRUE(g_narrowLines.empty());
    EXPECT_FALSE(FileExists(file));
}

TEST_F(WSCLogTest, ThresholdFourKeepsInOutAndErrorsButNoDetail) {
    WSCLog::Configure(4, L"");
    WSCLOG(4, L"Something::Do IN");
    WSCLOG(1, L"Something::Do ERROR ZEB_ERROR = %08x", 0xD5000057u);
    WSCLOG(5, L"detail that must not appear");
    WSCLOG(4, L"Something::Do OUT");
    ASSERT_EQ(g_wideLines.size(), 3u);
    EXPECT_NE(g_wideLines[0].find(L": Something::Do IN"), std::wstring::npos);
    EXPECT_NE(g_wideLines[1].find(L": Something::Do ERROR ZEB_ERROR = d5000057"), std::wstring::npos);
    EXPECT_NE(g_wideLines[2].find(L": Something::Do OUT"), std::wstring::npos);
}

TEST_F(WSCLogTest, ThresholdIsAnUnsignedComparison) {
    WSCLog::Configure(0xFFFFFFFFu, L"");
    WSCLOG(5, L"detail");
    EXPECT_EQ(g_wideLines.size(), 1u);
    WSCLog::Configure(2, L"");
    WSCLOG(3, L"event");
    EXPECT_EQ(g_wideLines.size(), 1u);
}

TEST_F(WSCLogTest, LineFormatIsExact) {
    WSCLog::Configure(5, L"");
    WSCLog::Record record(".\\CWinHttp.cpp", 42, 3);
    WSCLog::Print(record, L"CWinHttp::Open SSL Mode %s %d", L"wide", 7);
    ASSERT_EQ(g_wideLines.size(), 1u);
    EXPECT_EQ(g_wideLines[0], L"\n Time(H25:M30:S05: 7), " + ThreadText() +
                                  L", FILE(        CWinHttp.cpp), LINE(  42) : CWinHttp::Open SSL Mode wide 7");
}

TEST_F(WSCLogTest, HourIsShiftedByNineAndNeverWrapped) {
    WSCLog::Configure(5, L"");
    WSCLog::SetClockForTest(At2359);
    WSCLog::Record record("a.cpp", 1, 1);
    WSCLog::Print(record, L"x");
    ASSERT_EQ(g_wideLines.size(), 1u);
    EXPECT_EQ(g_wideLines[0].rfind(L"\n Time(H32:M59:S59:999), ", 0), 0u);
}

TEST_F(WSCLogTest, NarrowFormUsesNarrowTextAndTheSamePrefixes) {
    WSCLog::Configure(5, L"");
    WSCLog::Record record(".\\CWinHttp.cpp", 1234, 5);
    WSCLog::Print(record, "Content-Type: %s, %d bytes", "text/xml", 12);
    ASSERT_EQ(g_narrowLines.size(), 1u);
    EXPECT_TRUE(g_wideLines.empty());
    std::string thread = "Thread(" + std::to_string(GetCurrentThreadId()) + ")";
    EXPECT_EQ(g_narrowLines[0], "\n Time(H25:M30:S05: 7), " + thread +
                                    ", FILE(        CWinHttp.cpp), LINE(1234) : Content-Type: text/xml, 12 bytes");
}

TEST_F(WSCLogTest, SourcePathIsCutAfterItsLastBackslashOnly) {
    EXPECT_EQ(WSCLog::Record(".\\dir\\File.cpp", 1, 1).narrowFile, "File.cpp");
    EXPECT_EQ(WSCLog::Record("File.cpp", 1, 1).narrowFile, "File.cpp");
    // Only backslashes separate: a path without one is kept whole.
    EXPECT_EQ(WSCLog::Record("src/log/File.cpp", 1, 1).narrowFile, "src/log/File.cpp");
    EXPECT_EQ(WSCLog::Record("src/log/File.cpp", 1, 1).wideFile, L"src/log/File.cpp");
    // A path ending in its backslash keeps it.
    EXPECT_EQ(WSCLog::Record("folder\\", 1, 1).narrowFile, "folder\\");
    EXPECT_EQ(WSCLog::Record(nullptr, 1, 1).narrowFile, "");

    WSCLog::Configure(5, L"");
    WSCLog::Record record("src/log/NoBackslash.cpp", 9, 1);
    WSCLog::Print(record, L"m");
    ASSERT_EQ(g_wideLines.size(), 1u);
    EXPECT_NE(g_wideLines[0].find(L"FILE(src/log/NoBackslash.cpp), LINE(   9) : m"), std::wstring::npos);
}

TEST_F(WSCLogTest, RecordKeepsLineLevelAndThread) {
    WSCLog::Record record("x.cpp", 77, 4);
    EXPECT_EQ(record.line, 77u);
    EXPECT_EQ(record.level, 4u);
    EXPECT_EQ(record.threadId, GetCurrentThreadId());
}

TEST_F(WSCLogTest, UnopenableFileStillReachesTheDebugger) {
    WSCLog::Configure(5, m_dir.File(L"missing-folder\\trace.log"));
    WSCLOG(1, L"still visible");
    ASSERT_EQ(g_wideLines.size(), 1u);
    EXPECT_NE(g_wideLines[0].find(L"still visible"), std::wstring::npos);
    EXPECT_FALSE(FileExists(m_dir.File(L"missing-folder")));
}

TEST_F(WSCLogTest, LongMessageIsCutAt8192Characters) {
    WSCLog::Configure(5, L"");
    std::wstring longText(9000, L'a');
    WSCLog::Record record("x.cpp", 1, 1);
    WSCLog::Print(record, L"%s", longText.c_str());
    ASSERT_EQ(g_wideLines.size(), 1u);
    size_t start = g_wideLines[0].find(L" : ") + 3;
    EXPECT_EQ(g_wideLines[0].size() - start, 8192u);

    std::string narrowText(9000, 'b');
    WSCLog::Print(record, "%s", narrowText.c_str());
    ASSERT_EQ(g_narrowLines.size(), 1u);
    start = g_narrowLines[0].find(" : ") + 3;
    EXPECT_EQ(g_narrowLines[0].size() - start, 8192u);
}

TEST_F(WSCLogTest, FileGetsEachLineAppendedInTheAnsiCodePage) {
    std::wstring file = m_dir.File(L"trace.log");
    ASSERT_TRUE(qvtest::WriteFileBytes(file, "existing"));
    WSCLog::Configure(5, file);
    WSCLog::Record record(".\\A.cpp", 1, 1);
    WSCLog::Print(record, L"first %s", L"wide");
    WSCLog::Print(record, "second %s", "narrow");
    ASSERT_EQ(g_wideLines.size(), 1u);
    ASSERT_EQ(g_narrowLines.size(), 1u);
    qvtest::Malloced<char> ansi(ConvertWideToAnsi(g_wideLines[0].c_str()));
    ASSERT_NE(ansi, nullptr);
    std::string expected = std::string("existing") + ansi.get() + g_narrowLines[0];
    EXPECT_EQ(qvtest::ReadFileBytes(file), expected);
}

TEST_F(WSCLogTest, ConfigureReplacesThresholdAndFile) {
    std::wstring first = m_dir.File(L"first.log");
    std::wstring second = m_dir.File(L"second.log");
    WSCLog::Configure(3, first);
    EXPECT_EQ(WSCLog::Threshold(), 3u);
    WSCLOG(3, L"one");
    WSCLog::Configure(3, second);
    WSCLOG(3, L"two");
    EXPECT_NE(qvtest::ReadFileBytes(first).find(": one"), std::string::npos);
    EXPECT_EQ(qvtest::ReadFileBytes(first).find(": two"), std::string::npos);
    EXPECT_NE(qvtest::ReadFileBytes(second).find(": two"), std::string::npos);
}

TEST_F(WSCLogTest, MacroNamesTheCallingSourceFile) {
    WSCLog::Configure(5, L"");
    WSCLOG(2, L"warning");
    ASSERT_EQ(g_wideLines.size(), 1u);
    EXPECT_NE(g_wideLines[0].find(L"FILE(      WSCLogTest.cpp)"), std::wstring::npos);
}

TEST_F(WSCLogTest, NullFormatIsIgnored) {
    WSCLog::Configure(5, L"");
    WSCLog::Record record("x.cpp", 1, 1);
    WSCLog::Print(record, static_cast<const wchar_t*>(nullptr));
    WSCLog::Print(record, static_cast<const char*>(nullptr));
    EXPECT_TRUE(g_wideLines.empty());
    EXPECT_TRUE(g_narrowLines.empty());
}

TEST_F(WSCLogTest, ThreadsPrintConcurrentlyWithoutHarm) {
    WSCLog::Configure(5, m_dir.File(L"threads.log"));
    WSCLog::SetDebugSinksForTest(nullptr, nullptr);  // the capture vectors are not thread-safe
    HANDLE threads[4];
    for (HANDLE& thread : threads) thread = CreateThread(nullptr, 0, PrintFiftyLines, nullptr, 0, nullptr);
    WaitForMultipleObjects(4, threads, TRUE, 30000);
    for (HANDLE thread : threads) CloseHandle(thread);
    // Lines that met an open handle are lost by design; some must have arrived.
    EXPECT_NE(qvtest::ReadFileBytes(m_dir.File(L"threads.log")).find(": thread line"), std::string::npos);
}

}  // namespace

// A trace line runs between a platform call and the GetLastError() that
// reports it: whatever the line does (debugger output, opening an existing
// file, which sets ERROR_ALREADY_EXISTS, a failed open), the caller's last
// error is the same afterwards.
TEST_F(WSCLogTest, TracingLeavesTheLastErrorAsItWas) {
    std::wstring file = m_dir.File(L"trace.log");
    ASSERT_TRUE(qvtest::WriteFileBytes(file, "earlier"));
    for (const std::wstring& path : {file, m_dir.File(L"missing-folder\\trace.log"), std::wstring()}) {
        WSCLog::Configure(5, path);
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        WSCLOG(1, L"wide %d", 1);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
        SetLastError(12002);
        WSCLOG(4, "narrow %d", 2);
        EXPECT_EQ(GetLastError(), 12002u);
    }
    EXPECT_EQ(g_wideLines.size(), 3u);
    EXPECT_EQ(g_narrowLines.size(), 3u);
}
