// Rule sets in memory: as records, and as what takes the place of a damaged one. (What adds and deletes rules is
// compared with a model in tests/torture/ModelWinTest.cpp; its limits are in tests/api/RulesTest.cpp.)
#include "repository/RuleSet.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "repository/RuleSetRescue.h"
#include "tests/support/RecordBuilder.h"
#include "tests/support/TraceSink.h"

namespace
{

using namespace Build;
using KxCommon::WideString;

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

TEST(RuleSet, ARescueAddsThreeRules)
{
    std::vector<PFW_RULE> full;
    for (uint16_t i = 1; i <= 1024; ++i)
        full.push_back(Access(i));
    const std::tuple<std::vector<PFW_RULE>, int32_t, std::string> cases[] = {
        // rules that were read, how many are added, the last line of trace
        {{}, 3, "16 \tAdded rescue rule (index=2:30002, rule=\"ACCESS,,,,,,ACCEPT\")"},
        {{Access(1), Access(2)}, 3, "16 \tAdded rescue rule (index=2:30004, rule=\"ACCESS,,,,,,ACCEPT\")"},
        // A refused rule leaves the count, and so the next rule's index, unchanged.
        {{Access(1), Access(30002)}, 0, "256 \tCRuleSet::AddRule() failed (nResult=-10019, index=2:30002)"},
        {full, 0, "256 \tCRuleSet::AddRule() failed (nResult=-10018, index=2:31024)"},
    };
    for (const auto& [read, added, lastLine] : cases)
    {
        CRuleSet set(*RuleSet(2, KXW("Office"), read));
        TraceSink trace;
        RuleSetRescue::MakeRescueSet(set);
        EXPECT_EQ(set.Name(), KXW("This is a rescue RuleSet for a broken/deleted RuleSet."));
        const std::vector<std::string> lines = trace.Take();
        ASSERT_EQ(lines.size(), 3u);
        EXPECT_EQ(lines.back(), lastLine);
        const int32_t before = static_cast<int32_t>(read.size());
        ASSERT_EQ(set.RuleCount(), before + added);
        for (int32_t i = 0; i < added; ++i)
        {
            PFW_RULE expected = Rule(1, static_cast<uint16_t>(30000 + before + i));
            SetText(&expected.wszDescription, 65,
                    KXW("This is a rescue rule. This rule file had been broken/deleted."));
            unsigned char* const bytes = reinterpret_cast<unsigned char*>(&expected);
            bytes[132] = 1;                                        // active
            std::memset(bytes + 144, 0xFF, 4);                     // protocol
            bytes[148] = static_cast<unsigned char>(i + 1);        // number
            bytes[152] = bytes[200] = bytes[248] = bytes[381] = 1; // any
            bytes[514] = i == 0 ? 2 : 1;                           // action
            EXPECT_EQ(std::memcmp(&set.FindRule(expected.wRuleIndex)->Record(), bytes, 2845), 0) << i;
        }
    }
}

} // namespace
