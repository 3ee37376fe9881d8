// The library leaves without kxRuleFinalize: unloaded, or with its process. Its timer's thread is asleep then.
#include <gtest/gtest.h>

#include "api/KxPfwRule.h"
#include "common/srclib/KxComn_Handle.h"
#include "tests/standins/StandIn.h"
#include "tests/support/TempDir.h"

namespace
{

template <class Function>
Function* Find(HMODULE module, const char* name, Function*)
{
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

TEST(UnloadTest, UnloadedBeforeItIsFinalised)
{
    const TempDir folder;
    const std::filesystem::path path = folder / "KxPfwRul.dll";
    std::filesystem::copy_file(TestFolder() / "KxPfwRul.dll", path);
    HMODULE module = ::LoadLibraryW(path.c_str());
    ASSERT_EQ(Find(module, "kxRuleInitialize", kxRuleInitialize)(folder.Path().string().c_str(), nullptr), 0);
    ::FreeLibrary(module);
    ASSERT_NE(::GetModuleHandleW(path.c_str()), nullptr) << "a thread runs in it";
    module = ::LoadLibraryW(path.c_str());
    EXPECT_EQ(Find(module, "kxRuleFinalize", kxRuleFinalize)(), 0);
    ::FreeLibrary(module);
    EXPECT_EQ(::GetModuleHandleW(path.c_str()), nullptr);
}

// The other half of the next test.
TEST(UnloadTest, DISABLED_EndsTheProcess)
{
    const TempDir folder;
    EXPECT_EQ(kxRuleInitialize(folder.Path().string().c_str(), nullptr), 0);
}

TEST(UnloadTest, EndsWithItsProcess)
{
    std::wstring command = L"api_tests --gtest_also_run_disabled_tests --gtest_filter=*DISABLED_EndsTheProcess";
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES; // none: what it prints is of no interest
    PROCESS_INFORMATION process = {};
    ASSERT_TRUE(::CreateProcessW((TestFolder() / "api_tests.exe").c_str(), command.data(), nullptr, nullptr, FALSE, 0,
                                 nullptr, nullptr, &startup, &process));
    const KxCommon::UniqueKernelObject owner(process.hProcess), threadOwner(process.hThread);
    if (::WaitForSingleObject(process.hProcess, 60000) != WAIT_OBJECT_0)
        ::TerminateProcess(process.hProcess, 258); // hung
    DWORD exitCode = 1;
    ::GetExitCodeProcess(process.hProcess, &exitCode);
    EXPECT_EQ(exitCode, 0u);
}

} // namespace
