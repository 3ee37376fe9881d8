// The order of locks, as debug builds assert it. tests/api/LifecycleTest.cpp tests what holding on means to callers.
#include "repository/MasterLock.h"

#include <gtest/gtest.h>

#ifndef NDEBUG

using KxCommon::Synchronize::CriticalSection;
using KxCommon::Synchronize::LockRank;
using KxCommon::Synchronize::ScopedLock;

namespace
{

void TakeBoth(CriticalSection& first, CriticalSection& second)
{
    const ScopedLock<CriticalSection> outer(first);
    const ScopedLock<CriticalSection> inner(second);
}

} // namespace

TEST(LockOrderDeathTest, AWrongOrderEndsTheProgram)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CriticalSection global(LockRank::Global), timer(LockRank::TimerTable), record(LockRank::Record),
        other(LockRank::Record);
    MasterLock master;
    TakeBoth(global, record);
    TakeBoth(record, record);
    EXPECT_DEATH(TakeBoth(record, global), "out of order");
    EXPECT_DEATH(TakeBoth(record, other), "out of order");
    {
        const ScopedLock<CriticalSection> outer(global);
        const MasterGuard guard(master), again(master);
        const ScopedLock<CriticalSection> inner(record);
        const MasterGuard held(master);
        EXPECT_DEATH(timer.Lock(), "out of order") << "whose thread may wait for the master lock";
    }
    timer.Lock(); // nothing is held any more
    timer.Unlock();
}

TEST(LockOrderDeathTest, ALockThatIsHeldOnBindsNobodyAHeldOneDoes)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CCriticalSectionLock global(LockRank::Global);
    MasterLock master;
    {
        const ScopedLock<CCriticalSectionLock> outer(global);
        ChangeGuard guard(master, global);
        guard.HoldOn();
    }
    {
        const ScopedLock<CCriticalSectionLock> outer(global);
        const MasterGuard guard(master);
    }
    {
        const MasterGuard guard(master);
        EXPECT_DEATH(global.Lock(), "out of order");
        master.ReleaseHeldOn();
        EXPECT_DEATH(global.Lock(), "out of order");
    }
    global.Lock();
    global.Unlock();
}

#endif
