// Buffers on the module heap and the out-parameter adaptor.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "common/HeapBuffer.h"

namespace {

// A call of the shape the add-in's helpers have: a malloc'd block through an
// out-parameter, its size through another.
DWORD HandOut(const char* text, char** block, DWORD* size) {
    *size = static_cast<DWORD>(std::strlen(text));
    *block = static_cast<char*>(std::malloc(*size + 1));
    if (!*block) return 14;
    std::memcpy(*block, text, *size + 1);
    return 0;
}
DWORD HandOutNothing(char** block, DWORD* size) {
    *block = nullptr;
    *size = 5;  // a size beside no block is not taken
    return 87;
}

TEST(HeapBuffer, AllocateGivesZeroFilledBytes) {
    qv::ByteBuffer buffer;
    ASSERT_TRUE(buffer.allocate(64));
    EXPECT_EQ(buffer.bytes(), 64u);
    for (size_t i = 0; i < 64; ++i) EXPECT_EQ(buffer.get()[i], 0) << i;
}

TEST(HeapBuffer, OutParamTakesTheBlockAndItsSize) {
    qv::CharBuffer buffer;
    DWORD size = 0;
    ASSERT_EQ(HandOut("held", qv::out_param(buffer, size), &size), 0u);
    ASSERT_TRUE(buffer);
    EXPECT_EQ(buffer.bytes(), 4u);
    EXPECT_STREQ(buffer.get(), "held");
    // Again: the first block is freed, the second taken.
    ASSERT_EQ(HandOut("second", qv::out_param(buffer, size), &size), 0u);
    EXPECT_EQ(buffer.bytes(), 6u);
    EXPECT_STREQ(buffer.get(), "second");
}

TEST(HeapBuffer, OutParamOfAFailedCallLeavesItEmpty) {
    qv::SecretChars buffer;
    ASSERT_TRUE(buffer.allocate(8));
    DWORD size = 0;
    EXPECT_EQ(HandOutNothing(qv::out_param(buffer, size), &size), 87u);
    EXPECT_FALSE(buffer);
    EXPECT_EQ(buffer.bytes(), 0u);
}

TEST(HeapBuffer, PutFreesTheOldBlockFirst) {
    qv::CharBuffer buffer;
    ASSERT_TRUE(buffer.allocate(16));
    char** slot = buffer.put();
    EXPECT_EQ(*slot, nullptr);
    EXPECT_EQ(buffer.bytes(), 0u);
}

TEST(HeapBuffer, ReleaseAndMoveHandTheBlockOver) {
    qv::WideBuffer first;
    ASSERT_TRUE(first.allocate(10));
    wchar_t* raw = first.get();
    qv::WideBuffer second(std::move(first));
    EXPECT_FALSE(first);
    EXPECT_EQ(second.get(), raw);
    EXPECT_EQ(second.bytes(), 10u);
    qv::WideBuffer third;
    third = std::move(second);
    EXPECT_EQ(third.get(), raw);
    wchar_t* released = third.release();
    EXPECT_EQ(released, raw);
    EXPECT_FALSE(third);
    std::free(released);  // released: the caller's to free
}

TEST(SecureWipe, WipesRawBytesAndToleratesNull) {
    char bytes[] = "secret";
    qv::SecureWipe(bytes, sizeof(bytes));
    for (char c : bytes) EXPECT_EQ(c, 0);
    qv::SecureWipe(nullptr, 5);
    qv::FreeSecret(nullptr, 5);
}

}  // namespace
