#include "common/srclib/Utility.h"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_DynLib.h"
#include "tests/standins/HashStandIn.h"
#include "tests/standins/TraceRecorder.h"
#include "tests/support/TempDir.h"

namespace
{

using namespace KxCommon;
using Lines = std::vector<std::string>;

// Short names are up to the system, so a folder is identified by its contents.
TEST(GetApplicationPath, IsTheModulesFolderOrNothing)
{
    const TempDir dir;
    TraceRecorder trace;
    const std::filesystem::path folder = dir / "a folder with a long name.and dots";
    std::filesystem::create_directory(folder);
    const HashStandIn library(folder);
    const HMODULE module = ::GetModuleHandleW((folder / "KxHash.dll").c_str());
    const std::string path = GetApplicationPath(module);
    EXPECT_TRUE(path.ends_with("\\") && std::filesystem::exists(path + "KxHash.dll")) << path;
    EXPECT_EQ(path.find(' '), std::string::npos) << "the short form: " << path;
    EXPECT_TRUE(std::filesystem::exists(GetApplicationPath(nullptr) + "standins"));
    EXPECT_EQ(trace.Take(), Lines{});

    const auto fails = [&](HMODULE wrong, const std::string& call)
    {
        ::SetLastError(ERROR_SUCCESS);
        EXPECT_EQ(GetApplicationPath(wrong), "");
        const std::string error = call + " error (" + std::to_string(::GetLastError()) + ")";
        EXPECT_EQ(trace.Take(), Lines{"!!! GetApplicationPath // " + error});
    };
    fails(reinterpret_cast<HMODULE>(uintptr_t{0x10000}), "GetModuleFileName"); // no module
    if (::MoveFileW(folder.c_str(), (dir / "after").c_str()) != FALSE)         // so its path leads nowhere
        fails(module, "GetShortPathName");
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

    // Neither the current folder nor PATH is searched.
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
