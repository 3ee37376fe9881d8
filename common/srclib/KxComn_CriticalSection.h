// Locks on a Windows critical section: re-entrant, in-process.
#pragma once

#include "common/srclib/KxComn_Lock.h"
#include "common/srclib/KxComn_LockOrder.h"
#include "common/srclib/KxComn_Windows.h"

namespace KxCommon::Synchronize
{

/// A critical section that lives as long as its owner.
class KX_CAPABILITY("mutex") CriticalSection : private LockOrder
{
public:
    explicit CriticalSection(LockRank rank = kInnermost) noexcept : LockOrder(rank)
    {
        ::InitializeCriticalSection(&m_Section);
    }
    ~CriticalSection() { ::DeleteCriticalSection(&m_Section); }
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    void Lock() noexcept KX_ACQUIRE()
    {
        NoteTaking();
        ::EnterCriticalSection(&m_Section);
    }
    void Unlock() noexcept KX_RELEASE()
    {
        NoteGone();
        ::LeaveCriticalSection(&m_Section);
    }
    /// For waiting on a condition variable.
    CRITICAL_SECTION* Native() noexcept { return &m_Section; }

private:
    CRITICAL_SECTION m_Section;
};

} // namespace KxCommon::Synchronize

/// The lock class of the exports, of the timer table and of the rule records.
class KX_CAPABILITY("mutex") CCriticalSectionLock final : public CLock
{
public:
    explicit CCriticalSectionLock(KxCommon::Synchronize::LockRank rank) noexcept : m_Section(rank) {}
    CCriticalSectionLock(const CCriticalSectionLock&) = delete;
    CCriticalSectionLock& operator=(const CCriticalSectionLock&) = delete;

    bool Lock() noexcept override KX_ACQUIRE()
    {
        m_Section.Lock();
        return true;
    }
    bool Unlock() noexcept override KX_RELEASE()
    {
        m_Section.Unlock();
        return true;
    }

private:
    KxCommon::Synchronize::CriticalSection m_Section;
};
