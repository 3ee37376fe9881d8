// Rule sets, rules, the active list and macros through the exports: a model of them, and what lies at their limits.
#include "tests/api/StoreFixture.h"

#include <map>
#include <random>

using Indexes = std::vector<uint16_t>;

namespace
{

using RuleMap = std::map<uint16_t, uint32_t>; // dwActive by index: each rule has its own

Indexes Keys(const auto& map)
{
    Indexes keys;
    for (const auto& [key, value] : map)
        keys.push_back(key);
    return keys;
}

PFW_RULE RuleOf(uint16_t index, uint32_t number, bool isBlank = false)
{
    PFW_RULE rule = Build::Access(index);
    rule.dwActive = number;
    if (isBlank)
        rule.Access.Port[1] = Build::PortList("  \t\x80");
    return rule;
}

struct Model
{
    std::map<uint16_t, RuleMap> Sets;
    Indexes Active;
    int32_t Macros = 0;
    uint16_t Last = 1; // index that was given out

    int32_t AddSet(uint16_t index, const RuleMap& rules)
    {
        for (uint16_t next = Last; index == 0; next = next >= 65280 ? 1 : static_cast<uint16_t>(next + 1))
            index = Sets.contains(next) ? 0 : next;
        if (!Sets.emplace(index, rules).second)
            return KXRULE_E_NO_RULESET;
        Last = index;
        return index;
    }
    int32_t DeleteSet(uint16_t index)
    {
        if (index != 0)
            return Sets.erase(index) != 0 ? 0 : KXRULE_E_NO_RULESET;
        Sets.clear();
        Last = 1;
        return 0;
    }
    int32_t AddRule(uint16_t set, uint16_t rule, uint32_t number, bool isBlank)
    {
        if (isBlank)
            return KXRULE_E_PORT_LIST;
        if (!Sets.contains(set))
            return KXRULE_E_NO_RULESET;
        return Sets[set].emplace(rule, number).second ? 0 : KXRULE_E_RULE_EXISTS;
    }
    int32_t DeleteRule(uint16_t set, uint16_t rule)
    {
        if (!Sets.contains(set))
            return KXRULE_E_NO_RULESET;
        if (rule == 0)
            Sets[set].clear();
        return rule == 0 || Sets[set].erase(rule) != 0 ? 0 : KXRULE_E_NO_RULE;
    }
};

class ModelTest : public StoreTest
{
protected:
    void Compare()
    {
        EXPECT_EQ(SetIndexes(), Keys(m_Model.Sets));
        EXPECT_EQ(ActiveIndexes(), m_Model.Active);
        EXPECT_EQ(kxRuleGetMacroCount(), m_Model.Macros);
        for (uint16_t set = 0; set < 9; ++set)
        {
            const bool isThere = m_Model.Sets.contains(set);
            const RuleMap rules = isThere ? m_Model.Sets[set] : RuleMap();
            EXPECT_EQ(RuleIndexes(set), Keys(rules));
            const int32_t none = isThere ? 0 : KXRULE_E_NO_RULESET;
            EXPECT_EQ(kxRuleGetRuleSet(set, nullptr, 9), isThere ? static_cast<int32_t>(rules.size()) : none);
            EXPECT_EQ(kxRuleGetRuleTopIndex(set), rules.empty() ? none : rules.begin()->first);
            EXPECT_EQ(kxRuleGetRuleBottomIndex(set), rules.empty() ? none : rules.rbegin()->first);
            for (uint16_t rule = 0; rule < 7; ++rule)
            {
                const int32_t missing = isThere ? KXRULE_E_NO_RULE : KXRULE_E_NO_RULESET;
                const auto found = rules.find(rule);
                const bool isFound = found != rules.end();
                EXPECT_EQ(kxRuleIsRuleActive(set, rule), isFound ? static_cast<int32_t>(found->second) : missing);
                EXPECT_EQ(kxRuleGetRule(set, rule, nullptr), isFound ? KXRULE_E_NULL_POINTER : missing);
            }
        }
    }

    Model m_Model;
};

} // namespace

TEST_F(ModelTest, BehavesLikeItsModel)
{
    std::mt19937 random(5);
    static constexpr uint16_t kSets[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 65279, 65280, 65535};
    for (uint32_t step = 1; step < 500 && !HasFailure(); ++step)
    {
        SCOPED_TRACE(step);
        const uint16_t set = kSets[random() % std::size(kSets)];
        const uint16_t rule = random() % 7;
        const bool isBlank = random() % 8 == 0;
        switch (random() % 8)
        {
        case 0: // of two rules with one index the later one counts; the record's own index is no request
        {
            auto block = Build::RuleSet(77, L"set", {RuleOf(rule, 1), RuleOf(5, step), RuleOf(rule, step)});
            const int32_t added = m_Model.AddSet(set, {{rule, step}, {5, step}});
            EXPECT_EQ(kxRuleAddRuleSet(set, block.get()), std::min(added, 0));
            EXPECT_EQ(+block->wRuleSetIndex, added > 0 ? added : 77);
            break;
        }
        case 1:
            EXPECT_EQ(kxRuleDeleteRuleSet(set), m_Model.DeleteSet(set));
            break;
        case 2:
        case 3:
        case 4:
        {
            const PFW_RULE record = RuleOf(99, step, isBlank);
            EXPECT_EQ(kxRuleAddRule(set, rule, &record), m_Model.AddRule(set, rule, step, isBlank));
            EXPECT_EQ(+record.wRuleIndex, 99);
            break;
        }
        case 5:
            EXPECT_EQ(kxRuleDeleteRule(set, rule), m_Model.DeleteRule(set, rule));
            break;
        case 6:
        {
            const Indexes list = {set, 5, rule, 5};
            const bool isRefused = set == 0 || set == 65535 || rule == 0;
            EXPECT_EQ(kxRuleSetActiveRuleSet(list.data(), 4), isRefused ? KXRULE_E_NO_RULESET : 0);
            m_Model.Active = isRefused ? m_Model.Active : list;
            m_Model.Macros = rule == 0 ? 0 : m_Model.Macros + 1; // equal names are not looked for
            EXPECT_EQ(rule == 0 ? kxRuleDeleteMacro() : kxRuleAddMacro(Build::Macro("m", {}).get()), 0);
            break;
        }
        case 7:
            EXPECT_EQ(step % 2 == 0 ? kxRuleWrite() : kxRuleFlush(), 0);
            if (step % 4 == 0)
                Reopen();
            EXPECT_EQ(kxRuleRead(), 0); // nothing is there twice
            break;
        }
        Compare();
    }
}

TEST_F(StoreTest, IndexListsReturnTheFullCountAndFillWhatFits)
{
    const Indexes active = {30, 10, 20}, sorted = {10, 20, 30};
    EXPECT_EQ(kxRuleSetActiveRuleSet(active.data(), 3), 0);
    for (const uint16_t index : active)
        ASSERT_EQ(AddSet(index), 0);
    for (const auto& [get, list] : {std::pair(&kxRuleGetActiveRuleSet, active), {&kxRuleGetRuleSetIndex, sorted}})
    {
        for (const int32_t maxCount : {-1, 0, 1, 2, 3, 4})
        {
            Indexes got(5, 99), expected(5, 99);
            std::copy_n(list.begin(), std::clamp(maxCount, 0, 3), expected.begin());
            EXPECT_EQ(get(got.data(), maxCount), 3);
            EXPECT_EQ(got, expected) << maxCount;
        }
        EXPECT_EQ(get(nullptr, 3), 3);
    }
    EXPECT_EQ(kxRuleSetActiveRuleSet(nullptr, 3), KXRULE_E_NULL_POINTER);
    EXPECT_EQ(kxRuleSetActiveRuleSet(nullptr, -1), KXRULE_E_NULL_POINTER);
    EXPECT_EQ(ActiveIndexes(), active);
    EXPECT_EQ(kxRuleSetActiveRuleSet(active.data(), -4), 0);
    EXPECT_EQ(ActiveIndexes(), Indexes{});
    EXPECT_EQ(kxRuleSetActiveRuleSet(nullptr, 0), 0);
}

TEST_F(StoreTest, RefusalsAtTheLimitsInTheirOrder)
{
    const PFW_RULE rule = Build::Access();
    PFW_RULE blank = RuleOf(1, 1, true);
    EXPECT_EQ(kxRuleAddRuleSet(1, nullptr), KXRULE_E_NULL_POINTER);
    EXPECT_EQ(kxRuleAddRule(9, 1, nullptr), KXRULE_E_NULL_POINTER);
    EXPECT_EQ(AddSet(1, {rule, blank}), KXRULE_E_PORT_LIST);
    blank.dwKind = KXRULE_KIND_ACCESS2;
    EXPECT_EQ(kxRuleAddRule(9, 1, &blank), KXRULE_E_PORT_LIST) << "before the missing set";
    EXPECT_EQ(AddSet(1, {blank}), 0) << "here only kind 1 is checked";
    blank.dwKind = KXRULE_KIND_NAT;
    EXPECT_EQ(kxRuleAddRule(1, 2, &blank), 0) << "nor are other kinds";

    std::vector<PFW_RULE> rules;
    for (uint16_t i = 0; i < KXRULE_MAX_RULES + 1; ++i)
        rules.push_back(Build::Access(i));
    EXPECT_EQ(AddSet(2, rules), KXRULE_E_TOO_MANY_RULES);
    rules.back().wRuleIndex = 0;
    EXPECT_EQ(AddSet(2, rules), 0) << "1025 records with 1024 different indexes";
    EXPECT_EQ(kxRuleAddRule(2, 5, &rule), KXRULE_E_TOO_MANY_RULES) << "before the index in use";

    std::vector<unsigned char> bytes(KXRULE_RULESET_BYTES(1024), 0xEE), untouched = bytes;
    PFW_RULESET* const record = reinterpret_cast<PFW_RULESET*>(bytes.data());
    EXPECT_EQ(kxRuleGetRuleSet(8, record, 1024), KXRULE_E_NO_RULESET);
    EXPECT_EQ(kxRuleGetRuleSet(2, record, -1), 1024);
    EXPECT_TRUE(bytes == untouched);
    EXPECT_EQ(kxRuleGetRuleSet(2, record, 2), 1024);
    EXPECT_EQ(+record->nRuleCount, 1024) << "however many are copied";
    EXPECT_EQ(bytes[KXRULE_RULESET_BYTES(2)], 0xEE);
    EXPECT_EQ(+KXRULE_RULES(record)[1].wRuleIndex, 1);

    for (uint16_t i = 3; i <= KXRULE_MAX_RULESETS; ++i)
        ASSERT_EQ(AddSet(i), 0);
    rules.back().wRuleIndex = 5000;
    EXPECT_EQ(AddSet(0, rules), KXRULE_E_TOO_MANY_RULESETS) << "before the number of rules";
    EXPECT_EQ(AddSet(1), KXRULE_E_TOO_MANY_RULESETS) << "before the index in use";
    Reopen();
    EXPECT_EQ(AddSet(0), KXRULE_E_TOO_MANY_RULESETS) << "sets from files count";
}
