// Module-relative file names. Outside the DLL the module is the running test
// program, so names are relative to it unless a test sets another module.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <vector>

#include "common/Module.h"
#include "log/AddinLog.h"
#include "log/ModuleFiles.h"
#include "support/TestSupport.h"

namespace {

constexpr const wchar_t* kKeyPath = L"Software\\Orvel\\ZEB\\DrvAddin";

std::vector<std::wstring> g_debugLines;
void CaptureDebug(const wchar_t* line) { g_debugLines.push_back(line); }

std::wstring ProgramPath() {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    return path;
}

std::wstring ProgramFolder() {
    std::wstring path = ProgramPath();
    return path.substr(0, path.rfind(L'\\'));
}

bool Contains(const std::wstring& text) {
    for (const std::wstring& line : g_debugLines)
        if (line.find(text) != std::wstring::npos) return true;
    return false;
}

// Every test runs with the add-in log's debug output on, captured.
class ModuleFilesTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_lock = CreateMutexW(nullptr, FALSE, L"QuorvantisAddinLogTests");
        WaitForSingleObject(m_lock, INFINITE);
        HKEY key = nullptr;
        RegCreateKeyExW(HKEY_CURRENT_USER, kKeyPath, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
        DWORD level = 2;
        RegSetValueExW(key, L"ATTR_LOG_LEVEL_DEBUGSTR", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&level),
                       sizeof(level));
        RegCloseKey(key);
        AddinLog::ResetSettingsForTest();
        g_debugLines.clear();
        AddinLog::SetDebugSinkForTest(CaptureDebug);
    }
    void TearDown() override {
        AddinLog::SetDebugSinkForTest(nullptr);
        qv::SetThisModule(nullptr);
        HKEY key = nullptr;
        if (RegOpenKeyExW(HKEY_CURRENT_USER, kKeyPath, 0, KEY_ALL_ACCESS, &key) == ERROR_SUCCESS) {
            RegDeleteValueW(key, L"ATTR_LOG_LEVEL_DEBUGSTR");
            RegCloseKey(key);
        }
        RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\Orvel\\ZEB\\DrvAddin");
        RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\Orvel\\ZEB");
        RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\Orvel");
        AddinLog::ResetSettingsForTest();
        ReleaseMutex(m_lock);
        CloseHandle(m_lock);
    }
    HANDLE m_lock = nullptr;
};

TEST_F(ModuleFilesTest, PathOnMyDirJoinsTheModuleFolderAndTheName) {
    wchar_t buffer[MAX_PATH] = {};
    ASSERT_EQ(GetFilePathOnMyDir(buffer, MAX_PATH, L"Dellipsor.ini", 13), TRUE);
    std::wstring expected = ProgramFolder() + L"\\Dellipsor.ini";
    EXPECT_EQ(std::wstring(buffer), expected);
    EXPECT_TRUE(Contains(L"[ debug ][ GetFilePathOnMyDir ] pFilePath=" + expected + L". "));
    EXPECT_TRUE(Contains(L"[ end   ][ GetFilePathOnMyDir ] return 1 "));
}

TEST_F(ModuleFilesTest, PathOnMyDirTakesOnlyTheGivenLength) {
    wchar_t buffer[MAX_PATH] = {};
    ASSERT_EQ(GetFilePathOnMyDir(buffer, MAX_PATH, L"Dellipsor.ini.bak", 13), TRUE);
    EXPECT_EQ(std::wstring(buffer), ProgramFolder() + L"\\Dellipsor.ini");
}

TEST_F(ModuleFilesTest, PathOnMyDirFailsWhenTheBufferIsTooSmall) {
    const DWORD exact = static_cast<DWORD>(ProgramFolder().size() + 13 + 2);
    std::vector<wchar_t> buffer(exact, L'#');
    EXPECT_EQ(GetFilePathOnMyDir(buffer.data(), exact - 1, L"Dellipsor.ini", 13), FALSE);
    EXPECT_EQ(buffer[0], L'\0');
    EXPECT_TRUE(Contains(L"full path size is longer than the buffer size. "));
    EXPECT_TRUE(Contains(L"[ end   ][ GetFilePathOnMyDir ] return 0 "));
    EXPECT_EQ(GetFilePathOnMyDir(buffer.data(), exact, L"Dellipsor.ini", 13), TRUE);
    // Smaller than the folder itself.
    wchar_t tiny[4] = {L'#', L'#', L'#', L'#'};
    EXPECT_EQ(GetFilePathOnMyDir(tiny, 4, L"Dellipsor.ini", 13), FALSE);
    EXPECT_EQ(tiny[0], L'\0');
}

TEST_F(ModuleFilesTest, PathOnMyDirRejectsNullArguments) {
    wchar_t buffer[MAX_PATH] = {};
    EXPECT_EQ(GetFilePathOnMyDir(nullptr, MAX_PATH, L"Dellipsor.ini", 13), FALSE);
    EXPECT_EQ(GetFilePathOnMyDir(buffer, MAX_PATH, nullptr, 13), FALSE);
    EXPECT_EQ(GetFilePathOnMyDir(buffer, 0, L"Dellipsor.ini", 13), FALSE);
    EXPECT_TRUE(Contains(L"[ debug ][ GetFilePathOnMyDir ] invalid params. "));
}

TEST_F(ModuleFilesTest, LocalizeDllNameUsesTheProgramsOwnEnding) {
    // The test program is test_log.exe: its ending is "og".
    wchar_t buffer[MAX_PATH] = {};
    DWORD chars = MAX_PATH;
    ASSERT_EQ(GetLocalizeDllName(L"C:\\dir\\Dellipsor.ini", buffer, &chars), TRUE);
    EXPECT_EQ(std::wstring(buffer), L"C:\\dir\\Dellipsorog.ini");
    EXPECT_EQ(chars, 22u);
    EXPECT_TRUE(Contains(L"lpszLocalizeDllName=C:\\dir\\Dellipsorog.ini. "));
    EXPECT_TRUE(Contains(L"[ end   ][ GetLocalizeDllName ] return 1 "));
}

TEST_F(ModuleFilesTest, LocalizeDllNameForAModuleNamedAbcXY) {
    qvtest::TempDir dir;
    std::wstring source = ProgramFolder() + L"\\Quorvantis.dll";
    std::wstring copy = dir.File(L"abcXY.dll");
    ASSERT_TRUE(CopyFileW(source.c_str(), copy.c_str(), FALSE));
    HMODULE module = LoadLibraryW(copy.c_str());
    ASSERT_NE(module, nullptr);
    qv::SetThisModule(module);

    wchar_t buffer[MAX_PATH] = {};
    DWORD chars = MAX_PATH;
    EXPECT_EQ(GetLocalizeDllName(L"Dellipsor.ini", buffer, &chars), TRUE);
    EXPECT_EQ(std::wstring(buffer), L"DellipsorXY.ini");
    EXPECT_EQ(chars, 15u);

    wchar_t path[MAX_PATH] = {};
    EXPECT_EQ(GetFilePathOnMyDir(path, MAX_PATH, L"Dellipsor.ini", 13), TRUE);
    chars = MAX_PATH;
    EXPECT_EQ(GetLocalizeDllName(path, buffer, &chars), TRUE);
    EXPECT_EQ(std::wstring(buffer), dir.File(L"DellipsorXY.ini"));

    qv::SetThisModule(nullptr);
    FreeLibrary(module);
}

TEST_F(ModuleFilesTest, LocalizeDllNameRejectsBadArguments) {
    wchar_t buffer[MAX_PATH] = {};
    DWORD chars = MAX_PATH;
    EXPECT_EQ(GetLocalizeDllName(nullptr, buffer, &chars), FALSE);
    EXPECT_EQ(GetLocalizeDllName(L"Dellipsor.ini", nullptr, &chars), FALSE);
    EXPECT_EQ(GetLocalizeDllName(L"Dellipsor.ini", buffer, nullptr), FALSE);
    EXPECT_TRUE(Contains(L"[ debug ][ GetLocalizeDllName ] invalid params. "));
    EXPECT_TRUE(Contains(L"[ end   ][ GetLocalizeDllName ] return 0 "));
}

TEST_F(ModuleFilesTest, LocalizeDllNameFailsCleanlyOnANameWithoutADot) {
    wchar_t buffer[MAX_PATH] = {L'#'};
    DWORD chars = MAX_PATH;
    EXPECT_EQ(GetLocalizeDllName(L"Dellipsor", buffer, &chars), FALSE);
    EXPECT_EQ(chars, static_cast<DWORD>(MAX_PATH));
}

TEST_F(ModuleFilesTest, LocalizeDllNameFailsWhenTheResultDoesNotFit) {
    wchar_t buffer[15] = {};
    DWORD chars = 15;  // "Dellipsorog.ini" needs 16 with its terminator
    EXPECT_EQ(GetLocalizeDllName(L"Dellipsor.ini", buffer, &chars), FALSE);
    EXPECT_EQ(buffer[0], L'\0');
    chars = 16;
    wchar_t exact[16] = {};
    EXPECT_EQ(GetLocalizeDllName(L"Dellipsor.ini", exact, &chars), TRUE);
    EXPECT_EQ(std::wstring(exact), L"Dellipsorog.ini");
}

TEST_F(ModuleFilesTest, NothingIsWrittenWhenTheLogIsOff) {
    AddinLog::SetDebugSinkForTest(nullptr);
    HKEY key = nullptr;
    ASSERT_EQ(RegOpenKeyExW(HKEY_CURRENT_USER, kKeyPath, 0, KEY_ALL_ACCESS, &key), ERROR_SUCCESS);
    RegDeleteValueW(key, L"ATTR_LOG_LEVEL_DEBUGSTR");
    RegCloseKey(key);
    AddinLog::ResetSettingsForTest();
    AddinLog::SetDebugSinkForTest(CaptureDebug);
    wchar_t buffer[MAX_PATH] = {};
    EXPECT_EQ(GetFilePathOnMyDir(buffer, MAX_PATH, L"Dellipsor.ini", 13), TRUE);
    EXPECT_TRUE(g_debugLines.empty());
}

}  // namespace
