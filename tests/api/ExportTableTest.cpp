// The DLL as a printer driver sees it: one export, the version registry and
// the module's version resource.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <vector>

#define QUORVANTIS_NO_PROTOTYPES
#include "Quorvantis.h"

namespace {

class LoadedModule : public ::testing::Test {
protected:
    void SetUp() override {
        m_module = LoadLibraryW(L"Quorvantis.dll");
        ASSERT_NE(m_module, nullptr);
        m_get = reinterpret_cast<PFN_ZEB_GetInterface>(GetProcAddress(m_module, "ZEB_GetInterface"));
        ASSERT_NE(m_get, nullptr);
    }
    void TearDown() override {
        if (m_module) FreeLibrary(m_module);
    }
    const BYTE* Base() const { return reinterpret_cast<const BYTE*>(m_module); }
    const IMAGE_NT_HEADERS64* NtHeaders() const {
        auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(Base());
        return reinterpret_cast<const IMAGE_NT_HEADERS64*>(Base() + dos->e_lfanew);
    }

    HMODULE m_module = nullptr;
    PFN_ZEB_GetInterface m_get = nullptr;
};

TEST_F(LoadedModule, Version0100ReturnsTheTableWhoseFirstSlotIsTheExport) {
    SetLastError(0);
    const ZEB_INTERFACE* table = m_get(ZEB_INTERFACE_VERSION);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->ZEB_GetInterface, m_get);
    EXPECT_EQ(GetLastError(), 0u);  // success leaves the last error alone
    // Every slot is filled and points into the module.
    const void* const slots[] = {
        reinterpret_cast<const void*>(table->ZEB_GetInterface), reinterpret_cast<const void*>(table->Initialize),
        reinterpret_cast<const void*>(table->Open),             reinterpret_cast<const void*>(table->Close),
        reinterpret_cast<const void*>(table->BufferFree),       reinterpret_cast<const void*>(table->GetPolicy),
        reinterpret_cast<const void*>(table->Authentication),   reinterpret_cast<const void*>(table->GetACT),
    };
    const BYTE* end = Base() + NtHeaders()->OptionalHeader.SizeOfImage;
    for (const void* slot : slots) {
        ASSERT_NE(slot, nullptr);
        EXPECT_GE(static_cast<const BYTE*>(slot), Base());
        EXPECT_LT(static_cast<const BYTE*>(slot), end);
    }
    // Asking again through the table's own first slot gives the same table.
    EXPECT_EQ(table->ZEB_GetInterface(ZEB_INTERFACE_VERSION), table);
}

TEST_F(LoadedModule, OtherVersionsReturnNullWithError1759) {
    for (USHORT version : {USHORT(0x00FF), USHORT(0x0101), USHORT(0), USHORT(0x0001), USHORT(0x0200), USHORT(0xFFFF)}) {
        SetLastError(0);
        EXPECT_EQ(m_get(version), nullptr) << version;
        EXPECT_EQ(GetLastError(), 1759u) << version;
    }
}

TEST_F(LoadedModule, ExportTableHoldsOnlyZebGetInterface) {
    const IMAGE_DATA_DIRECTORY& dir = NtHeaders()->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    ASSERT_NE(dir.VirtualAddress, 0u);
    auto* exports = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(Base() + dir.VirtualAddress);
    ASSERT_EQ(exports->NumberOfNames, 1u);
    auto* names = reinterpret_cast<const DWORD*>(Base() + exports->AddressOfNames);
    EXPECT_STREQ(reinterpret_cast<const char*>(Base() + names[0]), "ZEB_GetInterface");
    EXPECT_STREQ(reinterpret_cast<const char*>(Base() + exports->Name), "Quorvantis.dll");
    auto* functions = reinterpret_cast<const DWORD*>(Base() + exports->AddressOfFunctions);
    auto* ordinals = reinterpret_cast<const WORD*>(Base() + exports->AddressOfNameOrdinals);
    // One function in the address table. GNU ld numbers ordinals from a base
    // of 1 (one slot); lld-14 from a base of 0 and leaves slot 0 empty (RVA 0,
    // which exports nothing): count the slots that hold an address.
    DWORD exported = 0;
    for (DWORD slot = 0; slot < exports->NumberOfFunctions; ++slot) {
        if (functions[slot] != 0) ++exported;
    }
    EXPECT_EQ(exported, 1u);
    EXPECT_LE(exports->NumberOfFunctions, 2u);
    EXPECT_EQ(Base() + functions[ordinals[0]], reinterpret_cast<const BYTE*>(m_get));
}

TEST_F(LoadedModule, ImportsOnlySystemLibraries) {
    const IMAGE_DATA_DIRECTORY& dir = NtHeaders()->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    ASSERT_NE(dir.VirtualAddress, 0u);
    std::vector<std::string> names;
    for (auto* import = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(Base() + dir.VirtualAddress);
         import->Name != 0; ++import) {
        std::string name = reinterpret_cast<const char*>(Base() + import->Name);
        for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        names.push_back(name);
    }
    EXPECT_FALSE(names.empty());
    for (const std::string& name : names) {
        EXPECT_EQ(name.find("libgcc"), std::string::npos) << name;
        EXPECT_EQ(name.find("libstdc++"), std::string::npos) << name;
        EXPECT_EQ(name.find("libwinpthread"), std::string::npos) << name;
    }
}

TEST_F(LoadedModule, CarriesAVersionResource) {
    HMODULE versionDll = LoadLibraryW(L"version.dll");
    ASSERT_NE(versionDll, nullptr);
    using SizeFn = DWORD(WINAPI*)(LPCWSTR, LPDWORD);
    using InfoFn = BOOL(WINAPI*)(LPCWSTR, DWORD, DWORD, LPVOID);
    using QueryFn = BOOL(WINAPI*)(LPCVOID, LPCWSTR, LPVOID*, PUINT);
    auto size = reinterpret_cast<SizeFn>(GetProcAddress(versionDll, "GetFileVersionInfoSizeW"));
    auto info = reinterpret_cast<InfoFn>(GetProcAddress(versionDll, "GetFileVersionInfoW"));
    auto query = reinterpret_cast<QueryFn>(GetProcAddress(versionDll, "VerQueryValueW"));
    ASSERT_TRUE(size && info && query);

    wchar_t path[MAX_PATH] = {};
    ASSERT_NE(GetModuleFileNameW(m_module, path, MAX_PATH), 0u);
    DWORD handle = 0;
    DWORD bytes = size(path, &handle);
    ASSERT_GT(bytes, 0u);
    std::vector<BYTE> data(bytes);
    ASSERT_TRUE(info(path, 0, bytes, data.data()));

    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT length = 0;
    ASSERT_TRUE(query(data.data(), L"\\", reinterpret_cast<void**>(&fixed), &length));
    ASSERT_NE(fixed, nullptr);
    EXPECT_EQ(fixed->dwSignature, 0xFEEF04BDu);
    EXPECT_EQ(fixed->dwFileType, static_cast<DWORD>(VFT_DLL));
    EXPECT_NE(fixed->dwFileVersionMS | fixed->dwFileVersionLS, 0u);

    wchar_t* original = nullptr;
    ASSERT_TRUE(query(data.data(), L"\\StringFileInfo\\040904B0\\OriginalFilename", reinterpret_cast<void**>(&original),
                      &length));
    EXPECT_STREQ(original, L"Quorvantis.dll");
    FreeLibrary(versionDll);
}

TEST_F(LoadedModule, LoadsAndUnloadsRepeatedly) {
    for (int i = 0; i < 5; ++i) {
        HMODULE again = LoadLibraryW(L"Quorvantis.dll");
        ASSERT_EQ(again, m_module);
        FreeLibrary(again);
    }
    EXPECT_NE(m_get(ZEB_INTERFACE_VERSION), nullptr);
}

}  // namespace
