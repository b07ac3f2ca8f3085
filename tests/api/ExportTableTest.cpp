#include <gtest/gtest.h>
#include <windows.h>

#define QUORVANTIS_NO_PROTOTYPES
#include "Quorvantis.h"

TEST(ZebGetInterface, Version0100ReturnsTheTable) {
    HMODULE module = LoadLibraryW(L"Quorvantis.dll");
    ASSERT_NE(module, nullptr);
    auto get = reinterpret_cast<PFN_ZEB_GetInterface>(GetProcAddress(module, "ZEB_GetInterface"));
    ASSERT_NE(get, nullptr);
    const ZEB_INTERFACE* table = get(0x0100);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->ZEB_GetInterface, get);
    FreeLibrary(module);
}
