// The master lock; docs/threads.md.
#include "repository/MasterLock.h"

using StateGuard = KxCommon::Synchronize::ScopedLock<KxCommon::Synchronize::CriticalSection>;

namespace
{

constexpr DWORD kHolderCheck = 100; // milliseconds between two checks whether the holder still exists

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

// Waits for a change. Releases a lock that is held on by a thread that has ended.
void MasterLock::WaitForOwner() noexcept KX_NO_THREAD_SAFETY_ANALYSIS
{
    if (m_Holder && ::WaitForSingleObject(m_Holder.get(), 0) == WAIT_OBJECT_0)
    {
        m_HeldOn = 0;
        m_Holder.reset();
        Release(m_Holds);
        return;
    }
    ++m_Waiters;
    ::SleepConditionVariableCS(&m_Changed, m_State.Native(), m_HeldOn > 0 ? kHolderCheck : INFINITE);
    --m_Waiters;
}

void MasterLock::HoldOn() noexcept
{
    NoteGone(); // the holder's next call takes the global lock
    const StateGuard state(m_State);
    ++m_HeldOn;
    HANDLE thread = nullptr;
    if (!m_Holder && ::DuplicateHandle(::GetCurrentProcess(), ::GetCurrentThread(), ::GetCurrentProcess(), &thread,
                                       SYNCHRONIZE, FALSE, 0) != FALSE)
        m_Holder.reset(thread);
    WakeWaiters(); // from now on waiting threads must check whether the holder exists
}

void MasterLock::ReleaseHeldOn() noexcept
{
    const StateGuard state(m_State);
    if (m_HeldOn == 0)
        return;
    const unsigned holds = m_HeldOn;
    m_HeldOn = 0;
    m_Holder.reset();
    Release(holds);
    WakeWaiters(); // no longer held on, though its thread may still be inside a call
}

bool MasterLock::IsHeldOnByOther() const noexcept
{
    const StateGuard state(m_State);
    return m_HeldOn > 0 && IsOther();
}

void MasterLock::WaitWhileHeldOnByOther() noexcept
{
    const StateGuard state(m_State);
    while (m_HeldOn > 0 && IsOther())
        WaitForOwner();
}

void MasterLock::WaitOnceWhileHeldOnByOther() noexcept
{
    const StateGuard state(m_State);
    if (m_HeldOn > 0 && IsOther())
        WaitForOwner();
}

bool ChangeGuard::WaitsForHolder(CLock& outerLock) noexcept KX_NO_THREAD_SAFETY_ANALYSIS // releases the caller's hold
{
    if (!m_Lock.IsHeldOnByOther())
        return false;
    outerLock.Unlock();
    m_Lock.WaitWhileHeldOnByOther();
    outerLock.Lock();
    return true;
}
