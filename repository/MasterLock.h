// The master lock and its guard. docs/threads.md, "Locks that outlive a call".
#pragma once

#include "common/srclib/KxComn_CriticalSection.h"
#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_LockRanks.h"

/// A re-entrant lock that can outlive the call that took it: two failures of the master leave it with the calling
/// thread. Such a lock is "kept", and its thread is the keeper. Whoever else wants to change the store asks first and
/// waits here, without the lock that all exports share, so that the keeper and all readers go on.
/// A lock becomes kept only under the global lock, so under that lock the answer of IsKeptByOther cannot turn to true.
/// A system lock cannot be taken from a thread that has ended; this one is: nobody else could ever give it back.
class KX_CAPABILITY("mutex") MasterLock : private KxCommon::Synchronize::LockOrder
{
public:
    MasterLock() noexcept : LockOrder(KxCommon::Synchronize::LockRank::Master) {}
    MasterLock(const MasterLock&) = delete;
    MasterLock& operator=(const MasterLock&) = delete;

    void Lock() noexcept KX_ACQUIRE();
    void Unlock() noexcept KX_RELEASE();

    /// Turns one hold of the calling thread into a kept one. Global lock held.
    void Keep() noexcept;
    /// Gives all kept holds back, whichever thread keeps them, and wakes those who wait. Global lock held.
    void ReleaseKept() noexcept;

    [[nodiscard]] bool IsKeptByOther() noexcept;
    /// Returns when no other thread keeps the lock. No lock that the keeper needs may be held.
    void WaitWhileKeptByOther() noexcept;
    /// Returns after a moment, or at once when no other thread keeps the lock.
    void WaitOnceWhileKeptByOther() noexcept;

private:
    [[nodiscard]] bool IsOther() const noexcept KX_REQUIRES(m_State) { return m_Owner != ::GetCurrentThreadId(); }
    void WaitForOwner() noexcept KX_REQUIRES(m_State);
    void Release(unsigned holds) noexcept KX_REQUIRES(m_State);
    void WakeWaiters() noexcept KX_REQUIRES(m_State);

    KxCommon::Synchronize::CriticalSection m_State; // guards what follows; held for a moment only, taken last
    CONDITION_VARIABLE m_Changed = CONDITION_VARIABLE_INIT;
    DWORD m_Owner KX_GUARDED_BY(m_State) = 0; // thread id; 0 is none
    unsigned m_Holds KX_GUARDED_BY(m_State) = 0;
    unsigned m_Waiters KX_GUARDED_BY(m_State) = 0;
    unsigned m_KeptHolds KX_GUARDED_BY(m_State) = 0; // of m_Holds
    KxCommon::UniqueKernelObject m_Keeper KX_GUARDED_BY(m_State);
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
