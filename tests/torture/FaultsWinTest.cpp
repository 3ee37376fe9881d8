// Every allocation failing: once, and from then on. (System calls on files: crash/CrashWinTest.cpp.)
#include <algorithm>
#include <functional>
#include <future>
#include <map>
#include <stdexcept>
#include <thread>
#include <tuple>

#include "tests/api/StoreFixture.h"
#include "tests/standins/StandIn.h"
#include "tests/support/Faults.h"
#include "tests/torture/Scale.h"

extern thread_local Faults g_Allocations; // AllocationFaults.cpp

class FaultsTest : public StoreTest
{
protected:
    using Contents = std::map<std::string, std::string>; // path below the rule directory, bytes

    [[nodiscard]] Contents OnDisk() const
    {
        Contents contents;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(Directory()))
            if (entry.is_regular_file() && entry.path().extension() != ".tmp")
                contents[entry.path().string().substr(Directory().size())] = ReadBytes(entry.path());
        return contents;
    }
    /// Numbers of sets, of rules and of macros.
    static std::vector<size_t> InMemory()
    {
        return {SetIndexes().size(), Rules(1).size(), static_cast<size_t>(kxRuleGetMacroCount())};
    }
    /// A store in memory and on the disk with, in memory alone, a change that touches every file.
    void Begin(bool isRead)
    {
        Close();
        for (const auto& entry : std::filesystem::directory_iterator(Directory()))
            std::filesystem::remove_all(entry.path());
        for (const auto& [name, bytes] : m_Before)
            WriteFile(name, bytes);
        ASSERT_EQ(kxRuleInitialize(Directory().c_str(), nullptr), 0);
        if (isRead)
        {
            ASSERT_EQ(kxRuleRead(), 0);
            Change();
        }
    }
    static void Change()
    {
        const PFW_RULE rule = Build::Access(7);
        ASSERT_EQ(kxRuleAddRule(1, 100, &rule), 0);
        ASSERT_EQ(kxRuleDeleteRule(2, 5), 0);
        ASSERT_EQ(AddSet(3, {rule}, L"new"), 0);
        ASSERT_EQ(kxRuleAddMacro(Build::Macro("mail", {Build::Item("b")}).get()), 0);
    }

    Contents m_Before;
};

TEST_F(FaultsTest, LackOfMemoryIsToldAndNeverTakenForDamage)
{
    Campaign campaign("fails: allocation");
    const LoadedLibrary trace(TestFolder() / "KxVqrDbg.dll"); // which each life would load anew
    std::vector<PFW_RULE> rules;
    for (uint16_t i = 0; i < 100; ++i) // more than a stream gathers before it writes
        rules.push_back(Build::Access(i));
    ASSERT_EQ(AddSet(1, {rules.begin(), rules.begin() + 3}, L"small"), 0);
    ASSERT_EQ(AddSet(2, rules, L"large"), 0);
    ASSERT_EQ(kxRuleAddMacro(Build::Macro("web", {Build::Item("a")}).get()), 0);
    ASSERT_EQ(kxRuleWrite(), 0);
    m_Before = OnDisk();
    Change();
    ASSERT_EQ(kxRuleWrite(), 0);
    const Contents after = OnDisk();

    auto set = Build::RuleSet(0, L"a name that does not fit into the string object itself", {Build::Access(1)});
    auto macro = Build::Macro("a name that does not fit into the string", {Build::Item("a")});
    const PFW_RULE rule = Build::Access(1);
    const uint16_t active[] = {2, 3};
    const std::tuple<std::string, std::function<int32_t()>, int32_t> rows[] = {
        {"kxRuleRead", kxRuleRead, KXRULE_E_FILE_READ},
        {"kxRuleWrite", kxRuleWrite, KXRULE_E_FILE_WRITE},
        {"kxRuleDeleteRuleSet", [] { return kxRuleDeleteRuleSet(2); }, KXRULE_E_FILE_WRITE},
        {"kxRuleAddRuleSet", [&] { return kxRuleAddRuleSet(0, set.get()); }, KXRULE_E_NULL_POINTER},
        {"kxRuleAddRule", [&] { return kxRuleAddRule(1, 200, &rule); }, KXRULE_E_NULL_POINTER},
        {"kxRuleAddMacro", [&] { return kxRuleAddMacro(macro.get()); }, KXRULE_E_NULL_POINTER},
        {"kxRuleSetActiveRuleSet", [&] { return kxRuleSetActiveRuleSet(active, 2); }, KXRULE_E_NULL_POINTER},
        {"kxRuleGetMacroString", [&] { return std::min(0, kxRuleGetMacroString(macro.get(), nullptr, 0)); },
         KXRULE_E_MACRO_TEXT},
    };
    for (const auto& [name, call, failure] : rows)
    {
        const bool isRead = failure != KXRULE_E_FILE_READ, isDeleting = name == "kxRuleDeleteRuleSet";
        Begin(isRead);
        ASSERT_EQ(call(), 0) << name;
        const std::vector<size_t> expected = InMemory();
        for (const bool isForGood : {false, true})
        {
            bool hasFailed = true;
            for (uint32_t k = 1; hasFailed && !HasFailure(); ++k, campaign.Count(1))
            {
                SCOPED_TRACE(name + (", allocation " + std::to_string(k)) + (isForGood ? " and all after it" : ""));
                Begin(isRead);
                g_Allocations = {0, k, isForGood};
                const int32_t result = call();
                hasFailed = g_Allocations.HasFailed();
                g_Allocations = {};
                EXPECT_TRUE(result == 0 || (hasFailed && result == failure)) << result;
                const Contents now = OnDisk();
                EXPECT_TRUE(failure == KXRULE_E_FILE_WRITE || now == m_Before) << "moved, copied or written";
                for (const auto& [file, bytes] : now)
                    EXPECT_TRUE((m_Before.count(file) != 0 && m_Before.at(file) == bytes) || after.at(file) == bytes ||
                                isDeleting)
                        << file << " is neither as before nor as after";
                const int32_t again = result == 0 ? 0 : call();
                EXPECT_TRUE(again == 0 || again == KXRULE_E_NO_RULESET) << again; // a set that is deleted already
                EXPECT_EQ(InMemory(), expected);
            }
        }
    }
}

// When the callback throws, and while another thread stops the library.
TEST_F(StoreTest, WhatARefreshChangesIsWritten)
{
    ASSERT_EQ(AddSet(1, {Build::Access(1, L"SYSTEM"), Build::Access(2, L"SYSTEM")}), 0);
    Reopen(); // nothing is pending
    std::string before = ReadFile("KxRl0001.dat");
    const auto throws = [](uint32_t, const PFW_RULE*, void*) -> int32_t { throw std::runtime_error("callback"); };
    const std::vector<uint8_t> hash(KXRULE_HASH_BYTES, 7);
    EXPECT_EQ(kxRuleUpdateHashValue(L"SYSTEM", hash.data(), throws, nullptr), KXRULE_E_HASH_LIBRARY);
    EXPECT_EQ(Rules(1)[0].Access.abAppHash[0] + Rules(1)[1].Access.abAppHash[0], 7) << "one of two";
    EXPECT_EQ(kxRuleFlush(), 0);
    EXPECT_TRUE(ReadFile("KxRl0001.dat") != before);
    before = ReadFile("KxRl0001.dat");
    std::future<int32_t> stop;
    const auto stops = [](uint32_t, const PFW_RULE*, void* context) -> int32_t
    {
        auto& started = *static_cast<std::future<int32_t>*>(context);
        if (!started.valid())
            started = std::async(std::launch::async, kxRuleFinalize);
        std::this_thread::sleep_for(std::chrono::milliseconds(100)); // it comes to where it waits for the refresh
        return 0;
    };
    EXPECT_EQ(kxRuleUpdateHashValue(L"SYSTEM", hash.data(), stops, &stop), 0);
    EXPECT_EQ(stop.get(), 0);
    EXPECT_TRUE(ReadFile("KxRl0001.dat") != before);
}
