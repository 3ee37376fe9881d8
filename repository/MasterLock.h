// The master lock and its guard. docs/threads.md, "Locks that outlive a call".
#pragma once

#include "common/srclib/KxComn_CriticalSection.h"

/// A re-entrant critical section that can outlive the call that took it: two failures of the master leave it with the
/// calling thread. Such a lock is "kept", and its thread is the keeper. Whoever else wants to change the store asks
/// first and waits here, without the lock that all exports share, so that the keeper and all readers go on.
/// A lock becomes kept only under the global lock, so under that lock the answer of IsKeptByOther cannot turn to true.
class KX_CAPABILITY("mutex") MasterLock
{
public:
    MasterLock() noexcept = default;
    MasterLock(const MasterLock&) = delete;
    MasterLock& operator=(const MasterLock&) = delete;

    void Lock() noexcept KX_ACQUIRE() { m_Section.Lock(); }
    void Unlock() noexcept KX_RELEASE() { m_Section.Unlock(); }

    /// Turns one hold of the calling thread into a kept one. Global lock held.
    void Keep() noexcept;
    /// Gives all kept holds of the calling thread back and wakes those who wait; nothing when it keeps none.
    void ReleaseKept() noexcept;

    [[nodiscard]] bool IsKeptByOther() noexcept;
    /// Returns when no other thread keeps the lock. No lock that the keeper needs may be held.
    void WaitWhileKeptByOther() noexcept;

private:
    KxCommon::Synchronize::CriticalSection m_Section;
    SRWLOCK m_StateLock = SRWLOCK_INIT; // guards the two fields below; taken last, never while waiting for m_Section
    CONDITION_VARIABLE m_Released = CONDITION_VARIABLE_INIT;
    DWORD m_Keeper = 0; // thread id; 0 is none
    unsigned m_KeptHolds = 0;
};

/// Holds the master lock for a scope, or, by its one named way out, beyond it.
class [[nodiscard]] KX_SCOPED_CAPABILITY MasterGuard
{
public:
    explicit MasterGuard(MasterLock& lock) noexcept KX_ACQUIRE(lock) : m_Lock(lock) { m_Lock.Lock(); }
    ~MasterGuard() KX_RELEASE()
    {
        if (!m_IsKept)
            m_Lock.Unlock();
    }
    MasterGuard(const MasterGuard&) = delete;
    MasterGuard& operator=(const MasterGuard&) = delete;

    /// The calling thread goes on owning the lock when the scope ends, until it finalises the library.
    void KeepLocked() noexcept
    {
        m_Lock.Keep();
        m_IsKept = true;
    }

private:
    MasterLock& m_Lock;
    bool m_IsKept = false;
};
