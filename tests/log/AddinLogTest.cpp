// The registry-governed add-in log: settings, routing, tags, line building,
// event-log reports and the rotating files in the user profile.
#include <gtest/gtest.h>
#include <userenv.h>
#include <windows.h>

#include <regex>
#include <string>
#include <vector>

#include "log/AddinLog.h"
#include "support/TestSupport.h"

namespace {

constexpr const wchar_t* kKeyPath = L"Software\\Orvel\\ZEB\\DrvAddin";
constexpr const wchar_t* kValueNames[] = {
    L"ATTR_LOG_LEVEL_DEBUGSTR",  L"ATTR_LOG_USEFILE",     L"ATTR_LOG_USEFILE_DEVSIZE",
    L"ATTR_LOG_USEFILE_MAXCOUNT", L"ATTR_LOG_USEFILE_PARAM1", L"ATTR_LOG_LEVEL_EVENT",
    L"ATTR_LOG_USEMINIDUMP",     L"ATTR_LOG_USEMINIDUMP_TYPE", L"ATTR_LOG_USEMINIDUMP_MAXCOUNT",
};

struct EventReport {
    WORD type;
    DWORD id;
    bool hasSid;
    std::wstring line;
};
std::vector<EventReport> g_events;
std::vector<std::wstring> g_debugLines;

void CaptureEvent(WORD type, DWORD id, bool hasSid, const wchar_t* line) { g_events.push_back({type, id, hasSid, line}); }
void CaptureDebug(const wchar_t* line) { g_debugLines.push_back(line); }

void SetValue(const wchar_t* name, DWORD value) {
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, kKeyPath, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
              ERROR_SUCCESS);
    RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof(value));
    RegCloseKey(key);
}

bool GetValue(const wchar_t* name, DWORD* value) {
    DWORD size = sizeof(*value);
    return RegGetValueW(HKEY_CURRENT_USER, kKeyPath, name, RRF_RT_REG_DWORD, nullptr, value, &size) == ERROR_SUCCESS;
}

// Removes every value these tests set, and the key chain if nothing else
// lives in it.
void RemoveValues() {
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_CURRENT_USER, kKeyPath, 0, KEY_ALL_ACCESS, &key) == ERROR_SUCCESS) {
        for (const wchar_t* name : kValueNames) RegDeleteValueW(key, name);
        RegCloseKey(key);
    }
    // RegDeleteKeyW fails on a key that still has sub-keys: others' keys stay.
    RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\Orvel\\ZEB\\DrvAddin");
    RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\Orvel\\ZEB");
    RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\Orvel");
}

std::wstring LogFolder() {
    HANDLE token = nullptr;
    OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token);
    wchar_t profile[MAX_PATH] = {};
    DWORD size = MAX_PATH;
    GetUserProfileDirectoryW(token, profile, &size);
    CloseHandle(token);
    return std::wstring(profile) + L"\\Local Settings\\Application Data\\Orvel\\ZEB\\V401\\DA";
}

std::wstring LogFile(int index) {
    wchar_t name[32];
    swprintf(name, 32, L"\\AddinLog_%04d.txt", index);
    return LogFolder() + name;
}

void DeleteLogFiles() {
    for (int i = 0; i < 16; ++i) DeleteFileW(LogFile(i).c_str());
}

bool Exists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

// The UTF-16LE lines of a log file, each without its CR LF.
std::vector<std::wstring> ReadLines(const std::wstring& path) {
    std::string bytes = qvtest::ReadFileBytes(path);
    std::wstring text(bytes.size() / 2, L'\0');
    if (!text.empty()) memcpy(&text[0], bytes.data(), text.size() * 2);
    std::vector<std::wstring> lines;
    size_t start = 0;
    for (size_t end; (end = text.find(L"\r\n", start)) != std::wstring::npos; start = end + 2)
        lines.push_back(text.substr(start, end - start));
    if (start != text.size()) lines.push_back(text.substr(start));
    return lines;
}

// What follows the 25-character time prefix, after checking its shape.
std::wstring WithoutTime(const std::wstring& line) {
    static const std::wregex kTime(L"\\d{4}/\\d{2}/\\d{2} \\d{2}:\\d{2}:\\d{2}:\\d{4} ");
    EXPECT_GE(line.size(), 25u);
    if (line.size() < 25) return line;
    EXPECT_TRUE(std::regex_match(line.substr(0, 25), kTime)) << "time prefix of: " << std::string(line.begin(), line.end());
    return line.substr(25);
}

class AddinLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        // ctest runs test cases as parallel processes sharing one registry.
        m_lock = CreateMutexW(nullptr, FALSE, L"QuorvantisAddinLogTests");
        WaitForSingleObject(m_lock, INFINITE);
        RemoveValues();
        DeleteLogFiles();
        g_events.clear();
        g_debugLines.clear();
        AddinLog::SetEventSinkForTest(CaptureEvent);
        AddinLog::SetDebugSinkForTest(CaptureDebug);
        AddinLog::ResetSettingsForTest();
    }
    void TearDown() override {
        AddinLog::SetEventSinkForTest(nullptr);
        AddinLog::SetDebugSinkForTest(nullptr);
        RemoveValues();
        DeleteLogFiles();
        AddinLog::ResetSettingsForTest();
        ReleaseMutex(m_lock);
        CloseHandle(m_lock);
    }
    HANDLE m_lock = nullptr;
};

TEST_F(AddinLogTest, WithoutTheKeyOnlyErrorsAndFatalsReachTheEventLog) {
    {
        AddinLogScope scope(L"NoKey", L"start %d", 1);
        scope.Write(AddinLog::kInfo, L"info");
        scope.Write(AddinLog::kWarn, L"warn");
        scope.Write(AddinLog::kDebug, L"debug");
        scope.Write(AddinLog::kFatal, L"fatal %s", L"line");
    }
    const AddinLog::Settings& settings = AddinLog::CurrentSettings();
    EXPECT_EQ(settings.levelDebugStr, 0u);
    EXPECT_EQ(settings.levelEvent, 1u);
    EXPECT_EQ(settings.useFile, 0u);
    // Wine's ReportEventW stores nothing, so the reports are seen through the sink.
    ASSERT_EQ(g_events.size(), 1u);
    EXPECT_EQ(g_events[0].type, EVENTLOG_ERROR_TYPE);
    EXPECT_EQ(g_events[0].id, 0xC0000002u);
    EXPECT_TRUE(g_events[0].hasSid);
    EXPECT_EQ(g_events[0].line, L"[ ZEB ][ Quorvantis.dll ][ fatal ][ NoKey ] fatal line");
    EXPECT_TRUE(g_debugLines.empty());
    EXPECT_FALSE(Exists(LogFile(0)));
}

TEST_F(AddinLogTest, DefaultsHoldForMissingValues) {
    SetValue(L"ATTR_LOG_LEVEL_DEBUGSTR", 2);
    SetValue(L"ATTR_LOG_USEFILE", 1);
    SetValue(L"ATTR_LOG_USEMINIDUMP", 1);
    const AddinLog::Settings& settings = AddinLog::CurrentSettings();
    EXPECT_EQ(settings.levelDebugStr, 2u);
    EXPECT_EQ(settings.useFile, 1u);
    EXPECT_EQ(settings.fileDevSize, 0x1400000u);
    EXPECT_EQ(settings.fileMaxCount, 10u);
    EXPECT_EQ(settings.levelEvent, 1u);
    EXPECT_EQ(settings.useMiniDump, 1u);
    EXPECT_EQ(settings.miniDumpType, 0u);
    EXPECT_EQ(settings.miniDumpMaxCount, 10u);
}

TEST_F(AddinLogTest, DependentValuesAreReadOnlyWhenSwitchedOn) {
    SetValue(L"ATTR_LOG_USEFILE", 1);  // ignored: debug output is off
    SetValue(L"ATTR_LOG_USEFILE_MAXCOUNT", 3);
    SetValue(L"ATTR_LOG_USEMINIDUMP_TYPE", 2);  // ignored: dumps are off
    SetValue(L"ATTR_LOG_LEVEL_EVENT", 7);
    const AddinLog::Settings& settings = AddinLog::CurrentSettings();
    EXPECT_EQ(settings.useFile, 0u);
    EXPECT_EQ(settings.fileMaxCount, 10u);
    EXPECT_EQ(settings.miniDumpType, 0u);
    EXPECT_EQ(settings.levelEvent, 7u);
}

TEST_F(AddinLogTest, SettingsAreReadOncePerProcess) {
    EXPECT_EQ(AddinLog::CurrentSettings().levelDebugStr, 0u);
    SetValue(L"ATTR_LOG_LEVEL_DEBUGSTR", 2);
    EXPECT_EQ(AddinLog::CurrentSettings().levelDebugStr, 0u);
    { AddinLogScope scope(L"Later"); }
    EXPECT_TRUE(g_debugLines.empty());
    AddinLog::ResetSettingsForTest();
    EXPECT_EQ(AddinLog::CurrentSettings().levelDebugStr, 2u);
}

TEST_F(AddinLogTest, DebugStringLevelOneGivesStartAndEndLinesOnly) {
    SetValue(L"ATTR_LOG_LEVEL_DEBUGSTR", 1);
    {
        AddinLogScope scope(L"LevelOne", L"arg=%d", 5);
        scope.Write(AddinLog::kInfo, L"info");
        scope.Write(AddinLog::kWarn, L"warn");
        scope.Write(AddinLog::kError, L"error");
        scope.Write(AddinLog::kDebug, L"debug");
    }
    ASSERT_EQ(g_debugLines.size(), 2u);
    EXPECT_EQ(g_debugLines[0], L"[ ZEB ][ Quorvantis.dll ][ start ][ LevelOne ] arg=5");
    EXPECT_EQ(g_debugLines[1], L"[ ZEB ][ Quorvantis.dll ][ end   ][ LevelOne ] ");
}

TEST_F(AddinLogTest, DebugStringLevelTwoGivesEveryKindWithItsTag) {
    SetValue(L"ATTR_LOG_LEVEL_DEBUGSTR", 2);
    {
        AddinLogScope scope(L"LevelTwo");
        scope.Write(AddinLog::kInfo, L"i");
        scope.Write(AddinLog::kWarn, L"w");
        scope.Write(AddinLog::kError, L"e");
        scope.Write(AddinLog::kFatal, L"f");
        scope.Write(AddinLog::kDebug, L"d");
        scope.Write(AddinLog::kUnrouted, L"nowhere");
        scope.Write(99, L"unknown kind");
    }
    const std::vector<std::wstring> expected = {
        L"[ ZEB ][ Quorvantis.dll ][ start ][ LevelTwo ] ",
        L"[ ZEB ][ Quorvantis.dll ][ info  ] i",
        L"[ ZEB ][ Quorvantis.dll ][ warn  ] w",
        L"[ ZEB ][ Quorvantis.dll ][ error ][ LevelTwo ] e",
        L"[ ZEB ][ Quorvantis.dll ][ fatal ][ LevelTwo ] f",
        L"[ ZEB ][ Quorvantis.dll ][ debug ][ LevelTwo ] d",
        L"[ ZEB ][ Quorvantis.dll ][ end   ][ LevelTwo ] ",
    };
    EXPECT_EQ(g_debugLines, expected);
    // Errors and fatals also went to the event log under the default mask.
    ASSERT_EQ(g_events.size(), 2u);
    EXPECT_EQ(g_events[0].line, expected[3]);
    EXPECT_EQ(g_events[1].line, expected[4]);
}

TEST_F(AddinLogTest, OtherDebugStringLevelsWriteNothing) {
    SetValue(L"ATTR_LOG_LEVEL_DEBUGSTR", 3);
    {
        AddinLogScope scope(L"LevelThree");
        scope.Write(AddinLog::kDebug, L"d");
    }
    EXPECT_TRUE(g_debugLines.empty());
}

TEST_F(AddinLogTest, EventMaskSelectsKindsAndTypes) {
    SetValue(L"ATTR_LOG_LEVEL_EVENT", 6);  // warn and info, not errors
    {
        AddinLogScope scope(L"Events");
        scope.Write(AddinLog::kInfo, L"i");
        scope.Write(AddinLog::kWarn, L"w");
        scope.Write(AddinLog::kError, L"e");
        scope.Write(AddinLog::kDebug, L"d");
    }
    ASSERT_EQ(g_events.size(), 2u);
    EXPECT_EQ(g_events[0].type, EVENTLOG_INFORMATION_TYPE);
    EXPECT_EQ(g_events[0].line, L"[ ZEB ][ Quorvantis.dll ][ info  ] i");
    EXPECT_EQ(g_events[1].type, EVENTLOG_WARNING_TYPE);
    EXPECT_EQ(g_events[1].line, L"[ ZEB ][ Quorvantis.dll ][ warn  ] w");
}

TEST_F(AddinLogTest, EventMaskZeroAndNoDebugOutputWritesNothing) {
    SetValue(L"ATTR_LOG_LEVEL_EVENT", 0);
    {
        AddinLogScope scope(L"Silent");
        scope.Write(AddinLog::kFatal, L"f");
    }
    EXPECT_TRUE(g_events.empty());
    EXPECT_TRUE(g_debugLines.empty());
}

TEST_F(AddinLogTest, LineBreaksBecomeBlanks) {
    SetValue(L"ATTR_LOG_LEVEL_DEBUGSTR", 2);
    {
        AddinLogScope scope(L"Breaks");
        scope.Write(AddinLog::kDebug, L"one\r\ntwo\nthree\r");
    }
    ASSERT_GE(g_debugLines.size(), 2u);
    EXPECT_EQ(g_debugLines[1], L"[ ZEB ][ Quorvantis.dll ][ debug ][ Breaks ] one  two three ");
}

TEST_F(AddinLogTest, AnExplicitEndLineIsNotRepeated) {
    SetValue(L"ATTR_LOG_LEVEL_DEBUGSTR", 1);
    {
        AddinLogScope scope(L"Ends");
        scope.Write(AddinLog::kEnd, L"return %d\n", 1);
    }
    ASSERT_EQ(g_debugLines.size(), 2u);
    EXPECT_EQ(g_debugLines[1], L"[ ZEB ][ Quorvantis.dll ][ end   ][ Ends ] return 1 ");
}

TEST_F(AddinLogTest, LongMessagesGrowTheBufferUpTo65536Characters) {
    SetValue(L"ATTR_LOG_LEVEL_DEBUGSTR", 2);
    const std::wstring prefix = L"[ ZEB ][ Quorvantis.dll ][ debug ][ Long ] ";
    {
        AddinLogScope scope(L"Long");
        std::wstring medium(5000, L'm');
        scope.Write(AddinLog::kDebug, L"%s", medium.c_str());
        std::wstring largest(65535, L'l');
        scope.Write(AddinLog::kDebug, L"%s", largest.c_str());
        std::wstring tooLong(65536, L't');
        scope.Write(AddinLog::kDebug, L"%s", tooLong.c_str());
    }
    ASSERT_EQ(g_debugLines.size(), 4u);  // start, medium, largest, end
    EXPECT_EQ(g_debugLines[1], prefix + std::wstring(5000, L'm'));
    EXPECT_EQ(g_debugLines[2], prefix + std::wstring(65535, L'l'));
}

TEST_F(AddinLogTest, LongFunctionNamesAreCutNotOverrun) {
    SetValue(L"ATTR_LOG_LEVEL_DEBUGSTR", 2);
    std::wstring name(3000, L'n');
    {
        AddinLogScope scope(name.c_str());
        scope.Write(AddinLog::kDebug, L"after");
    }
    ASSERT_EQ(g_debugLines.size(), 3u);
    // The name keeps 1,023 characters; the line holds the message plus 1,024
    // characters, terminator included, and what does not fit is cut.
    const std::wstring prefix = L"[ ZEB ][ Quorvantis.dll ][ debug ][ ";
    EXPECT_EQ(g_debugLines[1], prefix + std::wstring(5 + 1024 - 1 - prefix.size(), L'n'));
}

TEST_F(AddinLogTest, ApiFailureCarriesTheSystemText) {
    SetValue(L"ATTR_LOG_LEVEL_DEBUGSTR", 2);
    {
        AddinLogScope scope(L"Api");
        SetLastError(ERROR_FILE_NOT_FOUND);
        scope.WriteApiFailure(L"CreateFile");
    }
    ASSERT_EQ(g_debugLines.size(), 3u);
    EXPECT_EQ(g_debugLines[1].rfind(L"[ ZEB ][ Quorvantis.dll ][ fatal ][ Api ] ApiName: CreateFile, ErrorCode: 2 : ", 0),
              0u);
    EXPECT_GT(g_debugLines[1].size(), 80u);
    ASSERT_EQ(g_events.size(), 1u);
}

TEST_F(AddinLogTest, FilesRotateThroughTheRingAndRestartEmpty) {
    SetValue(L"ATTR_LOG_LEVEL_DEBUGSTR", 2);
    SetValue(L"ATTR_LOG_USEFILE", 1);
    SetValue(L"ATTR_LOG_USEFILE_DEVSIZE", 10);
    SetValue(L"ATTR_LOG_USEFILE_MAXCOUNT", 3);
    {
        AddinLogScope scope(L"Ring");  // start line: file 0000
        scope.Write(AddinLog::kDebug, L"first");   // 0000 is full: 0001
        scope.Write(AddinLog::kDebug, L"second");  // 0002
        scope.Write(AddinLog::kDebug, L"third");   // back to 0000, started empty
    }  // end line: 0001, started empty
    EXPECT_TRUE(g_debugLines.empty());

    std::vector<std::wstring> zero = ReadLines(LogFile(0));
    std::vector<std::wstring> one = ReadLines(LogFile(1));
    std::vector<std::wstring> two = ReadLines(LogFile(2));
    ASSERT_EQ(zero.size(), 1u);
    ASSERT_EQ(one.size(), 1u);
    ASSERT_EQ(two.size(), 1u);
    EXPECT_EQ(WithoutTime(zero[0]), L"[ ZEB ][ Quorvantis.dll ][ debug ][ Ring ] third");
    EXPECT_EQ(WithoutTime(one[0]), L"[ ZEB ][ Quorvantis.dll ][ end   ][ Ring ] ");
    EXPECT_EQ(WithoutTime(two[0]), L"[ ZEB ][ Quorvantis.dll ][ debug ][ Ring ] second");
    EXPECT_FALSE(Exists(LogFile(3)));
    DWORD index = 99;
    ASSERT_TRUE(GetValue(L"ATTR_LOG_USEFILE_PARAM1", &index));
    EXPECT_EQ(index, 1u);
}

TEST_F(AddinLogTest, FileIsUtf16LittleEndianWithoutByteOrderMark) {
    SetValue(L"ATTR_LOG_LEVEL_DEBUGSTR", 1);
    SetValue(L"ATTR_LOG_USEFILE", 1);
    { AddinLogScope scope(L"Bom", L"\u00E4\u20AC"); }
    std::string bytes = qvtest::ReadFileBytes(LogFile(0));
    ASSERT_GE(bytes.size(), 4u);
    EXPECT_FALSE(static_cast<unsigned char>(bytes[0]) == 0xFF && static_cast<unsigned char>(bytes[1]) == 0xFE);
    EXPECT_TRUE(bytes[0] >= '0' && bytes[0] <= '9');
    EXPECT_EQ(bytes[1], '\0');
    EXPECT_EQ(bytes.substr(bytes.size() - 4), std::string("\r\0\n\0", 4));
    std::vector<std::wstring> lines = ReadLines(LogFile(0));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(WithoutTime(lines[0]), L"[ ZEB ][ Quorvantis.dll ][ start ][ Bom ] \u00E4\u20AC");
    EXPECT_EQ(WithoutTime(lines[1]), L"[ ZEB ][ Quorvantis.dll ][ end   ][ Bom ] ");
}

TEST_F(AddinLogTest, StoredIndexIsReducedModuloTheCount) {
    SetValue(L"ATTR_LOG_LEVEL_DEBUGSTR", 1);
    SetValue(L"ATTR_LOG_USEFILE", 1);
    SetValue(L"ATTR_LOG_USEFILE_PARAM1", 12);
    { AddinLogScope scope(L"Index"); }
    EXPECT_TRUE(Exists(LogFile(2)));
    EXPECT_FALSE(Exists(LogFile(0)));
    EXPECT_EQ(ReadLines(LogFile(2)).size(), 2u);
    DWORD index = 0;
    ASSERT_TRUE(GetValue(L"ATTR_LOG_USEFILE_PARAM1", &index));
    EXPECT_EQ(index, 12u);  // written back only when the ring moves on
}

TEST_F(AddinLogTest, FileLinesAreAppendedUntilTheLimitIsPassed) {
    SetValue(L"ATTR_LOG_LEVEL_DEBUGSTR", 2);
    SetValue(L"ATTR_LOG_USEFILE", 1);
    SetValue(L"ATTR_LOG_USEFILE_DEVSIZE", 100000);
    {
        AddinLogScope scope(L"Append");
        for (int i = 0; i < 5; ++i) scope.Write(AddinLog::kDebug, L"line %d", i);
    }
    std::vector<std::wstring> lines = ReadLines(LogFile(0));
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(WithoutTime(lines[3]), L"[ ZEB ][ Quorvantis.dll ][ debug ][ Append ] line 2");
    EXPECT_FALSE(Exists(LogFile(1)));
}

TEST_F(AddinLogTest, AnEmptyRingSendsLinesToTheDebugger) {
    SetValue(L"ATTR_LOG_LEVEL_DEBUGSTR", 1);
    SetValue(L"ATTR_LOG_USEFILE", 1);
    SetValue(L"ATTR_LOG_USEFILE_MAXCOUNT", 0);
    { AddinLogScope scope(L"NoRing"); }
    EXPECT_EQ(g_debugLines.size(), 2u);
    EXPECT_FALSE(Exists(LogFile(0)));
}

}  // namespace

// The add-in log writes files, the registry and the event log from inside
// operations that still have a platform error to report: none of it may
// change the caller's last error.
TEST_F(AddinLogTest, LoggingLeavesTheLastErrorAsItWas) {
    SetValue(L"ATTR_LOG_LEVEL_DEBUGSTR", 2);
    SetValue(L"ATTR_LOG_USEFILE", 1);
    SetValue(L"ATTR_LOG_LEVEL_EVENT", 7);
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    {
        AddinLogScope scope(L"Keeps", L"start %d", 1);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
        scope.Write(AddinLog::kError, L"error");
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
        SetLastError(ERROR_FILE_NOT_FOUND);
        scope.WriteApiFailure(L"CreateFileW");
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
        SetLastError(12030);
    }
    EXPECT_EQ(GetLastError(), 12030u);
    EXPECT_EQ(g_events.size(), 2u);  // the error and the API failure
    EXPECT_EQ(ReadLines(LogFile(0)).size(), 4u);
}
