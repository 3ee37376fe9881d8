#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_DebugLog.h"
#include "common/srclib/KxComn_DynLib.h"
#include "common/srclib/Utility.h"
#include "tests/standins/HashStandIn.h"
#include "tests/standins/TraceStandIn.h"
#include "tests/support/TempDir.h"

namespace
{

using namespace KxCommon;

// Short names are the system's invention, so a folder is known by what lies in it.
TEST(GetApplicationPath, IsTheModulesFolder)
{
    const TempDir dir;
    const std::filesystem::path folder = dir / "a folder with a long name.and dots";
    std::filesystem::create_directory(folder);
    const HashStandIn library(folder);
    WriteBytes(folder / "marker", "");
    const std::string path = GetApplicationPath(::GetModuleHandleW((folder / "KxHash.dll").c_str()));
    EXPECT_TRUE(path.ends_with("\\")) << path;
    EXPECT_EQ(path.find(' '), std::string::npos) << "the short form: " << path;
    EXPECT_TRUE(std::filesystem::exists(path + "marker")) << path;
    EXPECT_TRUE(std::filesystem::exists(GetApplicationPath(nullptr) + "standins"));

    // In the code page a with a bar above is plain a, and the folder another one.
    const std::filesystem::path other = dir / L"\x0101";
    std::filesystem::create_directory(other);
    const HashStandIn otherLibrary(other);
    const std::string otherPath = GetApplicationPath(::GetModuleHandleW((other / "KxHash.dll").c_str()));
    EXPECT_TRUE(otherPath.empty() || std::filesystem::exists(otherPath + "KxHash.dll")) << otherPath;
}

TEST(GetApplicationPath, AnswersAFailureWithNothingAndOneLine)
{
    const TempDir dir;
    const std::string location = dir.Path().string();
    TraceStandIn trace(dir.Path());
    ASSERT_TRUE(g_DebugLog.Initialize("Utility", {Storage::kIniFile, location.c_str(), "none.ini"}, 1));
    trace->HasConfig = true;
    trace->Enable = 1;
    trace->Level = 256;

    ::SetLastError(ERROR_SUCCESS);
    const HMODULE noModule = reinterpret_cast<HMODULE>(uintptr_t{0x10000});
    EXPECT_EQ(GetApplicationPath(noModule), "");
    ASSERT_EQ(trace->Lines.size(), 1u);
    const std::wstring expected = L"!!! <Utility> GetApplicationPath // GetModuleFileName error (" +
                                  std::to_wstring(::GetLastError()) + L") - Utility.cpp(";
    EXPECT_NE(trace->Lines[0].Text.find(expected), std::wstring::npos) << testing::PrintToString(trace->Lines[0].Text);

    // The module's folder is renamed under it: its path leads nowhere.
    std::filesystem::create_directory(dir / "before");
    const HashStandIn library(dir / "before");
    const HMODULE module = ::GetModuleHandleW((dir / "before" / "KxHash.dll").c_str());
    std::error_code error;
    std::filesystem::rename(dir / "before", dir / "after", error);
    if (!error)
    {
        EXPECT_EQ(GetApplicationPath(module), "");
        ASSERT_EQ(trace->Lines.size(), 2u);
        EXPECT_NE(trace->Lines[1].Text.find(L"GetApplicationPath // GetShortPathName error ("), std::wstring::npos);
    }
    g_DebugLog.Uninitialize();
}

TEST(DynLib, LoadsFromWhereItIsTold)
{
    const TempDir dir;
    HashStandIn library(dir.Path());
    const std::filesystem::path file = dir / "KxHash.dll";
    const std::filesystem::path before = std::filesystem::current_path();
    DynLib loaded;
    EXPECT_TRUE(loaded.Load(file.string()));
    EXPECT_NE(loaded.Find<int()>("kxCfwGetHashValue"), nullptr);
    EXPECT_EQ(loaded.Find<int()>("noSuchFunction"), nullptr);
    EXPECT_FALSE(library.Release()) << "held by the owner under test";
    EXPECT_FALSE(loaded.Load((dir / "missing.dll").string()));
    EXPECT_FALSE(loaded.IsLoaded()) << "what was loaded before is released";
    EXPECT_EQ(loaded.Find<int()>("kxCfwGetHashValue"), nullptr);
    EXPECT_EQ(::GetModuleHandleW(file.c_str()), nullptr);

    // Neither the current folder nor PATH takes part.
    std::filesystem::copy_file(file, dir / "KxPlanted.dll");
    std::filesystem::current_path(dir.Path());
    ::SetEnvironmentVariableW(L"PATH", dir.Path().c_str());
    for (const char* const path : {"KxPlanted.dll", ".\\KxPlanted.dll", "./KxPlanted.dll", "C:KxPlanted.dll", ""})
        EXPECT_FALSE(loaded.Load(path)) << path;
    std::filesystem::current_path(before);
    EXPECT_TRUE(loaded.Load("advapi32.dll"));

    // A service has nobody to close a message box.
    ASSERT_TRUE(loaded.Load((dir / "KxPlanted.dll").string()));
    EXPECT_EQ(loaded.Find<HashStandInState*()>("KxStandInState")()->ErrorMode & 0x8001, 0x8001u);
    EXPECT_EQ(::GetThreadErrorMode() & 0x8001, 0u);
}

} // namespace
