// No message boxes from the system.
#pragma once

#include "common/srclib/KxComn_Windows.h"

namespace KxCommon
{

/// While this lives, what fails in the calling thread fails with an error code. Without it the system may first ask the
/// user to insert a disk or to put up with a damaged library, and a service has no user: the call would never return.
class [[nodiscard]] QuietErrors
{
public:
    QuietErrors() noexcept
    {
        ::SetThreadErrorMode(::GetThreadErrorMode() | SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &m_Before);
    }
    ~QuietErrors() { ::SetThreadErrorMode(m_Before, nullptr); } // touches no GetLastError
    QuietErrors(const QuietErrors&) = delete;
    QuietErrors& operator=(const QuietErrors&) = delete;

private:
    DWORD m_Before = 0;
};

} // namespace KxCommon
