#include "common/srclib/KxComn_ThreadBase.h"

#include <gtest/gtest.h>

#include "tests/support/Thrown.h"

namespace
{

using namespace KxCommon;
using AccessControl::DefSecAttr;

uint32_t ThreadCode(const auto& work)
{
    return Thrown<Thread::Exception>("ThreadBase", work);
}

unsigned __stdcall WaitFor(void* event)
{
    ::WaitForSingleObject(event, INFINITE);
    return 5;
}

void ExpectNone(Thread::Base& thread)
{
    EXPECT_TRUE(thread.Handle() == nullptr && thread.ThreadId() == 0 && !thread.IsRunning());
    EXPECT_EQ(thread.DefaultTimeout(), 0xFFFFFFFFu);
    EXPECT_EQ(ThreadCode([&] { thread.Start(false, 0, THREAD_PRIORITY_NORMAL); }), 6u);
    EXPECT_EQ(ThreadCode([&] { thread.Wait(); }), 6u);
    EXPECT_EQ(ThreadCode([&] { thread.Close(); }), 6u);
    EXPECT_EQ(ThreadCode([&] { thread.Terminate(); }), 6u);
    EXPECT_EQ(ThreadCode([&] { thread.Create(DefSecAttr, nullptr, nullptr); }), 6u);
}

// One thread runs to its end. Another is terminated, and its handle closed elsewhere: each call reports its own error,
// and Close resets all the same.
TEST(ThreadBase, RunsWaitsAndTerminates)
{
    const UniqueKernelObject goOn(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    AccessControl::SecurityAttributes everyone;
    ASSERT_TRUE(everyone.AllowEveryone());
    Thread::Base thread;
    ExpectNone(thread);
    thread.Create(everyone, WaitFor, goOn.get());
    DWORD flags = 9, exitCode = 0;
    EXPECT_TRUE(::GetHandleInformation(thread.Handle(), &flags) && flags == 1) << "inherited";
    EXPECT_EQ(thread.ThreadId(), ::GetThreadId(thread.Handle()));
    EXPECT_EQ(ThreadCode([&] { thread.Create(DefSecAttr, WaitFor, nullptr); }), 183u);
    EXPECT_EQ(ThreadCode([&] { thread.Start(false, 0, 12345); }), 87u) << "no such priority";
    thread.SetDefaultTimeout(0);
    ::SetEvent(goOn.get());
    EXPECT_EQ(ThreadCode([&] { thread.Wait(); }), 258u) << "it is still suspended";
    EXPECT_TRUE(thread.IsRunning());
    thread.Start(true, INFINITE, THREAD_PRIORITY_ABOVE_NORMAL);
    EXPECT_EQ(::GetThreadPriority(thread.Handle()), THREAD_PRIORITY_ABOVE_NORMAL);
    EXPECT_TRUE(::GetExitCodeThread(thread.Handle(), &exitCode) && exitCode == 5 && !thread.IsRunning());
    thread.Close();
    ExpectNone(thread);

    ::ResetEvent(goOn.get());
    thread.Create(DefSecAttr, WaitFor, goOn.get());
    EXPECT_EQ(ThreadCode([&] { thread.Start(true, 1, THREAD_PRIORITY_NORMAL); }), 258u);
    thread.Terminate();
    EXPECT_TRUE(thread.Wait(INFINITE));
    EXPECT_TRUE(::GetExitCodeThread(thread.Handle(), &exitCode) && exitCode == 995);
    ::CloseHandle(thread.Handle());
    EXPECT_EQ(ThreadCode([&] { (void)thread.IsRunning(); }), 6u);
    EXPECT_EQ(ThreadCode([&] { thread.Close(); }), 6u);
    ExpectNone(thread);
}

} // namespace
