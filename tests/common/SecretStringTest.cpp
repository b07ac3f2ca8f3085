// The wiping string allocator, SecureWipe and ScopedWipe: observed through a
// heap that checks every block as it is given back (it must be all zeros).
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <new>
#include <string>

#include "common/HeapBuffer.h"
#include "common/SecretString.h"
#include "support/TestSupport.h"

namespace {

using qvtest::AllZero;

// A heap that checks each block as it is freed.
struct ObservedHeap {
    static int frees;
    static int dirtyFrees;
    static void* Allocate(size_t bytes) noexcept { return std::malloc(bytes); }
    static void Free(void* block, size_t bytes) noexcept {
        ++frees;
        if (!AllZero(block, bytes)) ++dirtyFrees;
        std::free(block);
    }
};
int ObservedHeap::frees = 0;
int ObservedHeap::dirtyFrees = 0;

using ObservedSecret = qv::BasicSecretWString<ObservedHeap>;

TEST(SecretString, WipingAllocatorWipesEveryBlockAGrowingStringLeaves) {
    ObservedHeap::frees = ObservedHeap::dirtyFrees = 0;
    {
        ObservedSecret text;
        // Appending piece by piece moves the text to larger blocks several
        // times; each block left behind must come back wiped.
        for (int i = 0; i < 40; ++i) text.append(L"password-piece-");
        EXPECT_EQ(text.size(), 40u * 15u);
    }
    EXPECT_GE(ObservedHeap::frees, 3);  // the moves, then the last block
    EXPECT_EQ(ObservedHeap::dirtyFrees, 0);
}

TEST(SecretString, WipingAllocatorWipesACopyAndItsAssignedBlock) {
    ObservedHeap::frees = ObservedHeap::dirtyFrees = 0;
    {
        ObservedSecret first(L"a first secret that is long enough for the heap");
        ObservedSecret second = first;
        second.assign(200, L'x');  // a larger block replaces the copy's
    }
    EXPECT_EQ(ObservedHeap::frees, 3);
    EXPECT_EQ(ObservedHeap::dirtyFrees, 0);
}

TEST(SecretString, SecureWipeClearsSpareCapacityToo) {
    std::wstring text(L"an earlier and much longer secret text than what follows it");
    const size_t capacity = text.capacity();
    text.assign(L"short");  // same block: the old tail is still in it
    ASSERT_EQ(text.capacity(), capacity);
    qv::SecureWipe(text);
    EXPECT_TRUE(text.empty());
    EXPECT_EQ(text.capacity(), capacity);
    text.resize(capacity);  // every character of the block, now readable
    EXPECT_TRUE(AllZero(text.data(), capacity * sizeof(wchar_t)));
}

TEST(SecretString, ScopedWipeWipesOnEveryWayOut) {
    ObservedHeap::frees = ObservedHeap::dirtyFrees = 0;
    ObservedSecret text(L"a secret that lives on the heap for a while");
    try {
        qv::ScopedWipe<ObservedSecret> wipe(text);
        throw std::bad_alloc();
    } catch (const std::bad_alloc&) {
    }
    EXPECT_TRUE(text.empty());
    text.resize(text.capacity());
    EXPECT_TRUE(AllZero(text.data(), text.size() * sizeof(wchar_t)));
}

}  // namespace
