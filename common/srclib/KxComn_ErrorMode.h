// No message boxes from the system.
#pragma once

#include "common/srclib/KxComn_Windows.h"

namespace KxCommon
{

/// While this object exists, calls of its thread fail with an error code. Otherwise the system may first ask the user
/// to insert a disk or to accept a damaged library, and since a service has no user, the call would never return.
class [[nodiscard]] QuietErrors
{
public:
    QuietErrors() noexcept
    {
        ::SetThreadErrorMode(::GetThreadErrorMode() | SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &m_Before);
    }
    ~QuietErrors() { ::SetThreadErrorMode(m_Before, nullptr); } // leaves GetLastError alone
    QuietErrors(const QuietErrors&) = delete;
    QuietErrors& operator=(const QuietErrors&) = delete;

private:
    DWORD m_Before = 0;
};

} // namespace KxCommon
