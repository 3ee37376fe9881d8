#include "persistence/PfwTimer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "common/srclib/KxComn_Handle.h"
#include "repository/RuleMaster.h"
#include "tests/standins/TraceRecorder.h"

namespace
{

constexpr uint32_t kNever = 0xFFFFFFFF;

// (GCC 12's std::counting_semaphore loses wake-ups where there are no futexes.)
struct Event
{
    KxCommon::UniqueKernelObject Handle{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    void Set() const { ::SetEvent(Handle.get()); }
    void Wait() const { EXPECT_EQ(::WaitForSingleObject(Handle.get(), 60000), WAIT_OBJECT_0); }
};

struct Caller
{
    std::atomic<int> Calls{0};
    Event Called;

    static void Call(void* context)
    {
        ++static_cast<Caller*>(context)->Calls;
        static_cast<Caller*>(context)->Called.Set();
    }
    static void CallAndThrow(void* context)
    {
        Call(context);
        throw std::runtime_error("from the callback");
    }
};

TEST(PfwTimerTest, CallsUntilStopped)
{
    Caller calling, throwing;
    CPfwTimer timer;
    ASSERT_TRUE(timer.Register(1, 2, Caller::Call, 1, &calling, true));
    ASSERT_TRUE(timer.Register(2, 1, Caller::CallAndThrow, 1, &throwing, true));
    for (int i = 0; i < 3; ++i)
        calling.Called.Wait();
    EXPECT_TRUE(timer.Unregister(1, 2));
    const int calls = calling.Calls;
    for (int i = throwing.Calls + 2; throwing.Calls < i;) // the other goes on
        throwing.Called.Wait();
    EXPECT_EQ(calling.Calls, calls);
    EXPECT_TRUE(timer.Register(1, 2, Caller::Call, kNever, &calling, true)); // the key is free again
}

TEST(PfwTimerTest, KeysAndLines)
{
    Caller once, never;
    TraceRecorder trace;
    {
        CPfwTimer timer;
        EXPECT_TRUE(timer.Register(0, 7, Caller::Call, 0, &once, false));
        once.Called.Wait();
        EXPECT_FALSE(timer.Register(0, 7, Caller::Call, 0, &never, false)); // also when the thread has ended
        EXPECT_FALSE(timer.Unregister(7, 0));
        EXPECT_TRUE(timer.Unregister(0, 7));
        EXPECT_TRUE(timer.Register(0, 0xFFFFFFAE, Caller::Call, kNever, &never, true));
    }
    EXPECT_EQ(once.Calls, 1);
    EXPECT_EQ(never.Calls, 0);
    std::vector<std::string> lines = trace.Take();
    for (std::string& line : lines)
        if (const size_t at = line.find('(') + 1; line.find_first_not_of("0123456789ABCDEF", at) == at + 8)
            line.replace(at, 8, "#");
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "!!! The specified key is already registered: ProcessID(0x00000000) Index(0x00000007)",
                         "@@@ The specified key has already deleted: ProcessID(0x00000007) Index(0x00000000)",
                         "@@@ CloseHandle succeeded (#)", "@@@ CloseHandle succeeded (#)", "@@@ ~CPfwTimer Enter",
                         "@@@ CloseHandle succeeded (#)", "@@@ CloseHandle succeeded (#)", "@@@ ~CPfwTimer Return"}));
}

TEST(PfwTimerTest, TheStoresCallbackSaysThatItWasCalled)
{
    TraceRecorder trace;
    CRuleMaster::CallbackFuncWriteTimeOut(nullptr);
    EXPECT_EQ(trace.Take(),
              (std::vector<std::string>{
                  "@@@ ################ CRuleMaster::CallbackFuncWriteTimeOut Enter ####################",
                  "@@@ ++++++++++++++++ CRuleMaster::CallbackFuncWriteTimeOut Leave +++++++++++++++++++++"}));
}

TEST(PfwTimerTest, UnregisterWaitsForACallInProgress)
{
    struct Call
    {
        Event Entered, Release;
        std::atomic<bool> IsOver{false};
    } call;
    const auto callback = [](void* context)
    {
        Call& self = *static_cast<Call*>(context);
        self.Entered.Set();
        self.Release.Wait();
        self.IsOver = true;
    };
    CPfwTimer timer;
    ASSERT_TRUE(timer.Register(0, 1, callback, 0, &call, false));
    call.Entered.Wait();
    std::thread releasing([&] { call.Release.Set(); });
    EXPECT_TRUE(timer.Unregister(0, 1));
    EXPECT_TRUE(call.IsOver);
    releasing.join();
}

} // namespace
