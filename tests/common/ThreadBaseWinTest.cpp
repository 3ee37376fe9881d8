#include <atomic>
#include <functional>
#include <memory>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_ThreadBase.h"

namespace
{

using namespace KxCommon;
using AccessControl::DefSecAttr;

/// The code of the exception that work throws, 0 when it throws none.
uint32_t CodeOf(const std::function<void()>& work)
{
    try
    {
        work();
        return 0;
    }
    catch (Thread::Exception* e)
    {
        const std::unique_ptr<Exception::Base> owner(e);
        EXPECT_EQ(e->Detail(), 0u);
        EXPECT_STREQ(e->Source(), "..\\..\\..\\Common\\srclib\\KxComn_ThreadBase.cpp");
        return e->Code();
    }
}

/// Waits for the event that it is given; the exit code is 5.
unsigned __stdcall WaitFor(void* event)
{
    ::WaitForSingleObject(event, INFINITE);
    return 5;
}

class ThreadBase : public testing::Test
{
protected:
    UniqueKernelObject m_GoOn{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    Thread::Base m_Thread;
};

TEST_F(ThreadBase, WithoutAThread)
{
    EXPECT_EQ(CodeOf([&] { m_Thread.Create(DefSecAttr, nullptr, nullptr); }), 6u);
    EXPECT_FALSE(m_Thread.IsRunning());
    EXPECT_EQ(CodeOf([&] { m_Thread.Start(false, 0, THREAD_PRIORITY_NORMAL); }), 6u);
    EXPECT_EQ(CodeOf([&] { m_Thread.Wait(); }), 6u);
    EXPECT_EQ(CodeOf([&] { m_Thread.Close(); }), 6u);
    EXPECT_EQ(CodeOf([&] { m_Thread.Terminate(); }), 6u);
    EXPECT_EQ(m_Thread.DefaultTimeout(), 0xFFFFFFFFu);
}

TEST_F(ThreadBase, RunsToItsEnd)
{
    AccessControl::SecurityAttributes everyone;
    ASSERT_TRUE(everyone.AllowEveryone());
    m_Thread.Create(everyone, WaitFor, m_GoOn.get());
    DWORD flags = 0;
    EXPECT_TRUE(::GetHandleInformation(m_Thread.Handle(), &flags));
    EXPECT_EQ(flags, DWORD{HANDLE_FLAG_INHERIT}) << "the attributes count";
    EXPECT_EQ(m_Thread.ThreadId(), ::GetThreadId(m_Thread.Handle()));
    EXPECT_TRUE(m_Thread.IsRunning()) << "suspended";
    EXPECT_EQ(CodeOf([&] { m_Thread.Create(DefSecAttr, WaitFor, nullptr); }), uint32_t{ERROR_ALREADY_EXISTS});
    EXPECT_EQ(CodeOf([&] { m_Thread.Start(false, 0, 12345); }), 87u) << "no such priority";

    ::SetEvent(m_GoOn.get());
    EXPECT_EQ(CodeOf([&] { m_Thread.Wait(0); }), 258u) << "it is still suspended";
    m_Thread.Start(true, INFINITE, THREAD_PRIORITY_ABOVE_NORMAL);
    EXPECT_EQ(::GetThreadPriority(m_Thread.Handle()), THREAD_PRIORITY_ABOVE_NORMAL);
    EXPECT_FALSE(m_Thread.IsRunning());
    EXPECT_TRUE(m_Thread.Wait());
    DWORD exitCode = 0;
    EXPECT_TRUE(::GetExitCodeThread(m_Thread.Handle(), &exitCode));
    EXPECT_EQ(exitCode, 5u);

    m_Thread.SetDefaultTimeout(1);
    m_Thread.Close();
    EXPECT_EQ(m_Thread.Handle(), nullptr);
    EXPECT_EQ(m_Thread.ThreadId(), 0u);
    EXPECT_EQ(m_Thread.DefaultTimeout(), 0xFFFFFFFFu);
}

TEST_F(ThreadBase, WaitsAsLongAsItIsTold)
{
    m_Thread.Create(DefSecAttr, WaitFor, m_GoOn.get());
    DWORD flags = 0;
    EXPECT_TRUE(::GetHandleInformation(m_Thread.Handle(), &flags));
    EXPECT_EQ(flags, 0u) << "default security";
    EXPECT_EQ(CodeOf([&] { m_Thread.Start(true, 1, THREAD_PRIORITY_NORMAL); }), 258u);
    EXPECT_TRUE(m_Thread.IsRunning());
    m_Thread.SetDefaultTimeout(0);
    EXPECT_EQ(CodeOf([&] { m_Thread.Wait(); }), 258u);
    ::SetEvent(m_GoOn.get());
    EXPECT_TRUE(m_Thread.Wait(INFINITE));
}

TEST_F(ThreadBase, TerminatesAndLetsGo)
{
    for (const bool isStarted : {false, true})
    {
        m_Thread.Create(DefSecAttr, WaitFor, m_GoOn.get());
        if (isStarted)
            m_Thread.Start(false, std::nullopt, THREAD_PRIORITY_NORMAL);
        m_Thread.Terminate();
        EXPECT_TRUE(m_Thread.Wait(INFINITE));
        DWORD exitCode = 0;
        EXPECT_TRUE(::GetExitCodeThread(m_Thread.Handle(), &exitCode));
        EXPECT_EQ(exitCode, 995u);
        m_Thread.Close();
    }
}

// A handle that somebody else closed: every call's own error comes out, and Close resets all the same.
TEST_F(ThreadBase, SaysWhatTheSystemSaid)
{
    m_Thread.Create(DefSecAttr, WaitFor, m_GoOn.get());
    m_Thread.SetDefaultTimeout(1);
    ::TerminateThread(m_Thread.Handle(), 0);
    ::WaitForSingleObject(m_Thread.Handle(), INFINITE);
    ::CloseHandle(m_Thread.Handle());
    EXPECT_EQ(CodeOf([&] { (void)m_Thread.IsRunning(); }), 6u);
    EXPECT_EQ(CodeOf([&] { m_Thread.Wait(); }), 6u);
    EXPECT_EQ(CodeOf([&] { m_Thread.Start(false, 0, THREAD_PRIORITY_NORMAL); }), 6u);
    EXPECT_EQ(CodeOf([&] { m_Thread.Close(); }), 6u);
    EXPECT_EQ(m_Thread.Handle(), nullptr);
    EXPECT_EQ(m_Thread.ThreadId(), 0u);
    EXPECT_EQ(m_Thread.DefaultTimeout(), 0xFFFFFFFFu);
}

} // namespace
