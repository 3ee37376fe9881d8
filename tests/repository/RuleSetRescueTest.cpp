// Rescue rule sets.
#include "repository/RuleSetRescue.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/RecordBuilder.h"
#include "tests/support/TraceSink.h"

namespace
{

using namespace Build;
using Lines = std::vector<std::string>;

TEST(RuleSetRescue, AddsThreeRules)
{
    CRuleSet set(*RuleSet(0xAB, KXW("Office")));
    set.SetFileName("KxRl00AB.dat");
    TraceSink trace;
    RuleSetRescue::MakeRescueSet(set);
    EXPECT_EQ(set.Name(), KXW("This is a rescue RuleSet for a broken/deleted RuleSet."));
    EXPECT_EQ(set.FileName(), "KxRl00AB.dat");
    EXPECT_EQ(trace.Take(), (Lines{"16 \tAdded rescue rule (index=171:30000, rule=\"ACCESS,,,,,,DROP\")",
                                   "16 \tAdded rescue rule (index=171:30001, rule=\"ACCESS,,,,,,ACCEPT\")",
                                   "16 \tAdded rescue rule (index=171:30002, rule=\"ACCESS,,,,,,ACCEPT\")"}));
    ASSERT_EQ(set.RuleCount(), 3);
    for (uint16_t i = 0; i < 3; ++i)
    {
        PFW_RULE expected = Rule(1, static_cast<uint16_t>(30000 + i));
        SetText(&expected.wszDescription, 65, KXW("This is a rescue rule. This rule file had been broken/deleted."));
        unsigned char* const bytes = reinterpret_cast<unsigned char*>(&expected);
        bytes[132] = 1;                                        // active
        std::memset(bytes + 144, 0xFF, 4);                     // protocol
        bytes[148] = static_cast<unsigned char>(i + 1);        // number
        bytes[152] = bytes[200] = bytes[248] = bytes[381] = 1; // any
        bytes[514] = i == 0 ? 2 : 1;                           // action
        EXPECT_EQ(std::memcmp(&set.FindRule(expected.wRuleIndex)->Record(), bytes, 2845), 0) << i;
    }
}

TEST(RuleSetRescue, KeepsWhatWasRead)
{
    std::vector<PFW_RULE> full;
    for (uint16_t i = 1; i <= 1024; ++i)
        full.push_back(Access(i));
    const struct
    {
        std::vector<PFW_RULE> Read;
        int32_t CountAfter;
        std::string LastLine;
    } cases[] = {
        {{Access(1), Access(2)}, 5, "16 \tAdded rescue rule (index=2:30004, rule=\"ACCESS,,,,,,ACCEPT\")"},
        // A refused rule leaves the count, and so the next rule's index, unchanged.
        {{Access(1), Access(30002)}, 2, "256 \tCRuleSet::AddRule() failed (nResult=-10019, index=2:30002)"},
        {full, 1024, "256 \tCRuleSet::AddRule() failed (nResult=-10018, index=2:31024)"},
    };
    for (const auto& c : cases)
    {
        CRuleSet set(*RuleSet(2, KXW("Office"), c.Read));
        TraceSink trace;
        RuleSetRescue::MakeRescueSet(set);
        EXPECT_EQ(set.RuleCount(), c.CountAfter);
        const Lines lines = trace.Take();
        ASSERT_EQ(lines.size(), 3u);
        EXPECT_EQ(lines.back(), c.LastLine);
    }
}

} // namespace
