// CPfwTimer: periodic callbacks, each on a thread of its own.
#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "common/srclib/KxComn_CriticalSection.h"
#include "common/srclib/KxComn_LockRanks.h"

class CPfwTimer
{
public:
    using Callback = void (*)(void* context);

    CPfwTimer();
    CPfwTimer(const CPfwTimer&) = delete;
    CPfwTimer& operator=(const CPfwTimer&) = delete;
    /// Stops and removes every entry; nothing while the process is ending, when the threads are gone already.
    ~CPfwTimer();

    /// Starts calling callback every interval milliseconds, counted from the end of one call to the next; once only
    /// unless periodic. 0xFFFFFFFF never fires. While an entry exists the module stays loaded.
    /// @return false when the key is taken or the event or the thread cannot be made; traced
    bool Register(uint32_t processId, uint32_t index, Callback callback, uint32_t interval, void* context,
                  bool periodic);
    /// Stops an entry and waits for a call in progress: afterwards none runs or will run. Not to be called from the
    /// entry's own callback, nor under a lock that the callback takes.
    /// @return false when no entry has the key
    bool Unregister(uint32_t processId, uint32_t index);

private:
    struct Entry;
    CCriticalSectionLock m_Lock{KxCommon::Synchronize::LockRank::TimerTable};
    std::map<uint64_t, std::unique_ptr<Entry>> m_Table KX_GUARDED_BY(m_Lock);
};
