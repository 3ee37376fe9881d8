// The owner of one worker thread.
#pragma once

#include <cstdint>
#include <optional>

#include "common/srclib/KxComn_Exception.h"
#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_SecurityAttributes.h"
#include "common/srclib/KxComn_Windows.h"

namespace KxCommon::Thread
{

class Exception final : public KxCommon::Exception::Base
{
public:
    explicit Exception(uint32_t code) noexcept
        : KxCommon::Exception::Base(code, "..\\..\\..\\Common\\srclib\\KxComn_ThreadBase.cpp")
    {
    }
};

/// Creates a thread suspended, starts it, waits for it, ends and closes it. Every failure is thrown as
/// Thread::Exception by pointer. An operation that needs a thread throws ERROR_INVALID_HANDLE (6) without one.
/// Destruction closes the handle and lets the thread go on. Only one thread at a time may use an object.
class Base
{
public:
    using Routine = unsigned(__stdcall*)(void* argument);

    /// Default stack size. Throws ERROR_INVALID_HANDLE (6) for a null routine, ERROR_ALREADY_EXISTS (183) while a
    /// thread is owned, ERROR_SERVICE_NO_THREAD (1054) when the system refuses.
    void Create(const AccessControl::SecurityAttributes& attributes, Routine routine, void* argument);

    /// Sets the priority and lets the thread run; with isWaiting, waits as Wait does. A thread whose priority cannot be
    /// set stays suspended.
    void Start(bool isWaiting, std::optional<uint32_t> timeout, int priority);

    /// @param timeout  milliseconds; without one, the default timeout
    /// @return true when the thread has ended; throws WAIT_TIMEOUT (258), WAIT_ABANDONED (128) or the wait's error
    bool Wait(std::optional<uint32_t> timeout = std::nullopt);

    /// False when no thread is owned.
    [[nodiscard]] bool IsRunning() const;

    /// Ends the thread with exit code ERROR_OPERATION_ABORTED (995), wherever it is and whatever locks it holds.
    void Terminate();

    /// Afterwards no thread is owned and the default timeout is infinite, even if closing fails.
    void Close();

    void SetDefaultTimeout(uint32_t milliseconds) noexcept { m_DefaultTimeout = milliseconds; }
    [[nodiscard]] uint32_t DefaultTimeout() const noexcept { return m_DefaultTimeout; }
    [[nodiscard]] HANDLE Handle() const noexcept { return m_Handle.get(); }
    [[nodiscard]] uint32_t ThreadId() const noexcept { return m_ThreadId; }

private:
    [[nodiscard]] bool IsValid() const noexcept { return m_Handle && m_ThreadId != 0; }
    void RequireValid() const;

    UniqueKernelObject m_Handle;
    uint32_t m_ThreadId = 0;
    uint32_t m_DefaultTimeout = INFINITE;
};

} // namespace KxCommon::Thread
