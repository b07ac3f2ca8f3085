// Buffers on the module heap (malloc/free). Buffers handed to the host come
// from here and go back through BufferFree; secrets are wiped before free.
#pragma once

#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace qv {

// Overwrites memory in a way the optimiser may not drop.
inline void SecureWipe(void* data, size_t size) noexcept {
    if (data && size) SecureZeroMemory(data, size);
}

// Wipes a string's whole block and empties it. The spare capacity is wiped
// too: it may still hold what an earlier, longer text left there. Growing to
// the capacity reuses the block (no allocation) and makes all of it
// addressable. The block itself stays allocated.
template <typename Char, typename Traits, typename Alloc>
inline void SecureWipe(std::basic_string<Char, Traits, Alloc>& text) noexcept {
    text.resize(text.capacity());
    if (!text.empty()) SecureZeroMemory(&text[0], text.size() * sizeof(Char));
    text.clear();
}

// Wipes and frees a malloc'd block holding a secret.
inline void FreeSecret(void* data, size_t size) noexcept {
    if (!data) return;
    SecureWipe(data, size);
    std::free(data);
}

// Owns one malloc'd block. WipeOnFree is for passwords, digests and keys.
template <typename T, bool WipeOnFree = false>
class HeapBuffer {
public:
    using Element = T;

    HeapBuffer() noexcept = default;
    HeapBuffer(T* data, size_t bytes) noexcept : m_data(data), m_bytes(bytes) {}
    ~HeapBuffer() { reset(); }

    HeapBuffer(const HeapBuffer&) = delete;
    HeapBuffer& operator=(const HeapBuffer&) = delete;
    HeapBuffer(HeapBuffer&& other) noexcept : m_data(other.m_data), m_bytes(other.m_bytes) {
        other.m_data = nullptr;
        other.m_bytes = 0;
    }
    HeapBuffer& operator=(HeapBuffer&& other) noexcept {
        if (this != &other) {
            reset();
            m_data = other.m_data;
            m_bytes = other.m_bytes;
            other.m_data = nullptr;
            other.m_bytes = 0;
        }
        return *this;
    }

    // Allocates `bytes` zero-filled bytes; false when the heap refuses.
    bool allocate(size_t bytes) noexcept {
        reset();
        m_data = static_cast<T*>(std::calloc(bytes ? bytes : 1, 1));
        m_bytes = m_data ? bytes : 0;
        return m_data != nullptr;
    }
    void reset(T* data = nullptr, size_t bytes = 0) noexcept {
        if (m_data) {
            if (WipeOnFree) SecureWipe(m_data, m_bytes);
            std::free(m_data);
        }
        m_data = data;
        m_bytes = bytes;
    }
    // For a call that hands out a malloc'd block: frees the current one and
    // gives the address (see OutParam for the block's size).
    T** put() noexcept {
        reset();
        return &m_data;
    }
    T* release() noexcept {
        T* data = m_data;
        m_data = nullptr;
        m_bytes = 0;
        return data;
    }

    T* get() const noexcept { return m_data; }
    size_t bytes() const noexcept { return m_bytes; }
    explicit operator bool() const noexcept { return m_data != nullptr; }

private:
    T* m_data = nullptr;
    size_t m_bytes = 0;
};

// For a call that hands out a malloc'd block through an out-parameter and its
// size through another (or as its result): the holder takes both when the
// full expression of the call is over, so no raw pointer is left to free.
//     DWORD size = 0;
//     DWORD result = Decode(text, &size, qv::out_param(buffer, size));
template <typename Buffer, typename Size>
class OutParam {
public:
    OutParam(Buffer& holder, const Size& size) noexcept : m_holder(holder), m_size(size) {}
    ~OutParam() { m_holder.reset(m_data, m_data ? static_cast<size_t>(m_size) : 0); }
    OutParam(const OutParam&) = delete;
    OutParam& operator=(const OutParam&) = delete;
    operator typename Buffer::Element**() noexcept { return &m_data; }

private:
    Buffer& m_holder;
    const Size& m_size;
    typename Buffer::Element* m_data = nullptr;
};
template <typename Buffer, typename Size>
OutParam<Buffer, Size> out_param(Buffer& holder, const Size& size) noexcept {
    return OutParam<Buffer, Size>(holder, size);
}

using ByteBuffer = HeapBuffer<BYTE>;
using SecretBytes = HeapBuffer<BYTE, true>;
using CharBuffer = HeapBuffer<char>;
using SecretChars = HeapBuffer<char, true>;
using WideBuffer = HeapBuffer<wchar_t>;
using SecretWide = HeapBuffer<wchar_t, true>;

}  // namespace qv
