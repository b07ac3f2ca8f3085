// A lock the module's shared state is guarded with: AuSSLockable is the
// interface, AuSSSection a critical section implementing it, and AuSSLock
// holds one for a scope.
#pragma once

#include <windows.h>

class AuSSLockable {
public:
    virtual void Lock() = 0;
    virtual void Unlock() = 0;

protected:
    ~AuSSLockable() = default;
};

class AuSSSection final : public AuSSLockable {
public:
    AuSSSection() { InitializeCriticalSection(&m_section); }
    ~AuSSSection() { DeleteCriticalSection(&m_section); }
    AuSSSection(const AuSSSection&) = delete;
    AuSSSection& operator=(const AuSSSection&) = delete;

    void Lock() override { EnterCriticalSection(&m_section); }
    void Unlock() override { LeaveCriticalSection(&m_section); }

private:
    CRITICAL_SECTION m_section;
};

class AuSSLock {
public:
    explicit AuSSLock(AuSSLockable& lockable) : m_lockable(lockable) { m_lockable.Lock(); }
    ~AuSSLock() { m_lockable.Unlock(); }
    AuSSLock(const AuSSLock&) = delete;
    AuSSLock& operator=(const AuSSLock&) = delete;

private:
    AuSSLockable& m_lockable;
};
