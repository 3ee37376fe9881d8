// Random calls against a model of the store: of one thread over everything, and of eight threads over a rule set of
// their own each, while the timer ticks all the time.
#include <algorithm>
#include <atomic>
#include <map>
#include <thread>

#include "api/Library.h"
#include "persistence/PfwTimer.h"
#include "repository/RuleMaster.h"
#include "tests/api/StoreFixture.h"
#include "tests/standins/HashStandIn.h"
#include "tests/support/RegistryGuard.h"
#include "tests/torture/Scale.h"

namespace
{

using RuleMap = std::map<uint16_t, uint32_t>; // dwActive by index: each rule has its own

constexpr uint16_t kHashedRule = 6; // the rule of this index has an application

Indexes Keys(const auto& map)
{
    Indexes keys;
    for (const auto& [key, value] : map)
        keys.push_back(key);
    return keys;
}

// A rule that reveals a mixture of two: every unit of the description is its number, every byte of its hash the same.
PFW_RULE Numbered(uint16_t index, uint32_t number)
{
    PFW_RULE rule = Build::Access(index, index == kHashedRule ? L"a.exe" : L"");
    rule.dwActive = number;
    for (size_t i = 0; i < KXRULE_DESCRIPTION_UNITS - 1; ++i)
        rule.wszDescription[i] = static_cast<KXWCHAR>(number);
    return rule;
}

bool IsWhole(const PFW_RULE& rule)
{
    const PFW_RULE expected = Numbered(0, rule.dwActive);
    const uint8_t* const hash = rule.Access.abAppHash;
    return std::memcmp(expected.wszDescription, rule.wszDescription, sizeof rule.wszDescription) == 0 &&
           std::count(hash, hash + KXRULE_HASH_BYTES, hash[0]) == KXRULE_HASH_BYTES;
}

class ModelTest : public StoreTest
{
protected:
    /// What the store must hold. Each operation is also called, and must do the same.
    struct Model
    {
        std::map<uint16_t, RuleMap> Sets;
        uint16_t Last = 1; // index that was given out

        // Of two rules with one index the later one counts; the record's own index is no request.
        void AddSet(uint16_t set, uint16_t rule, uint32_t number)
        {
            auto block = Build::RuleSet(77, L"set", {Numbered(rule, 1), Numbered(5, number), Numbered(rule, number)});
            uint16_t index = set;
            for (uint16_t next = Last; index == 0; next = next >= 65280 ? 1 : static_cast<uint16_t>(next + 1))
                index = Sets.contains(next) ? 0 : next;
            const bool isAdded = Sets.try_emplace(index, RuleMap{{rule, number}, {5, number}}).second;
            Last = isAdded ? index : Last;
            EXPECT_EQ(kxRuleAddRuleSet(set, block.get()), isAdded ? 0 : KXRULE_E_NO_RULESET);
            EXPECT_EQ(+block->wRuleSetIndex, isAdded ? index : 77);
        }
        void DeleteSet(uint16_t set)
        {
            EXPECT_EQ(kxRuleDeleteRuleSet(set), set == 0 || Sets.contains(set) ? 0 : KXRULE_E_NO_RULESET);
            std::erase_if(Sets, [=](const auto& each) { return set == 0 || each.first == set; });
            Last = set == 0 ? 1 : Last;
        }
        void AddRule(uint16_t set, uint16_t rule, uint32_t number, bool isBlank)
        {
            PFW_RULE record = Numbered(rule, number);
            record.wRuleIndex = 99; // neither
            if (isBlank)
                record.Access.Port[1] = Build::PortList("  \t\x80");
            const bool isThere = Sets.contains(set);
            const bool isAdded = !isBlank && isThere && Sets[set].emplace(rule, number).second;
            EXPECT_EQ(kxRuleAddRule(set, rule, &record), isBlank    ? KXRULE_E_PORT_LIST
                                                         : !isThere ? KXRULE_E_NO_RULESET
                                                         : isAdded  ? 0
                                                                    : KXRULE_E_RULE_EXISTS);
        }
        void DeleteRule(uint16_t set, uint16_t rule)
        {
            const bool isThere = Sets.contains(set);
            const auto isMeant = [=](const auto& each) { return rule == 0 || each.first == rule; };
            const bool isDone = isThere && (std::erase_if(Sets[set], isMeant) > 0 || rule == 0);
            EXPECT_EQ(kxRuleDeleteRule(set, rule), !isThere ? KXRULE_E_NO_RULESET : isDone ? 0 : KXRULE_E_NO_RULE);
        }
        void Compare(uint16_t set) const
        {
            const bool isThere = Sets.contains(set);
            const RuleMap rules = isThere ? Sets.at(set) : RuleMap();
            EXPECT_EQ(RuleIndexes(set), Keys(rules));
            const int32_t none = isThere ? 0 : KXRULE_E_NO_RULESET;
            EXPECT_EQ(kxRuleGetRuleSet(set, nullptr, 9), isThere ? static_cast<int32_t>(rules.size()) : none);
            EXPECT_EQ(kxRuleGetRuleTopIndex(set), rules.empty() ? none : rules.begin()->first);
            EXPECT_EQ(kxRuleGetRuleBottomIndex(set), rules.empty() ? none : rules.rbegin()->first);
            for (uint16_t rule = 0; rule <= kHashedRule; ++rule)
            {
                const int32_t missing = isThere ? KXRULE_E_NO_RULE : KXRULE_E_NO_RULESET;
                const bool isFound = rules.contains(rule);
                EXPECT_EQ(kxRuleIsRuleActive(set, rule), isFound ? static_cast<int32_t>(rules.at(rule)) : missing);
                EXPECT_EQ(kxRuleGetRule(set, rule, nullptr), isFound ? KXRULE_E_NULL_POINTER : missing);
            }
        }
    };
};

TEST_F(ModelTest, OneThreadOverTheWholeStore)
{
    static constexpr uint16_t kSets[] = {0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 65279, 65280, 65535};
    Campaign campaign("model: calls of one thread");
    Model model;
    Indexes active;
    int32_t macros = 0;
    for (uint32_t step = 1; !HasFailure() && campaign.Next(800); ++step)
    {
        SCOPED_TRACE(step);
        const uint16_t set = kSets[campaign.Random(std::size(kSets))];
        const auto rule = static_cast<uint16_t>(campaign.Random(kHashedRule + 1));
        switch (campaign.Random(8))
        {
        case 0:
            model.AddSet(set, rule, step);
            break;
        case 1:
            model.DeleteSet(set);
            break;
        case 2:
            model.DeleteRule(set, rule);
            break;
        case 3:
        {
            const Indexes list = {set, 5, rule, 5};
            const bool isRefused = set == 0 || set == 65535 || rule == 0;
            EXPECT_EQ(kxRuleSetActiveRuleSet(list.data(), 4), isRefused ? KXRULE_E_NO_RULESET : 0);
            active = isRefused ? active : list;
            macros = rule == 0 ? 0 : macros + 1; // equal names are not looked for
            EXPECT_EQ(rule == 0 ? kxRuleDeleteMacro() : kxRuleAddMacro(Build::Macro("m", {}).get()), 0);
            break;
        }
        case 4:
            EXPECT_EQ(step % 2 == 0 ? kxRuleWrite() : kxRuleFlush(), 0);
            if (step % 4 == 0)
                Reopen();
            EXPECT_EQ(kxRuleRead(), 0); // nothing is there twice
            break;
        default:
            model.AddRule(set, rule, step, campaign.Random(8) == 0);
        }
        EXPECT_EQ(SetIndexes(), Keys(model.Sets));
        EXPECT_EQ(ActiveIndexes(), active);
        EXPECT_EQ(kxRuleGetMacroCount(), macros);
        for (uint16_t any = 0; any < 9; ++any)
            model.Compare(any);
    }
}

TEST_F(ModelTest, EightThreadsWithATickingTimer)
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
    std::vector<Model> models(kThreads + 1);
    for (uint16_t own = 1; own <= kThreads; ++own)
        models[own].AddSet(own, kHashedRule, 1);
    CPfwTimer timer;
    ASSERT_TRUE(timer.Register(1, 1, CRuleMaster::CallbackFuncWriteTimeOut, 3, &g_RuleMaster, true));
    std::atomic<bool> isOver = false;
    std::atomic<uint64_t> rounds = 0;
    const auto work = [&](uint16_t own)
    {
        std::mt19937 random(own);
        for (uint32_t round = 1; !isOver; ++round, ++rounds)
        {
            const uint16_t rule = random() % (kHashedRule + 1), other = static_cast<uint16_t>(1 + random() % kThreads);
            if (random() % 4 == 0)
                models[own].DeleteRule(own, rule);
            else
                models[own].AddRule(own, rule, round, random() % 8 == 0);
            models[own].Compare(own);
            for (const PFW_RULE& any : Rules(other))
                EXPECT_TRUE(IsWhole(any));
            PFW_RULE got = Numbered(rule, round);
            EXPECT_TRUE(kxRuleGetRule(other, rule, &got) != 0 || (IsWhole(got) && got.wRuleIndex == rule));
            const auto macro = Build::Macro("m", {Build::Item("t")});
            auto passing = Build::RuleSet(0, L"passing", {got});
            switch (random() % 8)
            {
            case 0:
                EXPECT_EQ(round % 2 == 0 ? kxRuleFlush() : kxRuleWrite(), 0);
                break;
            case 1:
                EXPECT_EQ(kxRuleSetActiveRuleSet(&own, 1), 0);
                EXPECT_EQ(ActiveIndexes().size(), 1u);
                break;
            case 2:
                EXPECT_EQ(kxRuleAddRuleSet(0, passing.get()), 0);
                EXPECT_EQ(kxRuleDeleteRuleSet(passing->wRuleSetIndex), 0);
                break;
            case 3:
                EXPECT_EQ(kxRuleAddMacro(&*macro), 0);
                EXPECT_EQ(kxRuleGetMacroCount() > 50 ? kxRuleDeleteMacro() : 0, 0);
                EXPECT_EQ(kxRuleGetMacro(nullptr, 0) % 177, 0);
                break;
            case 4:
                EXPECT_NE(kxRuleGetRuleString(other, rule, nullptr, 0), 0);
                EXPECT_GT(kxRuleGetRuleString2(&got, nullptr, 0), 0);
                EXPECT_GT(kxRuleGetMacroString(&*macro, nullptr, 0), 0);
                break;
            case 5:
            {
                const int32_t result = kxRuleUpdateHashValue(nullptr, nullptr, nullptr, nullptr);
                EXPECT_TRUE(result == 0 || result == KXRULE_E_HASH_LIBRARY) << result;
                break;
            }
            case 6:
                EXPECT_EQ(kxRuleInitialize(nullptr, nullptr), KXRULE_E_ALREADY_INITIALIZED);
                EXPECT_GE(SetIndexes().size(), kThreads);
                break;
            }
        }
    };
    std::vector<std::thread> threads;
    for (uint16_t own = 1; own <= kThreads; ++own)
        threads.emplace_back(work, own);
    for (unsigned round = 0; rounds < 600 || !campaign.IsTimeUp(); ++round)
    {
        registry.SetText(L"InstallPath", round % 4 == 0 ? L"" : folder.Path().native());
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    isOver = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(timer.Unregister(1, 1));
    campaign.Count(rounds);
    EXPECT_FALSE(library->Paths.empty());
    Reopen();
    for (uint16_t own = 1; own <= kThreads; ++own) // no update is lost
    {
        models[own].Compare(own);
        for (const PFW_RULE& rule : Rules(own))
            EXPECT_TRUE(IsWhole(rule));
    }
}

} // namespace
