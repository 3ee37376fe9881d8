// All exports from eight threads at once, with the timer ticking all the time.
#include <atomic>
#include <set>
#include <thread>

#include "api/Library.h"
#include "persistence/PfwTimer.h"
#include "repository/RuleMaster.h"
#include "tests/torture/TortureTest.h"

namespace
{

// A rule that shows when it is mixed from two: every description unit is its number.
PFW_RULE Numbered(uint16_t number)
{
    PFW_RULE rule = Build::Rule(KXRULE_KIND_NAT, number);
    rule.dwActive = number;
    for (size_t i = 0; i < KXRULE_DESCRIPTION_UNITS - 1; ++i)
        rule.wszDescription[i] = static_cast<KXWCHAR>(number);
    return rule;
}

bool IsWhole(const PFW_RULE& rule)
{
    const PFW_RULE expected = Numbered(static_cast<uint16_t>(rule.dwActive));
    return std::memcmp(expected.wszDescription, rule.wszDescription, sizeof rule.wszDescription) == 0;
}

} // namespace

// Each thread owns one rule set and knows exactly what must be in it; all read everybody's.
TEST_F(TortureTest, EightThreadsOverAllExportsWithATickingTimer)
{
    constexpr uint16_t kThreads = 8;
    Campaign campaign("load");
    for (uint16_t set = 1; set <= kThreads; ++set)
        ASSERT_EQ(AddSet(set), 0);
    CPfwTimer timer;
    ASSERT_TRUE(timer.Register(1, 1, CRuleMaster::CallbackFuncWriteTimeOut, 3, &g_RuleMaster, true));
    std::atomic<bool> isOver = false;
    std::atomic<uint64_t> calls = 0;
    std::vector<std::set<uint16_t>> expected(kThreads + 1);
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
                EXPECT_EQ(kxRuleGetRuleTopIndex(own), rules.empty() ? 0 : *rules.begin());
                EXPECT_EQ(kxRuleGetRuleBottomIndex(own), rules.empty() ? 0 : *rules.rbegin());
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
                EXPECT_EQ(kxRuleUpdateHashValue(nullptr, nullptr, nullptr, nullptr), 0);
                break;
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
    while (calls < 4000 || (Campaign::Seconds() != 0 && campaign.Next(0)))
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    isOver = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(timer.Unregister(1, 1));
    std::printf("%llu calls\n", static_cast<unsigned long long>(calls));
    Reopen();
    for (uint16_t own = 1; own <= kThreads; ++own)
    {
        const auto indexes = RuleIndexes(own);
        EXPECT_EQ(std::set<uint16_t>(indexes.begin(), indexes.end()), expected[own]) << "an update is lost";
        for (const PFW_RULE& rule : Rules(own))
            EXPECT_TRUE(IsWhole(rule) && rule.dwActive == rule.wRuleIndex);
    }
}

TEST_F(TortureTest, StartsAndStopsLeaveNothingBehind)
{
    Campaign campaign("start and stop");
    const uint64_t rounds = Campaign::Seconds() == 0 ? 100 : 10000;
    for (int i = 0; i < 10; ++i)
        Reopen(); // what is allocated once
    const DWORD handles = Handles();
    for (uint64_t i = 0; i < rounds; ++i)
    {
        ASSERT_EQ(AddSet(0), 0);
        ASSERT_EQ(kxRuleDeleteRuleSet(0), 0);
        Reopen();
    }
    EXPECT_LE(Handles(), handles + 2);
}
