// Reference-counting holder for COM interface pointers.
#pragma once

#include <unknwn.h>

namespace qv {

template <typename T>
class ComPtr {
public:
    ComPtr() noexcept = default;
    // Implicit on purpose: a raw pointer converts as an assignment would, and
    // the holder takes a reference of its own (AddRef).
    // cppcheck-suppress noExplicitConstructor
    ComPtr(T* p) noexcept : m_p(p) { if (m_p) m_p->AddRef(); }  // NOLINT(google-explicit-constructor)
    ComPtr(const ComPtr& other) noexcept : ComPtr(other.m_p) {}
    ComPtr(ComPtr&& other) noexcept : m_p(other.m_p) { other.m_p = nullptr; }
    ~ComPtr() { reset(); }

    // Self-assignment holds the same pointer: the comparison covers it.
    ComPtr& operator=(const ComPtr& other) noexcept {  // NOLINT(bugprone-unhandled-self-assignment)
        if (m_p != other.m_p) {
            T* old = m_p;
            m_p = other.m_p;
            if (m_p) m_p->AddRef();
            if (old) old->Release();
        }
        return *this;
    }
    ComPtr& operator=(ComPtr&& other) noexcept {
        if (this != &other) {
            reset();
            m_p = other.m_p;
            other.m_p = nullptr;
        }
        return *this;
    }

    void reset() noexcept {
        if (m_p) {
            T* old = m_p;
            m_p = nullptr;
            old->Release();
        }
    }
    // For out-parameters that hand over a reference: releases the current one.
    T** put() noexcept {
        reset();
        return &m_p;
    }
    T* get() const noexcept { return m_p; }
    T* operator->() const noexcept { return m_p; }
    explicit operator bool() const noexcept { return m_p != nullptr; }

    template <typename U>
    HRESULT As(ComPtr<U>& out) const noexcept {
        if (!m_p) return E_POINTER;
        return m_p->QueryInterface(__uuidof(U), reinterpret_cast<void**>(out.put()));
    }

private:
    T* m_p = nullptr;
};

}  // namespace qv
