// The owner of one worker thread.
#include "common/srclib/KxComn_ThreadBase.h"

#include <process.h>

namespace KxCommon::Thread
{

namespace
{

[[noreturn]] void Throw(DWORD code)
{
    throw new Exception(code);
}

void Check(BOOL isDone)
{
    if (isDone == FALSE)
        Throw(::GetLastError());
}

} // namespace

void Base::RequireValid() const
{
    if (!IsValid())
        Throw(ERROR_INVALID_HANDLE);
}

void Base::Create(const AccessControl::SecurityAttributes& attributes, Routine routine, void* argument)
{
    if (routine == nullptr)
        Throw(ERROR_INVALID_HANDLE);
    if (IsValid())
        Throw(ERROR_ALREADY_EXISTS); // closing it here would lose a thread that nobody asked to lose
    SECURITY_ATTRIBUTES* const record =
        attributes.State() == AccessControl::SecurityAttributes::kStateNone ? nullptr : attributes.Record();
    unsigned id = 0;
    const uintptr_t handle = ::_beginthreadex(record, 0, routine, argument, CREATE_SUSPENDED, &id);
    if (handle == 0)
        Throw(ERROR_SERVICE_NO_THREAD);
    m_Handle.reset(reinterpret_cast<HANDLE>(handle));
    m_ThreadId = id;
}

void Base::Start(bool isWaiting, std::optional<uint32_t> timeout, int priority)
{
    RequireValid();
    Check(::SetThreadPriority(m_Handle.get(), priority));
    if (::ResumeThread(m_Handle.get()) == static_cast<DWORD>(-1))
        Throw(::GetLastError());
    if (isWaiting)
        Wait(timeout);
}

bool Base::Wait(std::optional<uint32_t> timeout)
{
    RequireValid();
    const DWORD result = ::WaitForSingleObject(m_Handle.get(), timeout.value_or(m_DefaultTimeout));
    if (result == WAIT_FAILED)
        Throw(::GetLastError());
    if (result != WAIT_OBJECT_0)
        Throw(result); // WAIT_TIMEOUT and WAIT_ABANDONED are the codes to throw
    return true;
}

bool Base::IsRunning() const
{
    if (!IsValid())
        return false;
    DWORD exitCode = 0;
    Check(::GetExitCodeThread(m_Handle.get(), &exitCode));
    return exitCode == STILL_ACTIVE;
}

void Base::Terminate()
{
    Check(::TerminateThread(m_Handle.get(), ERROR_OPERATION_ABORTED));
}

void Base::Close()
{
    RequireValid();
    m_ThreadId = 0;
    m_DefaultTimeout = INFINITE;
    Check(m_Handle.reset());
}

} // namespace KxCommon::Thread
