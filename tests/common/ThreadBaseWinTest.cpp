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
        EXPECT_STREQ(e->Source(), "..\\..\\..\\Common\\srclib\\KxComn_ThreadBase.cpp");
        return e->Code();
    }
}

unsigned __stdcall WaitFor(void* event)
{
    ::WaitForSingleObject(event, INFINITE);
    return 5;
}

class ThreadBase : public testing::Test
{
protected:
    void ExpectNoThread()
    {
        EXPECT_TRUE(m_Thread.Handle() == nullptr && m_Thread.ThreadId() == 0);
        EXPECT_EQ(m_Thread.DefaultTimeout(), 0xFFFFFFFFu);
        EXPECT_FALSE(m_Thread.IsRunning());
        EXPECT_EQ(CodeOf([&] { m_Thread.Start(false, 0, THREAD_PRIORITY_NORMAL); }), 6u);
        EXPECT_EQ(CodeOf([&] { m_Thread.Wait(); }), 6u);
        EXPECT_EQ(CodeOf([&] { m_Thread.Close(); }), 6u);
        EXPECT_EQ(CodeOf([&] { m_Thread.Terminate(); }), 6u);
    }

    UniqueKernelObject m_GoOn{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    Thread::Base m_Thread;
};

TEST_F(ThreadBase, RunsToItsEnd)
{
    ExpectNoThread();
    EXPECT_EQ(CodeOf([&] { m_Thread.Create(DefSecAttr, nullptr, nullptr); }), 6u);
    AccessControl::SecurityAttributes everyone;
    ASSERT_TRUE(everyone.AllowEveryone());
    m_Thread.Create(everyone, WaitFor, m_GoOn.get());
    DWORD value = 0;
    EXPECT_TRUE(::GetHandleInformation(m_Thread.Handle(), &value) && value == HANDLE_FLAG_INHERIT);
    EXPECT_EQ(m_Thread.ThreadId(), ::GetThreadId(m_Thread.Handle()));
    EXPECT_EQ(CodeOf([&] { m_Thread.Create(DefSecAttr, WaitFor, nullptr); }), uint32_t{ERROR_ALREADY_EXISTS});
    ::SetEvent(m_GoOn.get());
    EXPECT_EQ(CodeOf([&] { m_Thread.Start(false, 0, 12345); }), 87u) << "no such priority";
    EXPECT_EQ(CodeOf([&] { m_Thread.Wait(0); }), 258u) << "it is still suspended";
    EXPECT_TRUE(m_Thread.IsRunning());
    m_Thread.Start(true, INFINITE, THREAD_PRIORITY_ABOVE_NORMAL);
    EXPECT_EQ(::GetThreadPriority(m_Thread.Handle()), THREAD_PRIORITY_ABOVE_NORMAL);
    EXPECT_FALSE(m_Thread.IsRunning());
    EXPECT_TRUE(::GetExitCodeThread(m_Thread.Handle(), &value) && value == 5);
    m_Thread.SetDefaultTimeout(1);
    m_Thread.Close();
    ExpectNoThread();
}

// In the end somebody else closes the handle: each call's own error comes out, and Close resets all the same.
TEST_F(ThreadBase, WaitsAsToldAndTerminates)
{
    for (const bool isStarted : {false, true})
    {
        m_Thread.Create(DefSecAttr, WaitFor, m_GoOn.get());
        DWORD value = 0;
        EXPECT_TRUE(::GetHandleInformation(m_Thread.Handle(), &value) && value == 0) << "default security";
        EXPECT_TRUE(!isStarted || CodeOf([&] { m_Thread.Start(true, 1, THREAD_PRIORITY_NORMAL); }) == 258u);
        m_Thread.SetDefaultTimeout(0);
        EXPECT_EQ(CodeOf([&] { m_Thread.Wait(); }), 258u);
        m_Thread.Terminate();
        EXPECT_TRUE(m_Thread.Wait(INFINITE));
        EXPECT_TRUE(::GetExitCodeThread(m_Thread.Handle(), &value) && value == 995);
        ::CloseHandle(m_Thread.Handle());
        EXPECT_EQ(CodeOf([&] { (void)m_Thread.IsRunning(); }), 6u);
        EXPECT_EQ(CodeOf([&] { m_Thread.Close(); }), 6u);
        ExpectNoThread();
    }
}

} // namespace
