// Base64: line breaks after every complete 76-character line, padding, the
// tolerant decoder, failures and a seeded round trip over many lengths.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "crypto/Base64.h"
#include "log/WSCLog.h"
#include "support/TestSupport.h"

namespace {

std::vector<std::wstring> g_lines;
void CaptureWide(const wchar_t* line) { g_lines.push_back(line); }
void CaptureNarrow(const char*) {}

class Base64Test : public ::testing::Test {
protected:
    void SetUp() override {
        g_lines.clear();
        WSCLog::SetDebugSinksForTest(CaptureWide, CaptureNarrow);
        WSCLog::Configure(5, L"");
    }
    void TearDown() override {
        WSCLog::Configure(0, L"");
        WSCLog::SetDebugSinksForTest(nullptr, nullptr);
    }
    static bool Logged(const std::wstring& text) {
        for (const std::wstring& line : g_lines)
            if (line.size() >= text.size() && line.compare(line.size() - text.size(), text.size(), text) == 0)
                return true;
        return false;
    }
};

std::wstring Encode(const std::string& bytes) {
    return Base64Encoding(reinterpret_cast<const BYTE*>(bytes.data()), static_cast<DWORD>(bytes.size()));
}

// Decodes and frees; the bytes as a string.
std::string Decode(const std::wstring& text, DWORD* count = nullptr) {
    BYTE* data = reinterpret_cast<BYTE*>(1);
    DWORD n = Base64Decoding(text, &data);
    qvtest::Malloced<BYTE> owned(data);
    if (count) *count = n;
    std::string bytes;
    if (n) {
        EXPECT_NE(data, nullptr);
        bytes.assign(reinterpret_cast<const char*>(data), n);
    } else {
        EXPECT_EQ(data, nullptr);
    }
    return bytes;
}

// An independent reference: plain RFC 4648 text, then CR LF after every
// complete 76-character line.
std::wstring Reference(const std::string& bytes) {
    static const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string plain;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        unsigned b0 = static_cast<unsigned char>(bytes[i]);
        unsigned b1 = i + 1 < bytes.size() ? static_cast<unsigned char>(bytes[i + 1]) : 0;
        unsigned b2 = i + 2 < bytes.size() ? static_cast<unsigned char>(bytes[i + 2]) : 0;
        plain += alphabet[b0 >> 2];
        plain += alphabet[((b0 & 3) << 4) | (b1 >> 4)];
        plain += i + 1 < bytes.size() ? alphabet[((b1 & 15) << 2) | (b2 >> 6)] : '=';
        plain += i + 2 < bytes.size() ? alphabet[b2 & 63] : '=';
    }
    std::wstring text;
    for (size_t i = 0; i < plain.size(); ++i) {
        text += static_cast<wchar_t>(plain[i]);
        if ((i + 1) % 76 == 0) text += L"\r\n";
    }
    return text;
}

std::string Bytes(size_t count, unsigned seed = 7) {
    std::mt19937 random(seed);
    std::string bytes(count, '\0');
    for (char& c : bytes) c = static_cast<char>(random() & 0xFF);
    return bytes;
}

TEST_F(Base64Test, Rfc4648Vectors) {
    EXPECT_EQ(Encode("f"), L"Zg==");
    EXPECT_EQ(Encode("fo"), L"Zm8=");
    EXPECT_EQ(Encode("foo"), L"Zm9v");
    EXPECT_EQ(Encode("foob"), L"Zm9vYg==");
    EXPECT_EQ(Encode("fooba"), L"Zm9vYmE=");
    EXPECT_EQ(Encode("foobar"), L"Zm9vYmFy");
    EXPECT_EQ(Decode(L"Zm9vYmFy"), "foobar");
    EXPECT_EQ(Decode(L"Zm9vYmE="), "fooba");
    EXPECT_EQ(Decode(L"Zg=="), "f");
    EXPECT_EQ(Encode(std::string("\xfb\xff\xbf", 3)), L"+/+/");
}

TEST_F(Base64Test, OneZeroByteIsAAPaddedWithoutLineEnd) {
    const BYTE zero = 0;
    EXPECT_EQ(Base64Encoding(&zero, 1), L"AA==");
    EXPECT_TRUE(Logged(L"Base64Encoding IN"));
    EXPECT_TRUE(Logged(L"Base64Encoding OUT"));
}

TEST_F(Base64Test, FiftySevenBytesAreOneFullLineWithItsLineEnd) {
    const std::wstring text = Encode(Bytes(57));
    ASSERT_EQ(text.size(), 78u);
    EXPECT_EQ(text.substr(76), L"\r\n");
    EXPECT_EQ(text.find(L'='), std::wstring::npos);
    EXPECT_EQ(text, Reference(Bytes(57)));
}

TEST_F(Base64Test, LineBreakPositionsAroundTheLineLength) {
    // 56 bytes pad to exactly 76 characters: a complete line, so it ends in CR LF.
    const std::wstring t56 = Encode(Bytes(56));
    EXPECT_EQ(t56.size(), 78u);
    EXPECT_EQ(t56.substr(75), L"=\r\n");
    // 58 bytes: one full line and a short one without a line end.
    const std::wstring t58 = Encode(Bytes(58));
    EXPECT_EQ(t58.size(), 76u + 2 + 4);
    EXPECT_EQ(t58.substr(76, 2), L"\r\n");
    EXPECT_EQ(t58.substr(80), L"==");
    // 114 bytes: two full lines, each with its line end.
    const std::wstring t114 = Encode(Bytes(114));
    EXPECT_EQ(t114.size(), 2u * 78);
    EXPECT_EQ(t114.substr(76, 2), L"\r\n");
    EXPECT_EQ(t114.substr(154, 2), L"\r\n");
    // 55 bytes pad to 76 characters too, with two "=".
    const std::wstring t55 = Encode(Bytes(55));
    EXPECT_EQ(t55.size(), 78u);
    EXPECT_EQ(t55.substr(74), L"==\r\n");
    // 54 bytes: one group short of a line, no line end.
    const std::wstring t54 = Encode(Bytes(54));
    EXPECT_EQ(t54.size(), 72u);
    EXPECT_EQ(t54.find(L'\r'), std::wstring::npos);
}

TEST_F(Base64Test, ExactOutputForTheLengthFormulaCases) {
    // Sizes where the formula's remainder, padding and line-end terms differ.
    const DWORD sizes[] = {1, 2, 3, 4, 5, 6, 54, 55, 56, 57, 58, 59, 60, 111, 112, 113, 114, 115, 171, 1000, 1140};
    for (DWORD size : sizes) {
        const std::string bytes = Bytes(size, size);
        const std::wstring text = Encode(bytes);
        EXPECT_EQ(text, Reference(bytes)) << "size " << size;
        const size_t chars = (size + 2) / 3 * 4;
        EXPECT_EQ(text.size(), chars + 2 * (chars / 76)) << "size " << size;
    }
}

TEST_F(Base64Test, EncodingFailuresGiveAnEmptyText) {
    const BYTE byte = 1;
    EXPECT_EQ(Base64Encoding(nullptr, 5), L"");
    EXPECT_TRUE(Logged(L"Base64Encoding pData ERROR_INVALID_PARAMETER"));
    EXPECT_EQ(Base64Encoding(&byte, 0), L"");
    EXPECT_TRUE(Logged(L"Base64Encoding size ERROR_INVALID_PARAMETER"));
    EXPECT_EQ(Base64Encoding(nullptr, 0), L"");
}

TEST_F(Base64Test, EncodingRefusesSizesWhoseTextCannotBeCounted) {
    // Never read: the size is refused before any byte is touched.
    const BYTE byte = 1;
    EXPECT_EQ(Base64Encoding(&byte, 0x20000000u), L"");
    EXPECT_TRUE(Logged(L"Base64Encoding malloc ZEB_ERROR_OUTOFMEMORY"));
}

TEST_F(Base64Test, DecodingSkipsLineEndsBlanksAndStrayCharacters) {
    const std::string bytes = Bytes(200, 11);
    const std::wstring clean = Reference(bytes);
    EXPECT_EQ(Decode(clean), bytes);

    std::wstring noBreaks;
    for (wchar_t c : clean)
        if (c != L'\r' && c != L'\n') noBreaks += c;
    EXPECT_EQ(Decode(noBreaks), bytes);

    std::wstring spaced;
    for (size_t i = 0; i < noBreaks.size(); ++i) {
        spaced += noBreaks[i];
        if (i % 5 == 0) spaced += L' ';
        if (i % 7 == 0) spaced += L"\r\n\t";
    }
    EXPECT_EQ(Decode(spaced), bytes);

    EXPECT_EQ(Decode(L"Zm9v!YmFy"), "foobar");
    EXPECT_EQ(Decode(L"Zm9v\u00e9Ym-Fy"), "foobar");
    EXPECT_EQ(Decode(L"  Zm9v\r\nYmFy\r\n"), "foobar");
}

TEST_F(Base64Test, DecodingWithoutPaddingGivesTheSameBytes) {
    EXPECT_EQ(Decode(L"Zg"), "f");
    EXPECT_EQ(Decode(L"Zm8"), "fo");
    EXPECT_EQ(Decode(L"Zm9vYmE"), "fooba");
    EXPECT_EQ(Decode(L"Zm9vYg"), "foob");
    const std::string bytes = Bytes(100, 3);
    std::wstring text = Reference(bytes);
    while (!text.empty() && (text.back() == L'=' || text.back() == L'\n' || text.back() == L'\r')) text.pop_back();
    EXPECT_EQ(Decode(text), bytes);
}

TEST_F(Base64Test, DecodingStopsAtAZeroCharacter) {
    EXPECT_EQ(Decode(std::wstring(L"Zm9v\0YmFy", 9)), "foo");
}

TEST_F(Base64Test, EmptyOrOnlyPaddingDecodesToNothing) {
    DWORD count = 99;
    EXPECT_EQ(Decode(L"", &count), "");
    EXPECT_EQ(count, 0u);
    EXPECT_TRUE(Logged(L"Base64Decoding base64String ERROR_INVALID_PARAMETER"));
    EXPECT_EQ(Decode(L"=", &count), "");
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(Decode(L"====", &count), "");
    EXPECT_EQ(count, 0u);
    EXPECT_TRUE(Logged(L"Base64Decoding Base64Decode"));
    EXPECT_EQ(Decode(L"\r\n  \r\n", &count), "");
    EXPECT_EQ(count, 0u);
    // A single character holds fewer than eight bits.
    EXPECT_EQ(Decode(L"Q", &count), "");
    EXPECT_EQ(count, 0u);
}

TEST_F(Base64Test, DecodingWithoutAnOutPointerFails) {
    EXPECT_EQ(Base64Decoding(L"Zm9v", nullptr), 0u);
    EXPECT_TRUE(Logged(L"Base64Decoding &pData ERROR_INVALID_PARAMETER"));
}

TEST_F(Base64Test, DecodingLogsEntryAndExit) {
    EXPECT_EQ(Decode(L"Zm9v"), "foo");
    EXPECT_TRUE(Logged(L"Base64Decoding IN"));
    EXPECT_TRUE(Logged(L"Base64Decoding OUT"));
}

TEST_F(Base64Test, RoundTripOverManyLengths) {
    WSCLog::Configure(0, L"");  // thousands of lines otherwise
    std::mt19937 random(20261121);
    for (DWORD size = 1; size <= 2000; ++size) {
        std::string bytes(size, '\0');
        for (char& c : bytes) c = static_cast<char>(random() & 0xFF);
        const std::wstring text = Encode(bytes);
        ASSERT_EQ(text, Reference(bytes)) << "size " << size;
        // Every line but the last is 76 characters and ends in CR LF.
        size_t start = 0;
        for (;;) {
            size_t end = text.find(L"\r\n", start);
            if (end == std::wstring::npos) {
                ASSERT_LT(text.size() - start, 76u) << "size " << size;
                break;
            }
            ASSERT_EQ(end - start, 76u) << "size " << size;
            start = end + 2;
        }
        DWORD count = 0;
        ASSERT_EQ(Decode(text, &count), bytes) << "size " << size;
        ASSERT_EQ(count, size);
    }
    // Size 0 has no text: it is refused, and empty text decodes to nothing.
    EXPECT_EQ(Base64Encoding(reinterpret_cast<const BYTE*>(""), 0), L"");
    EXPECT_EQ(Decode(L""), "");
}

}  // namespace
