// All exports from eight threads at once, with the timer ticking all the time.
#include <algorithm>
#include <atomic>
#include <set>
#include <thread>

#include "common/srclib/KxComn_Windows.h"

#include "api/Library.h"
#include "persistence/PfwTimer.h"
#include "repository/RuleMaster.h"
#include "tests/api/StoreFixture.h"
#include "tests/standins/HashStandIn.h"
#include "tests/support/RegistryGuard.h"
#include "tests/torture/Scale.h"

namespace
{

// A rule that reveals a mixture of two: every unit of the description is its number.
PFW_RULE Numbered(uint16_t number)
{
    PFW_RULE rule = Build::Rule(KXRULE_KIND_NAT, number);
    rule.dwActive = number;
    for (size_t i = 0; i < KXRULE_DESCRIPTION_UNITS - 1; ++i)
        rule.wszDescription[i] = static_cast<KXWCHAR>(number);
    return rule;
}

constexpr uint16_t kHashedRule = 60; // beside the numbered ones: an access rule; its hash is of one byte

bool IsWhole(const PFW_RULE& rule)
{
    if (rule.wRuleIndex == kHashedRule)
        return std::count(rule.Access.abAppHash, std::end(rule.Access.abAppHash), rule.Access.abAppHash[0]) ==
               KXRULE_HASH_BYTES;
    const PFW_RULE expected = Numbered(static_cast<uint16_t>(rule.dwActive));
    return std::memcmp(expected.wszDescription, rule.wszDescription, sizeof rule.wszDescription) == 0;
}

} // namespace

// Each thread owns one rule set and knows exactly what must be in it; all read everybody's.
TEST_F(StoreTest, EightThreadsOverAllExportsWithATickingTimer)
{
    constexpr uint16_t kThreads = 8;
    Campaign campaign("load: calls of eight threads");
    const RegistryGuard registry;
    const TempDir folder;
    const HashStandIn library(folder.Path());
    static HashStandInState* s_Library;
    s_Library = library.operator->();
    library->OnCall = [](const wchar_t*)
    {
        s_Library->SetHash(static_cast<uint8_t>(s_Library->Paths.size()));
        ::Sleep(1); // slow, with the master lock held
    };
    for (uint16_t set = 1; set <= kThreads; ++set)
        ASSERT_EQ(AddSet(set, {Build::Access(kHashedRule, L"a.exe")}), 0);
    CPfwTimer timer;
    ASSERT_TRUE(timer.Register(1, 1, CRuleMaster::CallbackFuncWriteTimeOut, 3, &g_RuleMaster, true));
    std::atomic<bool> isOver = false;
    std::atomic<uint64_t> calls = 0;
    std::vector<std::set<uint16_t>> expected(kThreads + 1, {kHashedRule});
    const auto work = [&](uint16_t own)
    {
        std::mt19937 random(own);
        std::set<uint16_t>& rules = expected[own];
        uint16_t list[64] = {};
        char text[512] = {};
        for (unsigned round = 0; !isOver; ++round)
        {
            const uint16_t index = static_cast<uint16_t>(1 + random() % 50),
                           other = static_cast<uint16_t>(1 + random() % kThreads);
            const PFW_RULE rule = Numbered(index);
            PFW_RULE got{};
            switch (random() % 16)
            {
            default:
                EXPECT_EQ(kxRuleAddRule(own, index, &rule), rules.insert(index).second ? 0 : KXRULE_E_RULE_EXISTS);
                break;
            case 1:
                EXPECT_EQ(kxRuleDeleteRule(own, index), rules.erase(index) != 0 ? 0 : KXRULE_E_NO_RULE);
                break;
            case 2:
                EXPECT_EQ(kxRuleIsRuleActive(own, index), rules.count(index) != 0 ? index : KXRULE_E_NO_RULE);
                break;
            case 3:
                EXPECT_EQ(kxRuleGetRuleTopIndex(own), *rules.begin());
                EXPECT_EQ(kxRuleGetRuleBottomIndex(own), kHashedRule);
                break;
            case 4:
                EXPECT_TRUE(kxRuleGetRule(other, index, &got) != 0 || (IsWhole(got) && got.wRuleIndex == index));
                break;
            case 5:
                for (const PFW_RULE& any : Rules(other))
                    EXPECT_TRUE(IsWhole(any));
                break;
            case 6:
                EXPECT_GE(kxRuleGetRuleSetIndex(list, 64), kThreads);
                break;
            case 7:
                EXPECT_EQ(kxRuleSetActiveRuleSet(&own, 1), 0);
                EXPECT_EQ(kxRuleGetActiveRuleSet(list, 64), 1);
                break;
            case 8:
            {
                auto block = Build::RuleSet(0, L"passing", {rule});
                EXPECT_EQ(kxRuleAddRuleSet(0, block.get()), 0);
                EXPECT_EQ(kxRuleDeleteRuleSet(block->wRuleSetIndex), 0);
                break;
            }
            case 9:
                EXPECT_EQ(kxRuleAddMacro(Build::Macro("m", {Build::Item("t")}).get()), 0);
                EXPECT_EQ(kxRuleGetMacroCount() > 50 ? kxRuleDeleteMacro() : 0, 0);
                EXPECT_EQ(kxRuleGetMacro(nullptr, 0) % 177, 0);
                break;
            case 10:
                EXPECT_NE(kxRuleGetRuleString(other, index, text, sizeof text), 0);
                EXPECT_GT(kxRuleGetRuleString2(&rule, text, sizeof text), 0);
                EXPECT_GT(kxRuleGetMacroString(Build::Macro("m", {Build::Item("t")}).get(), text, sizeof text), 0);
                break;
            case 11:
            {
                const int32_t result = kxRuleUpdateHashValue(nullptr, nullptr, nullptr, nullptr);
                EXPECT_TRUE(result == 0 || result == KXRULE_E_HASH_LIBRARY) << result;
                break;
            }
            case 12:
                EXPECT_EQ(round % 2 == 0 ? kxRuleFlush() : kxRuleWrite(), 0);
                break;
            case 13:
                EXPECT_EQ(kxRuleInitialize(nullptr, nullptr), KXRULE_E_ALREADY_INITIALIZED);
                break;
            }
            ++calls;
        }
    };
    std::vector<std::thread> threads;
    for (uint16_t own = 1; own <= kThreads; ++own)
        threads.emplace_back(work, own);
    for (unsigned round = 0; calls < 2000 || !campaign.IsTimeUp(); ++round)
    {
        registry.SetText(L"InstallPath", round % 4 == 0 ? L"" : folder.Path().native());
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    isOver = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(timer.Unregister(1, 1));
    campaign.Count(calls);
    EXPECT_FALSE(library->Paths.empty());
    Reopen();
    for (uint16_t own = 1; own <= kThreads; ++own)
    {
        const auto indexes = RuleIndexes(own);
        EXPECT_EQ(std::set<uint16_t>(indexes.begin(), indexes.end()), expected[own]) << "an update is lost";
        for (const PFW_RULE& rule : Rules(own))
            EXPECT_TRUE(IsWhole(rule) && (rule.wRuleIndex == kHashedRule || rule.dwActive == rule.wRuleIndex));
    }
}
