// With whose rights the library acts.
#pragma once

#include <cstdlib>

#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_Windows.h"

namespace KxCommon
{

/// While this object exists the calling thread acts as its process, even if it impersonates a client. Otherwise the
/// client's drive letters would determine which library a service loads, and the client would own its log. False if the
/// system does not say whom the thread impersonates, or cannot end it (for an anonymous client): then nothing may be
/// opened.
class [[nodiscard]] OwnIdentity
{
public:
    OwnIdentity() noexcept
    {
        const DWORD lastError = ::GetLastError();
        HANDLE token = nullptr;
        if (!::OpenThreadToken(::GetCurrentThread(), TOKEN_IMPERSONATE, TRUE, &token))
            m_IsOwn = ::GetLastError() == ERROR_NO_TOKEN;
        else if ((m_IsOwn = ::SetThreadToken(nullptr, nullptr) != FALSE))
            m_Client.reset(token);
        else
            ::CloseHandle(token);
        ::SetLastError(lastError);
    }
    ~OwnIdentity()
    {
        // Going on with the process's rights while the caller relies on the client's would be worse than ending.
        if (m_Client && !::SetThreadToken(nullptr, m_Client.get()))
            std::abort();
    }
    OwnIdentity(const OwnIdentity&) = delete;
    OwnIdentity& operator=(const OwnIdentity&) = delete;

    explicit operator bool() const noexcept { return m_IsOwn; }

private:
    UniqueKernelObject m_Client;
    bool m_IsOwn = false;
};

} // namespace KxCommon
