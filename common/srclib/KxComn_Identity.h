// Whose rights count.
#pragma once

#include <cstdlib>

#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_Windows.h"

namespace KxCommon
{

/// While this lives the calling thread acts as its process, also when its caller has it impersonate a client. Otherwise
/// the client's drive letters would say which library a service loads, and the client would own its log. False when the
/// system does not tell or does not let go of the client (an anonymous one): then nothing may be opened.
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
        // Going on with the process's rights where the caller counts on the client's would be worse than an end.
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
