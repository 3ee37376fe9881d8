// What a year of starts and stops leaves in a process: the real library with both companions, loaded and released in
// every round, with lines in the log, a hash and an exception inside.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_Windows.h"

#include <tlhelp32.h>

#include "api/include/KxPfwRule.h"
#include "tests/standins/StandIn.h"
#include "tests/support/RecordBuilder.h"
#include "tests/support/RegistryGuard.h"
#include "tests/support/TempDir.h"

namespace
{

struct Use
{
    size_t Slots = 0;
    size_t Handles = 0;
    size_t Threads = 0;
    size_t Kilobytes = 0;
};

Use Measure()
{
    Use use;
    std::vector<DWORD> free;
    for (DWORD slot = ::TlsAlloc(); slot != TLS_OUT_OF_INDEXES; slot = ::TlsAlloc())
        free.push_back(slot);
    for (const DWORD slot : free)
        ::TlsFree(slot);
    use.Slots = TLS_MINIMUM_AVAILABLE + 1024 - free.size();
    for (uintptr_t handle = 4; handle < 0x10000; handle += 4) // what the system counts is 0 under Wine
    {
        DWORD flags = 0;
        use.Handles += ::GetHandleInformation(reinterpret_cast<HANDLE>(handle), &flags) ? 1 : 0;
    }
    const KxCommon::UniqueFile threads(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    THREADENTRY32 entry = {sizeof entry, 0, 0, 0, 0, 0, 0};
    for (BOOL more = ::Thread32First(threads.get(), &entry); more; more = ::Thread32Next(threads.get(), &entry))
        use.Threads += entry.th32OwnerProcessID == ::GetCurrentProcessId() ? 1 : 0;
    MEMORY_BASIC_INFORMATION block;
    for (const char* at = nullptr; ::VirtualQuery(at, &block, sizeof block) != 0; at += block.RegionSize)
        use.Kilobytes += block.State == MEM_COMMIT && block.Type == MEM_PRIVATE ? block.RegionSize / 1024 : 0;
    return use;
}

// KX_RESTARTS=10000 for a year; the rounds of the daily run show a slot or a handle as well.
TEST(Restarts, LeaveNothingBehind)
{
    const TempDir dir;
    const RegistryGuard registry;
    registry.SetText(L"InstallPath", dir.Path().native());
    for (const wchar_t* const library : {L"KxPfwRul.dll", L"KxVqrDbg.dll", L"KxHash.dll"})
        std::filesystem::copy_file(TestFolder() / library, dir / library);
    const std::string keys = "Enable=1\r\nLevel=273\r\nLogFolder=log\r\nLogSizeLimit=64\r\n";
    WriteBytes(dir / "KxPfw.ini", "[InteractiveSession]\r\n" + keys + "[ServiceSession]\r\n" + keys);
    WriteBytes(dir / "KxRulMac.dat", "broken");
    const std::string folder = dir.Path().string();
    const PFW_RULE rule = Build::Access(1, (dir / "KxPfw.ini").native());
    const char* const wanted = std::getenv("KX_RESTARTS");
    const int rounds = wanted == nullptr ? 20 : std::atoi(wanted);
    Use before;
    for (int round = -10; round < rounds; ++round)
    {
        if (round == 0)
            before = Measure();
        LoadedLibrary library(dir / "KxPfwRul.dll"); // which loads the trace when it starts and the hash for a rule
        const auto initialize = static_cast<decltype(&kxRuleInitialize)>(library.Find("kxRuleInitialize"));
        const auto read = static_cast<decltype(&kxRuleRead)>(library.Find("kxRuleRead"));
        const auto text = static_cast<decltype(&kxRuleGetRuleString2)>(library.Find("kxRuleGetRuleString2"));
        const auto finalize = static_cast<decltype(&kxRuleFinalize)>(library.Find("kxRuleFinalize"));
        ASSERT_EQ(initialize(folder.c_str(), nullptr), 0) << round;
        read();
        text(&rule, nullptr, 0);
        ASSERT_EQ(finalize(), 0) << round;
        ASSERT_TRUE(library.Release()) << round;
    }
    const Use after = Measure();
    std::printf("%d rounds: slots %zu -> %zu, handles %zu -> %zu, threads %zu -> %zu, committed %zu -> %zu KB\n",
                rounds, before.Slots, after.Slots, before.Handles, after.Handles, before.Threads, after.Threads,
                before.Kilobytes, after.Kilobytes);
    EXPECT_EQ(after.Slots, before.Slots);
    EXPECT_LE(after.Handles, before.Handles);
    EXPECT_LE(after.Threads, before.Threads);
    EXPECT_LT(after.Kilobytes, before.Kilobytes + 1024);
    EXPECT_NE(ReadBytes(dir / "log" / "VQR_KxPfw.log").find("kxRuleFinalize Enter"), std::string::npos);
}

} // namespace
