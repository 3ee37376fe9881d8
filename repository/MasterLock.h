// The master lock, its guards, and what readers show instead. docs/threads.md, "Locks that outlive a call".
#pragma once

#include "api/include/KxPfwRule.h"
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

    [[nodiscard]] bool IsKeptByOther() const noexcept;
    /// Returns when no other thread keeps the lock. No lock that the keeper needs may be held.
    void WaitWhileKeptByOther() noexcept;
    /// Returns after a moment, or at once when no other thread keeps the lock.
    void WaitOnceWhileKeptByOther() noexcept;

private:
    [[nodiscard]] bool IsOther() const noexcept KX_REQUIRES(m_State) { return m_Owner != ::GetCurrentThreadId(); }
    void WaitForOwner() noexcept KX_REQUIRES(m_State);
    void Release(unsigned holds) noexcept KX_REQUIRES(m_State);
    void WakeWaiters() noexcept KX_REQUIRES(m_State);

    mutable KxCommon::Synchronize::CriticalSection m_State; // guards what follows; held for a moment only, taken last
    CONDITION_VARIABLE m_Changed = CONDITION_VARIABLE_INIT;
    DWORD m_Owner KX_GUARDED_BY(m_State) = 0; // thread id; 0 is none
    unsigned m_Holds KX_GUARDED_BY(m_State) = 0;
    unsigned m_Waiters KX_GUARDED_BY(m_State) = 0;
    unsigned m_KeptHolds KX_GUARDED_BY(m_State) = 0; // of m_Holds
    KxCommon::UniqueKernelObject m_Keeper KX_GUARDED_BY(m_State);
};

/// Holds the master lock for a scope.
using MasterGuard = KxCommon::Synchronize::ScopedLock<MasterLock>;

/// Shows that the outer (global) lock is held: only its guard makes one. Every change that a getter could see is made
/// under that lock, so whoever holds it may read, and no getter waits for the master lock.
class ReadToken
{
public:
    template <class LockType>
    explicit ReadToken(const KxCommon::Synchronize::ScopedLock<LockType>& /*outer*/) noexcept
    {
    }

private:
    friend class ChangeGuard;
    ReadToken() = default;
};

/// The entry to a change, to be made with the outer lock held, and the only way to keep the master lock beyond a call.
/// While another thread keeps the lock the outer lock is given back, so that the keeper and all readers go on.
class [[nodiscard]] KX_SCOPED_CAPABILITY ChangeGuard
{
public:
    /// Holds the master lock when it is made.
    ChangeGuard(MasterLock& lock, CLock& outerLock) noexcept KX_ACQUIRE(lock)
        : ChangeGuard(lock, outerLock, [](ReadToken) { return KXRULE_OK; })
    {
    }
    /// Holds it unless the precondition refuses the change, which is to be asked next.
    /// @param precondition  gets a ReadToken and returns KXRULE_OK or the code of the refusal. A refused change waits for
    ///                      nobody; after a wait the precondition is asked again.
    template <class Precondition>
    ChangeGuard(MasterLock& lock, CLock& outerLock, const Precondition& precondition) noexcept
        KX_EXCLUDES(lock) KX_NO_THREAD_SAFETY_ANALYSIS : m_Lock(lock)
    {
        do
            m_Refusal = precondition(ReadToken());
        while (m_Refusal == KXRULE_OK && WaitsForKeeper(outerLock));
        if (m_Refusal == KXRULE_OK)
            m_Lock.Lock();
    }
    ~ChangeGuard() KX_RELEASE()
    {
        if (m_Refusal == KXRULE_OK && !m_IsKept)
            m_Lock.Unlock();
    }
    ChangeGuard(const ChangeGuard&) = delete;
    ChangeGuard& operator=(const ChangeGuard&) = delete;

    /// False when the change is refused: then the lock is not held.
    explicit operator bool() const noexcept KX_TRY_ACQUIRE(true) { return m_Refusal == KXRULE_OK; }
    [[nodiscard]] int32_t Refusal() const noexcept { return m_Refusal; }

    /// The calling thread goes on owning the lock when the scope ends, until it finalises the library.
    void KeepLocked() noexcept
    {
        m_Lock.Keep();
        m_IsKept = true;
    }

private:
    /// False when no other thread keeps the lock; otherwise what was true before the wait may be so no longer.
    [[nodiscard]] bool WaitsForKeeper(CLock& outerLock) noexcept;

    MasterLock& m_Lock;
    int32_t m_Refusal = KXRULE_OK;
    bool m_IsKept = false;
};
