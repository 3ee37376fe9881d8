// Rule sets in memory.
#include "repository/RuleSet.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/RecordBuilder.h"

namespace
{

using namespace Build;
using Indexes = std::vector<uint16_t>;
using KxCommon::WideString;

TEST(RuleSet, AddsAndDeletesRules)
{
    CRuleSet set;
    CRule rule(Access(7));
    EXPECT_EQ(set.AddRule(3, rule), 0);
    EXPECT_EQ(+set.FindRule(3)->Record().wRuleIndex, 3);
    EXPECT_EQ(+rule.Record().wRuleIndex, 7);
    rule.SetRule(Rule(2));
    EXPECT_EQ(set.AddRule(3, rule), -10019);
    EXPECT_EQ(+set.FindRule(3)->Record().dwKind, 1u);
    EXPECT_EQ(set.AddRule(0, rule), 0);
    EXPECT_EQ(set.DeleteRule(7), -10016);
    EXPECT_EQ(set.RuleIndexes(), (Indexes{0, 3}));
    EXPECT_EQ(set.DeleteRule(3), 0);
    EXPECT_EQ(set.RuleIndexes(), (Indexes{0})) << "cannot be deleted alone";
    EXPECT_EQ(set.DeleteRule(0), 0);
    EXPECT_EQ(set.DeleteRule(0), 0);
    EXPECT_EQ(set.RuleCount(), 0);

    for (uint16_t i = 0; i < 1024; ++i)
        ASSERT_EQ(set.AddRule(static_cast<uint16_t>(i * 31 % 1024), rule), 0) << i;
    EXPECT_EQ(set.AddRule(5000, rule), -10018);
    EXPECT_EQ(set.AddRule(5, rule), -10018) << "full comes before taken";
    set.PutRule(Access(5000));
    EXPECT_EQ(set.RuleCount(), 1025) << "the limit is for rules added one by one";
}

TEST(RuleSet, FillsARecord)
{
    CRuleSet set(*RuleSet(0x1234, KXW(""), {Access(9), Access(2), Access(5)}));
    set.SetName(WideString(70, 'n'));
    for (const int32_t maxRules : {0, 2, 3, 100})
    {
        std::vector<PFW_RULE> rules = {Access(2), Access(5), Access(9)};
        rules.resize(static_cast<size_t>(std::min(maxRules, 3)));
        auto expected = RuleSet(0x1234, WideString(64, 'n'), rules);
        expected->nRuleCount = 3; // all of them, however many are copied
        Block<PFW_RULESET> record(expected.Bytes().size());
        std::memset(&record->wszName, 'x', 130);
        set.CopyRecord(record.get(), maxRules);
        EXPECT_TRUE(record.Bytes() == expected.Bytes()) << maxRules;
        record->nRuleCount = std::min(maxRules, 3) - 2;
        EXPECT_EQ(CRuleSet(*record).RuleCount(), std::max(+record->nRuleCount, 0));
    }
}

} // namespace
