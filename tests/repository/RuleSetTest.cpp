// Rule sets in memory.
#include "repository/RuleSet.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/FakeHashDll.h"
#include "tests/support/RecordBuilder.h"

namespace
{

using namespace Build;
using Indexes = std::vector<uint16_t>;
using KxCommon::WideString;

TEST(RuleSet, IsMadeFromARecord)
{
    PFW_RULE later = Access(500);
    later.Access.Port[0] = PortRange(90, 80);
    auto record = RuleSet(65280, WideString(65, 'n'), {Access(500), Access(0), Access(65535), later});
    CRuleSet set(*record);
    set.SetFileName("KxRlFF00.dat");
    const CRuleSet copy(set);
    EXPECT_EQ(set.DeleteRule(0), 0);
    EXPECT_EQ(copy.Index(), 65280);
    EXPECT_EQ(copy.Name(), WideString(64, 'n'));
    EXPECT_EQ(copy.FileName(), "KxRlFF00.dat");
    EXPECT_EQ(copy.RuleIndexes(), (Indexes{0, 500, 65535}));
    EXPECT_EQ(+copy.FindRule(500)->Record().Access.Port[0].wPort1, 80) << "the later rule, put in order";

    for (const int32_t count : {0, -1, INT32_MIN})
    {
        record->nRuleCount = count;
        EXPECT_EQ(CRuleSet(*record).RuleCount(), 0);
        EXPECT_EQ(CRuleSet(*record).FileName(), "");
    }
}

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
    }
}

class NoLock final : public CLock
{
public:
    bool Lock() override { return true; }
    bool Unlock() override { return true; }
};

TEST(RuleSet, RefreshesEveryRuleWhateverBecomesOfOthers)
{
    // (Without a hash library at this point, the rules begin with a hash of zeroes.)
    CRuleSet set(*RuleSet(8, KXW(""),
                          {Access(5, KXW("ok")), Access(4, KXW("4bad")), Access(3, KXW("ok")), Access(2, KXW("2bad")),
                           Access(1, KXW("ok"))}));
    FakeHashDll library;
    library.OnCall = [&](const WideString& name) { library.Status = name == KXW("ok") ? 0 : name[0]; };
    Indexes changed, called;
    const auto callback = [](uint32_t, const PFW_RULE* rule, void* context) -> int32_t
    {
        static_cast<Indexes*>(context)->push_back(rule->wRuleIndex);
        return 1;
    };
    NoLock lock;
    EXPECT_EQ(set.UpdateHash(nullptr, nullptr, callback, &called, changed, lock), '2') << "the first failure";
    EXPECT_EQ(called, (Indexes{1, 3, 5}));
    EXPECT_EQ(changed, (Indexes{8}));
}

} // namespace
