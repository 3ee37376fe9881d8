// What a year of starts and stops leaves in a process: the real library with both companions, and the one for policies,
// loaded and released repeatedly, with lines in the log, a hash and an exception each time.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_Handle.h"

#include <tlhelp32.h>

#include "api/include/KxPolicy.h"
#include "tests/standins/StandIn.h"
#include "tests/support/RecordBuilder.h"
#include "tests/support/RegistryGuard.h"
#include "tests/support/TempDir.h"

namespace
{

// Slots of thread-local storage, handles, threads, committed kilobytes.
using Use = std::array<size_t, 4>;

Use Measure()
{
    Use use = {};
    std::vector<DWORD> free;
    for (DWORD slot = ::TlsAlloc(); slot != TLS_OUT_OF_INDEXES; slot = ::TlsAlloc())
        free.push_back(slot);
    for (const DWORD slot : free)
        ::TlsFree(slot);
    use[0] = TLS_MINIMUM_AVAILABLE + 1024 - free.size();
    DWORD flags = 0;
    for (uintptr_t handle = 4; handle < 0x10000; handle += 4) // what the system counts is 0 under Wine
        use[1] += ::GetHandleInformation(reinterpret_cast<HANDLE>(handle), &flags) != FALSE;
    const KxCommon::UniqueFile threads(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    THREADENTRY32 entry = {sizeof entry, 0, 0, 0, 0, 0, 0};
    for (BOOL more = ::Thread32First(threads.get(), &entry); more; more = ::Thread32Next(threads.get(), &entry))
        use[2] += entry.th32OwnerProcessID == ::GetCurrentProcessId();
    MEMORY_BASIC_INFORMATION block;
    for (const char* at = nullptr; ::VirtualQuery(at, &block, sizeof block) != 0; at += block.RegionSize)
        use[3] += block.State == MEM_COMMIT && block.Type == MEM_PRIVATE ? block.RegionSize / 1024 : 0;
    return use;
}

// KX_RESTARTS=10000 for a year; the rounds of the daily run detect a slot or a handle as well.
TEST(Restarts, LeaveNothingBehind)
{
#ifndef NDEBUG
    GTEST_SKIP() << "where lock orders are asserted, each thread's record of its locks is emulated and costs a slot";
#endif
    const TempDir dir;
    const RegistryGuard registry;
    registry.SetText(L"InstallPath", dir.Path().native());
    for (const wchar_t* const library : {L"KxPfwRul.dll", L"KxPolicy.dll", L"KxVqrDbg.dll", L"KxHash.dll"})
        std::filesystem::copy_file(TestFolder() / library, dir / library);
    WriteBytes(dir / "KxPfw.ini",
               "[InteractiveSession]\r\nEnable=1\r\nLevel=273\r\nLogFolder=log\r\nLogSizeLimit=64\r\n");
    const std::string folder = dir.Path().string();
    const PFW_RULE rule = Build::Access(1, (dir / "KxPfw.ini").native());
    const char* const wanted = std::getenv("KX_RESTARTS");
    const int rounds = wanted == nullptr ? 40 : std::atoi(wanted);
    Use before = {};
    std::optional<LoadedLibrary> library;
    for (int round = -20; round <= rounds; ++round)
    {
        const bool isNew = round % 20 == 0; // in between it stays loaded, as in a service that only starts and stops it
        if (isNew)
        {
            ASSERT_TRUE(!library || library->Release()) << round;
            const LoadedLibrary policies(dir / "KxPolicy.dll");
            const auto apply = static_cast<kxPolicyApply_FUNC*>(policies.Find("kxPolicyApply"));
            const std::string text = "{\"version\": 1}"; // and no library whose store could hold it, which throws
            ASSERT_EQ(apply(nullptr, text.data(), text.size(), 0, nullptr, nullptr, nullptr), KXPOLICY_E_LIBRARY);
            library.emplace(dir / "KxPfwRul.dll");
        }
        if (round % 2000 == 0 || round == rounds)
        {
            const Use now = Measure();
            std::printf("%d: %zu slots, %zu handles, %zu threads, %zu KB\n", round, now[0], now[1], now[2], now[3]);
            std::fflush(stdout);
            before = round == 0 ? now : before;
            for (size_t i = 0; i < now.size(); ++i)
                EXPECT_LE(now[i], before[i] + (i == 3 ? 1024 : 0)) << i;
        }
        const auto call = [&](const char* name) { return static_cast<int32_t (*)()>(library->Find(name))(); };
        const auto initialize = static_cast<decltype(&kxRuleInitialize)>(library->Find("kxRuleInitialize"));
        const auto text = static_cast<decltype(&kxRuleGetRuleString2)>(library->Find("kxRuleGetRuleString2"));
        ASSERT_EQ(initialize(folder.c_str(), nullptr), 0) << round;
        if (isNew)
        {
            WriteBytes(dir / "KxRulMac.dat", "broken");
            call("kxRuleRead");      // throws inside
            text(&rule, nullptr, 0); // loads the hash
        }
        ASSERT_EQ(call("kxRuleFinalize"), 0) << round;
    }
    EXPECT_NE(ReadBytes(dir / "log" / "VQR_KxPfw.log").find("kxRuleFinalize Enter"), std::string::npos);
}

} // namespace
