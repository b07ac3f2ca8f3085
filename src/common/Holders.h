// One holder shape for every handle kind the add-in opens, and a scope_exit
// for the rare cleanup that is not a handle. A holder works like
// std::unique_ptr: get(), reset(), release(); put() closes what it holds and
// gives the address for a call that makes a new one; addressof() gives the
// address without closing. Each kind is one alias: its value type, the call
// that closes it and, where "none" is not zero, the value that means none.
// The close calls are small functions of our own: the address of a function
// imported from a system DLL is no constant a template can take.
#pragma once

#include <windows.h>
#include <oleauto.h>
#include <wincrypt.h>
#include <winhttp.h>
#ifndef SECURITY_WIN32
#define SECURITY_WIN32
#endif
#include <security.h>

#include <utility>

namespace qv {

template <typename T>
constexpr T Zero() noexcept {
    return T();
}

template <typename T, void (*Close)(T) noexcept, T (*Invalid)() noexcept = &Zero<T>>
class UniqueAny {
public:
    using Type = T;

    UniqueAny() noexcept : m_value(Invalid()) {}
    explicit UniqueAny(T value) noexcept : m_value(value) {}
    ~UniqueAny() { reset(); }

    UniqueAny(const UniqueAny&) = delete;
    UniqueAny& operator=(const UniqueAny&) = delete;
    UniqueAny(UniqueAny&& other) noexcept : m_value(other.release()) {}
    UniqueAny& operator=(UniqueAny&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }

    T get() const noexcept { return m_value; }
    bool valid() const noexcept { return !(m_value == Invalid()); }
    explicit operator bool() const noexcept { return valid(); }

    // Closes the current value (if any) and takes the new one.
    void reset(T value = Invalid()) noexcept {
        T old = m_value;
        m_value = value;
        if (!(old == Invalid())) Close(old);
    }
    T release() noexcept {
        T value = m_value;
        m_value = Invalid();
        return value;
    }
    // For the out-parameter of a call that makes a new value.
    T* put() noexcept {
        reset();
        return &m_value;
    }
    T* addressof() noexcept { return &m_value; }

private:
    T m_value;
};

// An SSPI handle is a pair of numbers with no "none" value of its own: the
// holder keeps a flag beside it.
struct SspiHandle {
    SecHandle handle;
    bool valid;
};
inline bool operator==(const SspiHandle& a, const SspiHandle& b) noexcept {
    return a.valid == b.valid &&
           (!a.valid || (a.handle.dwLower == b.handle.dwLower && a.handle.dwUpper == b.handle.dwUpper));
}

namespace close {
inline void Kernel(HANDLE h) noexcept { CloseHandle(h); }
inline HANDLE NoFile() noexcept { return INVALID_HANDLE_VALUE; }
inline void Key(HKEY h) noexcept { RegCloseKey(h); }
inline void EventSource(HANDLE h) noexcept { DeregisterEventSource(h); }
inline void CryptProv(HCRYPTPROV h) noexcept { CryptReleaseContext(h, 0); }
inline void CryptKey(HCRYPTKEY h) noexcept { CryptDestroyKey(h); }
inline void CryptHash(HCRYPTHASH h) noexcept { CryptDestroyHash(h); }
// Through the WinHTTP table in use (transport/WinHttpApi.cpp).
void Internet(HINTERNET h) noexcept;
inline void SspiCredential(SspiHandle h) noexcept { FreeCredentialsHandle(&h.handle); }
inline void SspiContext(SspiHandle h) noexcept { DeleteSecurityContext(&h.handle); }
inline void SspiBuffer(PSecPkgInfoW p) noexcept { FreeContextBuffer(p); }
inline void Bstr(BSTR b) noexcept { SysFreeString(b); }
}  // namespace close

using UniqueKernelHandle = UniqueAny<HANDLE, &close::Kernel>;  // tokens and others whose "none" is null
using UniqueFile = UniqueAny<HANDLE, &close::Kernel, &close::NoFile>;
using UniqueKey = UniqueAny<HKEY, &close::Key>;
using UniqueEventSource = UniqueAny<HANDLE, &close::EventSource>;
using UniqueCryptProv = UniqueAny<HCRYPTPROV, &close::CryptProv>;
using UniqueCryptKey = UniqueAny<HCRYPTKEY, &close::CryptKey>;
using UniqueCryptHash = UniqueAny<HCRYPTHASH, &close::CryptHash>;
using UniqueInternet = UniqueAny<HINTERNET, &close::Internet>;
using UniqueSspiCredential = UniqueAny<SspiHandle, &close::SspiCredential>;
using UniqueSspiContext = UniqueAny<SspiHandle, &close::SspiContext>;
using UniqueSspiPackageInfo = UniqueAny<PSecPkgInfoW, &close::SspiBuffer>;
using UniqueBstr = UniqueAny<BSTR, &close::Bstr>;

// Holds an SRW lock, exclusive or shared, for a scope.
class SrwExclusive {
public:
    explicit SrwExclusive(SRWLOCK& lock) noexcept : m_lock(lock) { AcquireSRWLockExclusive(&m_lock); }
    ~SrwExclusive() { ReleaseSRWLockExclusive(&m_lock); }
    SrwExclusive(const SrwExclusive&) = delete;
    SrwExclusive& operator=(const SrwExclusive&) = delete;

private:
    SRWLOCK& m_lock;
};
class SrwShared {
public:
    explicit SrwShared(SRWLOCK& lock) noexcept : m_lock(lock) { AcquireSRWLockShared(&m_lock); }
    ~SrwShared() { ReleaseSRWLockShared(&m_lock); }
    SrwShared(const SrwShared&) = delete;
    SrwShared& operator=(const SrwShared&) = delete;

private:
    SRWLOCK& m_lock;
};

// Runs a cleanup when the scope ends, unless released first.
template <typename F>
class ScopeExit {
public:
    explicit ScopeExit(F f) noexcept : m_f(std::move(f)) {}
    ~ScopeExit() {
        if (m_active) m_f();
    }
    ScopeExit(const ScopeExit&) = delete;
    ScopeExit& operator=(const ScopeExit&) = delete;
    void release() noexcept { m_active = false; }

private:
    F m_f;
    bool m_active = true;
};
template <typename F>
ScopeExit<F> scope_exit(F f) noexcept {
    return ScopeExit<F>(std::move(f));
}

}  // namespace qv
