// Loading the module reads "Quorvantis.ini" beside it and traces attach and
// detach. The DLL is copied with its own ini into a folder of its own, so the
// shared one in bin/ keeps running without an ini.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdio>
#include <string>

#define QUORVANTIS_NO_PROTOTYPES
#include "Quorvantis.h"
#include "support/TestSupport.h"

namespace {

std::wstring BuiltDll() {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path);
    return folder.substr(0, folder.rfind(L'\\')) + L"\\Quorvantis.dll";
}

TEST(ModuleAttach, ReadsTheIniBesideItselfAndTracesAttachAndDetach) {
    if (GetModuleHandleW(L"Quorvantis.dll")) GTEST_SKIP() << "the DLL is already loaded in this process";
    qvtest::TempDir dir;
    const std::wstring dll = dir.File(L"Quorvantis.dll");
    const std::wstring trace = dir.File(L"attach.log");
    ASSERT_TRUE(CopyFileW(BuiltDll().c_str(), dll.c_str(), FALSE));
    ASSERT_TRUE(qvtest::WriteFileBytes(dir.File(L"Quorvantis.ini"),
                                       "[Quorvantis]\nDebugLevel=3\nDebugFile=" +
                                           std::string(trace.begin(), trace.end()) + "\n"));

    HMODULE module = LoadLibraryW(dll.c_str());
    ASSERT_NE(module, nullptr);
    char expected[96];
    snprintf(expected, sizeof(expected), " : DllMain DLL_PROCESS_ATTACH hModule = %08X  1",
             static_cast<unsigned>(reinterpret_cast<UINT_PTR>(module)));
    EXPECT_NE(qvtest::ReadFileBytes(trace).find(expected), std::string::npos) << qvtest::ReadFileBytes(trace);

    // A second load of the same module is no second attach.
    HMODULE again = LoadLibraryW(dll.c_str());
    EXPECT_EQ(again, module);
    FreeLibrary(again);
    EXPECT_EQ(qvtest::ReadFileBytes(trace).find("DLL_PROCESS_DETACH"), std::string::npos);

    snprintf(expected, sizeof(expected), " : DllMain DLL_PROCESS_DETACH hModule = %08X 0",
             static_cast<unsigned>(reinterpret_cast<UINT_PTR>(module)));
    FreeLibrary(module);
    EXPECT_NE(qvtest::ReadFileBytes(trace).find(expected), std::string::npos) << qvtest::ReadFileBytes(trace);
}

TEST(ModuleAttach, WithoutAnIniTheDefaultsHoldAndNothingIsTraced) {
    if (GetModuleHandleW(L"Quorvantis.dll")) GTEST_SKIP() << "the DLL is already loaded in this process";
    qvtest::TempDir dir;
    const std::wstring dll = dir.File(L"Quorvantis.dll");
    ASSERT_TRUE(CopyFileW(BuiltDll().c_str(), dll.c_str(), FALSE));
    HMODULE module = LoadLibraryW(dll.c_str());
    ASSERT_NE(module, nullptr);
    auto get = reinterpret_cast<PFN_ZEB_GetInterface>(GetProcAddress(module, "ZEB_GetInterface"));
    ASSERT_NE(get, nullptr);
    const ZEB_INTERFACE* api = get(ZEB_INTERFACE_VERSION);
    ASSERT_NE(api, nullptr);
    // Entries work before any Initialize.
    DWORD handle = 0;
    EXPECT_EQ(api->Open(L"", &handle, 0), ZEB_ERROR_INVALID_PARAMETER);
    FreeLibrary(module);
    // Only the copied DLL is in the folder: no log file appeared beside it.
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW(dir.File(L"*.log").c_str(), &data);
    EXPECT_EQ(find, INVALID_HANDLE_VALUE);
    if (find != INVALID_HANDLE_VALUE) FindClose(find);
}

}  // namespace
