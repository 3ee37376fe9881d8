// Runs a disabled test of this program in a separate process. Windows.
#pragma once

#include <string>

#include "common/srclib/KxComn_Handle.h"

/// Runs the test that is called "DISABLED_" and name, with this process's environment. Returns the exit code of the
/// process; one that hangs is ended with 258.
[[nodiscard]] inline DWORD ExitCodeOfOtherProcess(const std::wstring& name)
{
    for (const wchar_t* const part : {L"GTEST_TOTAL_SHARDS", L"GTEST_SHARD_INDEX"})
        ::SetEnvironmentVariableW(part, nullptr); // this process has its part of the tests; that one runs its test
    wchar_t self[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring command = L"tests --gtest_also_run_disabled_tests --gtest_filter=*DISABLED_" + name;
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES; // none: what it prints is of no interest
    PROCESS_INFORMATION process = {};
    ::CreateProcessW(self, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process);
    const KxCommon::UniqueKernelObject owner(process.hProcess), thread(process.hThread);
    if (::WaitForSingleObject(process.hProcess, 60000) != WAIT_OBJECT_0)
        ::TerminateProcess(process.hProcess, 258);
    DWORD code = 259;
    ::GetExitCodeProcess(process.hProcess, &code);
    return code;
}
