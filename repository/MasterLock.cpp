// The bookkeeping of kept locks; docs/threads.md.
#include "repository/MasterLock.h"

namespace
{

class SharedState // the guard of MasterLock's two fields
{
public:
    explicit SharedState(SRWLOCK& lock) noexcept : m_Lock(lock) { ::AcquireSRWLockExclusive(&m_Lock); }
    ~SharedState() { ::ReleaseSRWLockExclusive(&m_Lock); }
    SharedState(const SharedState&) = delete;
    SharedState& operator=(const SharedState&) = delete;

private:
    SRWLOCK& m_Lock;
};

} // namespace

void MasterLock::Keep() noexcept
{
    const SharedState state(m_StateLock);
    m_Keeper = ::GetCurrentThreadId(); // only the owner of the critical section gets here, so there is no other keeper
    ++m_KeptHolds;
}

void MasterLock::ReleaseKept() noexcept KX_NO_THREAD_SAFETY_ANALYSIS
{
    unsigned holds = 0;
    {
        const SharedState state(m_StateLock);
        if (m_Keeper != ::GetCurrentThreadId())
            return;
        m_Keeper = 0;
        holds = m_KeptHolds;
        m_KeptHolds = 0;
    }
    for (; holds > 0; --holds)
        m_Section.Unlock();
    ::WakeAllConditionVariable(&m_Released);
}

bool MasterLock::IsKeptByOther() noexcept
{
    const SharedState state(m_StateLock);
    return m_Keeper != 0 && m_Keeper != ::GetCurrentThreadId();
}

void MasterLock::WaitWhileKeptByOther() noexcept
{
    const SharedState state(m_StateLock);
    while (m_Keeper != 0 && m_Keeper != ::GetCurrentThreadId())
        ::SleepConditionVariableSRW(&m_Released, &m_StateLock, INFINITE, 0);
}
