// Text conversions between UTF-16 and 8-bit code pages.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "log/StringConv.h"
#include "support/TestSupport.h"

namespace {

TEST(StringConv, Utf8ToWideConvertsAndTerminates) {
    qvtest::Malloced<wchar_t> wide(ConvertMultiToWide("gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC"));
    ASSERT_NE(wide, nullptr);
    EXPECT_STREQ(wide.get(), L"gr\u00FC\u00DFe \u20AC");
}

TEST(StringConv, NullAndEmptyInputsGiveNothing) {
    EXPECT_EQ(ConvertMultiToWide(nullptr), nullptr);
    EXPECT_EQ(ConvertMultiToWide(""), nullptr);
    EXPECT_EQ(ConvertWideToAnsi(nullptr), nullptr);
    EXPECT_EQ(ConvertWideToAnsi(L""), nullptr);
    DWORD length = 99;
    EXPECT_EQ(ConvertWideToMulti(L"", CP_UTF8, &length), nullptr);
    EXPECT_EQ(length, 0u);
    length = 99;
    EXPECT_EQ(ConvertWideToMulti(nullptr, CP_UTF8, &length), nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(ConvertWideToMulti(nullptr, CP_UTF8), nullptr);
}

TEST(StringConv, WideToUtf8ReportsTheByteLength) {
    DWORD length = 0;
    qvtest::Malloced<char> utf8(ConvertWideToMulti(L"a\u00E9\u20AC", CP_UTF8, &length));
    ASSERT_NE(utf8, nullptr);
    EXPECT_EQ(length, 6u);
    EXPECT_STREQ(utf8.get(), "a\xC3\xA9\xE2\x82\xAC");

    qvtest::Malloced<char> noLength(ConvertWideToMulti(L"plain", CP_UTF8));
    ASSERT_NE(noLength, nullptr);
    EXPECT_STREQ(noLength.get(), "plain");
}

TEST(StringConv, WideToAnsiKeepsAscii) {
    qvtest::Malloced<char> ansi(ConvertWideToAnsi(L"Initialize OUT"));
    ASSERT_NE(ansi, nullptr);
    EXPECT_STREQ(ansi.get(), "Initialize OUT");
}

TEST(StringConv, LongTextRoundTrips) {
    std::wstring text(100000, L'\u00E4');
    DWORD length = 0;
    qvtest::Malloced<char> utf8(ConvertWideToMulti(text.c_str(), CP_UTF8, &length));
    ASSERT_NE(utf8, nullptr);
    EXPECT_EQ(length, 200000u);
    qvtest::Malloced<wchar_t> back(ConvertMultiToWide(utf8.get()));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(std::wstring(back.get()), text);
}

TEST(StringConv, StdStringHelpers) {
    EXPECT_EQ(qv::Utf8ToWide("abc\xC3\xA9", 5), L"abc\u00E9");
    EXPECT_EQ(qv::Utf8ToWide(nullptr, 3), L"");
    EXPECT_EQ(qv::Utf8ToWide("abc", 0), L"");
    EXPECT_EQ(qv::WideToUtf8(L"\u20AC1"), "\xE2\x82\xAC" "1");
    EXPECT_EQ(qv::WideToUtf8(L""), "");
}

}  // namespace
