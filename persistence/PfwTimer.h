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
    /// Stops and removes every entry, but does nothing while the process is ending: the threads have ended by then.
    ~CPfwTimer();

    /// Starts calling callback every interval milliseconds, counted from the end of one call; only once unless
    /// periodic. 0xFFFFFFFF never fires. While an entry exists, the module stays loaded.
    /// @return false if the key is in use or the event or the thread cannot be created; traced
    bool Register(uint32_t processId, uint32_t index, Callback callback, uint32_t interval, void* context,
                  bool periodic);
    /// Stops an entry and waits for a call in progress: afterwards no call runs or will run. Not to be called from the
    /// entry's own callback, nor under a lock that the callback takes.
    /// @return false if no entry has the key
    bool Unregister(uint32_t processId, uint32_t index);

private:
    struct Entry;
    CCriticalSectionLock m_Lock{KxCommon::Synchronize::LockRank::TimerTable};
    std::map<uint64_t, std::unique_ptr<Entry>> m_Table KX_GUARDED_BY(m_Lock);
};
