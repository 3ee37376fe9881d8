// Runs kxrule.exe as a user would: in a directory of its own, with what it prints and its exit code.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_Handle.h"
#include "tests/support/TempDir.h"

class KxruleTest : public testing::Test
{
protected:
    struct Run
    {
        int Code = -1;
        std::string Out;
        std::string Error;
    };

    static std::filesystem::path OwnDirectory()
    {
        wchar_t path[MAX_PATH] = {};
        ::GetModuleFileNameW(nullptr, path, MAX_PATH);
        return std::filesystem::path(path).parent_path();
    }
    static std::filesystem::path Example(const char* name) { return std::filesystem::path("examples") / name; }

    /// On the rule directory of this test. Other tests may have the library initialised meanwhile, hence --force.
    Run Kxrule(const std::vector<std::wstring>& arguments)
    {
        std::vector<std::wstring> all = {L"--force", L"--dir", RuleDirectory().wstring()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return Start(all);
    }
    Run Start(const std::vector<std::wstring>& arguments)
    {
        std::wstring line = Quoted((OwnDirectory() / "kxrule.exe").wstring());
        for (const std::wstring& argument : arguments)
            line += L" " + Quoted(argument);
        SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
        const auto create = [&](const char* name)
        {
            return KxCommon::UniqueFile(::CreateFileW((m_Directory / name).c_str(), GENERIC_READ | GENERIC_WRITE,
                                                      FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit, CREATE_ALWAYS, 0,
                                                      nullptr));
        };
        Run run;
        {
            const KxCommon::UniqueFile out = create("stdout");
            const KxCommon::UniqueFile error = create("stderr");
            STARTUPINFOW start{};
            start.cb = sizeof start;
            start.dwFlags = STARTF_USESTDHANDLES;
            start.hStdOutput = out.get();
            start.hStdError = error.get();
            PROCESS_INFORMATION process{};
            if (::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &start, &process) ==
                FALSE)
            {
                ADD_FAILURE() << "kxrule.exe cannot be started: " << ::GetLastError();
                return run;
            }
            const KxCommon::UniqueKernelObject thread(process.hThread);
            const KxCommon::UniqueKernelObject owner(process.hProcess);
            ::WaitForSingleObject(process.hProcess, INFINITE);
            DWORD code = 0;
            ::GetExitCodeProcess(process.hProcess, &code);
            run.Code = static_cast<int>(code);
        }
        run.Out = ReadBytes(m_Directory / "stdout");
        run.Error = ReadBytes(m_Directory / "stderr");
        return run;
    }

    [[nodiscard]] std::filesystem::path RuleDirectory() const { return m_Directory / L"Regeln ü"; }
    /// A file beside the rule directory.
    std::wstring Write(const char* name, std::string_view text)
    {
        WriteBytes(m_Directory / name, text);
        return (m_Directory / name).wstring();
    }
    /// Names, sizes, times and bytes of the rule directory: equal when nothing was touched.
    [[nodiscard]] std::string Snapshot() const
    {
        std::string text;
        if (!std::filesystem::exists(RuleDirectory()))
            return "none";
        for (const auto& entry : std::filesystem::recursive_directory_iterator(RuleDirectory()))
            text += entry.path().string() + " " + std::to_string(entry.last_write_time().time_since_epoch().count()) +
                    " " + (entry.is_regular_file() ? ReadBytes(entry.path()) : "") + "\n";
        return text;
    }

private:
    static std::wstring Quoted(const std::wstring& argument)
    {
        std::wstring quoted = L"\"";
        for (const wchar_t c : argument)
            quoted += c == L'"' ? std::wstring(L"\\\"") : std::wstring(1, c);
        return quoted + (argument.ends_with(L'\\') ? L"\\\"" : L"\"");
    }

protected:
    TempDir m_Directory;
};
