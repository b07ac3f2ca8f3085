// Strings that hold a secret while it is being built up (a password inside a
// payload, a digest's text). A std::wstring that grows moves its text to a
// larger block and frees the old one as it is, so every step of an append
// would leave a copy on the heap; this allocator wipes every block it gives
// back, whichever step frees it.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdlib>
#include <new>
#include <string>

#include "common/HeapBuffer.h"

namespace qv {

// The module heap (malloc/free), as for every other buffer.
struct MallocHeap {
    static void* Allocate(size_t bytes) noexcept { return std::malloc(bytes); }
    static void Free(void* block, size_t) noexcept { std::free(block); }
};

// Wipes each block before Heap frees it. Heap is a parameter so that a test
// can look at a block when it is freed.
template <typename T, typename Heap = MallocHeap>
class WipingAllocator {
public:
    using value_type = T;
    template <typename U>
    struct rebind {
        using other = WipingAllocator<U, Heap>;
    };

    WipingAllocator() noexcept = default;
    template <typename U>
    WipingAllocator(const WipingAllocator<U, Heap>&) noexcept {}

    T* allocate(size_t count) {
        if (count > static_cast<size_t>(-1) / sizeof(T)) throw std::bad_alloc();
        void* block = Heap::Allocate(count * sizeof(T));
        if (!block) throw std::bad_alloc();
        return static_cast<T*>(block);
    }
    void deallocate(T* block, size_t count) noexcept {
        SecureWipe(block, count * sizeof(T));
        Heap::Free(block, count * sizeof(T));
    }

    template <typename U>
    bool operator==(const WipingAllocator<U, Heap>&) const noexcept {
        return true;
    }
    template <typename U>
    bool operator!=(const WipingAllocator<U, Heap>&) const noexcept {
        return false;
    }
};

template <typename Heap = MallocHeap>
using BasicSecretWString = std::basic_string<wchar_t, std::char_traits<wchar_t>, WipingAllocator<wchar_t, Heap>>;
using SecretWString = BasicSecretWString<>;

// Wipes a string when the scope ends, on every way out.
template <typename String>
class ScopedWipe {
public:
    explicit ScopedWipe(String& text) noexcept : m_text(text) {}
    ~ScopedWipe() { SecureWipe(m_text); }
    ScopedWipe(const ScopedWipe&) = delete;
    ScopedWipe& operator=(const ScopedWipe&) = delete;

private:
    String& m_text;
};

}  // namespace qv
