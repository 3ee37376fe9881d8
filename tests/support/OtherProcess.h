// Runs a disabled test of this program in a separate process. Windows.
#pragma once

#include <string>

#include "common/srclib/KxComn_Handle.h"

class OtherProcess
{
public:
    /// Starts the test that is called "DISABLED_" and name, with this process's environment.
    explicit OtherProcess(const std::wstring& name)
    {
        wchar_t self[MAX_PATH] = {};
        ::GetModuleFileNameW(nullptr, self, MAX_PATH);
        std::wstring command = L"tests --gtest_also_run_disabled_tests --gtest_filter=*DISABLED_" + name;
        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES; // none: what it prints is of no interest
        PROCESS_INFORMATION process = {};
        ::CreateProcessW(self, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process);
        m_Process.reset(process.hProcess);
        KxCommon::UniqueKernelObject(process.hThread).reset();
    }
    /// Waits for its end. A process that hangs is ended with 258.
    [[nodiscard]] DWORD ExitCode() const
    {
        if (::WaitForSingleObject(m_Process.get(), 60000) != WAIT_OBJECT_0)
            ::TerminateProcess(m_Process.get(), 258);
        DWORD code = 259;
        ::GetExitCodeProcess(m_Process.get(), &code);
        return code;
    }

private:
    KxCommon::UniqueKernelObject m_Process;
};
