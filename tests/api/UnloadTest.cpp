// The library is unloaded, or its process ends, without kxRuleFinalize, while the timer's thread sleeps.
#include <gtest/gtest.h>

#include "api/include/KxPfwRule.h"
#include "tests/standins/StandIn.h"
#include "tests/support/OtherProcess.h"
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
    EXPECT_EQ(ExitCodeOfOtherProcess(L"EndsTheProcess"), 0u);
}

} // namespace
