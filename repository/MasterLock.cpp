// The master lock; docs/threads.md.
#include "repository/MasterLock.h"

using StateGuard = KxCommon::Synchronize::ScopedLock<KxCommon::Synchronize::CriticalSection>;

namespace
{

constexpr DWORD kKeeperCheck = 100; // milliseconds between two looks whether the keeper is still there

} // namespace

void MasterLock::Lock() noexcept KX_NO_THREAD_SAFETY_ANALYSIS
{
    NoteTaking();
    const StateGuard state(m_State);
    while (m_Owner != 0 && IsOther())
        WaitForOwner();
    m_Owner = ::GetCurrentThreadId();
    ++m_Holds;
}

void MasterLock::Unlock() noexcept KX_NO_THREAD_SAFETY_ANALYSIS
{
    NoteGone();
    const StateGuard state(m_State);
    Release(1);
}

void MasterLock::Release(unsigned holds) noexcept
{
    m_Holds -= holds;
    if (m_Holds > 0)
        return;
    m_Owner = 0;
    WakeWaiters();
}

void MasterLock::WakeWaiters() noexcept
{
    if (m_Waiters > 0)
        ::WakeAllConditionVariable(&m_Changed);
}

// Waits for a change. A kept lock whose thread has ended is given back in its place.
void MasterLock::WaitForOwner() noexcept KX_NO_THREAD_SAFETY_ANALYSIS
{
    if (m_Keeper && ::WaitForSingleObject(m_Keeper.get(), 0) == WAIT_OBJECT_0)
    {
        m_KeptHolds = 0;
        m_Keeper.reset();
        Release(m_Holds);
        return;
    }
    ++m_Waiters;
    ::SleepConditionVariableCS(&m_Changed, m_State.Native(), m_KeptHolds > 0 ? kKeeperCheck : INFINITE);
    --m_Waiters;
}

void MasterLock::Keep() noexcept
{
    NoteGone(); // the keeper's next call takes the global lock
    const StateGuard state(m_State);
    ++m_KeptHolds;
    HANDLE thread = nullptr;
    if (!m_Keeper && ::DuplicateHandle(::GetCurrentProcess(), ::GetCurrentThread(), ::GetCurrentProcess(), &thread,
                                       SYNCHRONIZE, FALSE, 0) != FALSE)
        m_Keeper.reset(thread);
    WakeWaiters(); // whoever waits must look after the keeper from now on
}

void MasterLock::ReleaseKept() noexcept
{
    const StateGuard state(m_State);
    if (m_KeptHolds == 0)
        return;
    const unsigned holds = m_KeptHolds;
    m_KeptHolds = 0;
    m_Keeper.reset();
    Release(holds);
    WakeWaiters(); // no longer kept, though its keeper may still hold it
}

bool MasterLock::IsKeptByOther() const noexcept
{
    const StateGuard state(m_State);
    return m_KeptHolds > 0 && IsOther();
}

void MasterLock::WaitWhileKeptByOther() noexcept
{
    const StateGuard state(m_State);
    while (m_KeptHolds > 0 && IsOther())
        WaitForOwner();
}

void MasterLock::WaitOnceWhileKeptByOther() noexcept
{
    const StateGuard state(m_State);
    if (m_KeptHolds > 0 && IsOther())
        WaitForOwner();
}

bool ChangeGuard::WaitsForKeeper(CLock& outerLock) noexcept KX_NO_THREAD_SAFETY_ANALYSIS // gives the caller's hold back
{
    if (!m_Lock.IsKeptByOther())
        return false;
    outerLock.Unlock();
    m_Lock.WaitWhileKeptByOther();
    outerLock.Lock();
    return true;
}
