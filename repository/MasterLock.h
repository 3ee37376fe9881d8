// The master lock, its guards, and what readers show instead. docs/threads.md, "Locks that outlive a call".
#pragma once

#include "api/include/KxPfwRule.h"
#include "common/srclib/KxComn_CriticalSection.h"
#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_LockRanks.h"

/// A re-entrant lock that can outlive the call that took it: after two failures of the master, the calling thread holds
/// on to it and is its holder. Other threads that want to change the store ask first and wait here, without the lock
/// that all exports share, so that the holder and all readers can go on. A thread begins to hold on only under the
/// global lock, so under that lock the answer of IsHeldOnByOther cannot become true. A system lock cannot be taken away
/// from a thread that has ended; this one can, since nobody else could release it.
class KX_CAPABILITY("mutex") MasterLock : private KxCommon::Synchronize::LockOrder
{
public:
    MasterLock() noexcept : LockOrder(KxCommon::Synchronize::LockRank::Master) {}
    MasterLock(const MasterLock&) = delete;
    MasterLock& operator=(const MasterLock&) = delete;

    void Lock() noexcept KX_ACQUIRE();
    void Unlock() noexcept KX_RELEASE();

    /// Makes the calling thread hold on to one of its holds beyond the call. Called with the global lock held.
    void HoldOn() noexcept;
    /// Releases all holds that are held on, whichever thread they belong to, and wakes the threads that wait. Called
    /// with the global lock held.
    void ReleaseHeldOn() noexcept;

    [[nodiscard]] bool IsHeldOnByOther() const noexcept;
    /// Returns when no other thread holds on to the lock. No lock that the holder needs may be held.
    void WaitWhileHeldOnByOther() noexcept;
    /// Returns after a moment, or at once if no other thread holds on to the lock.
    void WaitOnceWhileHeldOnByOther() noexcept;

private:
    [[nodiscard]] bool IsOther() const noexcept KX_REQUIRES(m_State) { return m_Owner != ::GetCurrentThreadId(); }
    void WaitForOwner() noexcept KX_REQUIRES(m_State);
    void Release(unsigned holds) noexcept KX_REQUIRES(m_State);
    void WakeWaiters() noexcept KX_REQUIRES(m_State);

    mutable KxCommon::Synchronize::CriticalSection m_State; // guards the members below; held briefly, taken last
    CONDITION_VARIABLE m_Changed = CONDITION_VARIABLE_INIT;
    DWORD m_Owner KX_GUARDED_BY(m_State) = 0; // thread id; 0 is none
    unsigned m_Holds KX_GUARDED_BY(m_State) = 0;
    unsigned m_Waiters KX_GUARDED_BY(m_State) = 0;
    unsigned m_HeldOn KX_GUARDED_BY(m_State) = 0; // of m_Holds
    KxCommon::UniqueKernelObject m_Holder KX_GUARDED_BY(m_State);
};

/// Holds the master lock for a scope.
using MasterGuard = KxCommon::Synchronize::ScopedLock<MasterLock>;

/// Shows that the outer (global) lock is held, since only a guard of it makes one. Every change that a getter could see
/// is made under that lock, so its holder may read, and no getter waits for the master lock.
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

/// Begins a change. Constructed with the outer lock held; the only way to hold on to the master lock beyond a call.
/// While another thread holds on to it, the outer lock is released, so that the holder and all readers can go on.
class [[nodiscard]] KX_SCOPED_CAPABILITY ChangeGuard
{
public:
    /// Holds the master lock when constructed.
    ChangeGuard(MasterLock& lock, CLock& outerLock) noexcept KX_ACQUIRE(lock)
        : ChangeGuard(lock, outerLock, [](ReadToken) { return KXRULE_OK; })
    {
    }
    /// Holds it unless the precondition refuses the change; ask operator bool next.
    /// @param precondition  takes a ReadToken and returns KXRULE_OK or the code of the refusal. A refused change does
    ///                      not wait; after a wait the precondition is evaluated again.
    template <class Precondition>
    ChangeGuard(MasterLock& lock, CLock& outerLock, const Precondition& precondition) noexcept
        KX_EXCLUDES(lock) KX_NO_THREAD_SAFETY_ANALYSIS : m_Lock(lock)
    {
        do
            m_Refusal = precondition(ReadToken());
        while (m_Refusal == KXRULE_OK && WaitsForHolder(outerLock));
        if (m_Refusal == KXRULE_OK)
            m_Lock.Lock();
    }
    ~ChangeGuard() KX_RELEASE()
    {
        if (m_Refusal == KXRULE_OK && !m_IsHeldOn)
            m_Lock.Unlock();
    }
    ChangeGuard(const ChangeGuard&) = delete;
    ChangeGuard& operator=(const ChangeGuard&) = delete;

    /// False if the change is refused; the lock is not held then.
    explicit operator bool() const noexcept KX_TRY_ACQUIRE(true) { return m_Refusal == KXRULE_OK; }
    [[nodiscard]] int32_t Refusal() const noexcept { return m_Refusal; }

    /// The calling thread goes on owning the lock when the scope ends, until it finalises the library.
    void HoldOn() noexcept
    {
        m_Lock.HoldOn();
        m_IsHeldOn = true;
    }

private:
    /// Waits if another thread holds on to the lock. True if it did: what was true before the wait may have changed.
    [[nodiscard]] bool WaitsForHolder(CLock& outerLock) noexcept;

    MasterLock& m_Lock;
    int32_t m_Refusal = KXRULE_OK;
    bool m_IsHeldOn = false;
};
