// Rule sets and the active list through the exports.
#include "tests/api/StoreFixture.h"

using Indexes = std::vector<uint16_t>;

TEST_F(StoreTest, ActiveListIsCheckedAsAWholeAndKeptAsGiven)
{
    const Indexes given = {5, 65280, 5, 1};
    ASSERT_EQ(kxRuleSetActiveRuleSet(given.data(), 4), 0);
    EXPECT_EQ(ActiveIndexes(), given);

    struct
    {
        const char* name;
        Indexes list;
        bool isNull;
        int32_t count;
        int32_t result;
        Indexes after;
    } const rows[] = {
        {"zero", {5, 0}, false, 2, KXRULE_E_NO_RULESET, given},
        {"above the limit", {65281}, false, 1, KXRULE_E_NO_RULESET, given},
        {"bad one last", {1, 2, 65535}, false, 3, KXRULE_E_NO_RULESET, given},
        {"null with count", {}, true, 3, KXRULE_E_NULL_POINTER, given},
        {"null with negative count", {}, true, -1, KXRULE_E_NULL_POINTER, given},
        {"limit", {65280}, false, 1, 0, {65280}},
        {"negative count", {7}, false, -4, 0, {}},
        {"first of two", {7, 0}, false, 1, 0, {7}},
        {"null and 0", {}, true, 0, 0, {}},
    };
    for (const auto& row : rows)
    {
        EXPECT_EQ(kxRuleSetActiveRuleSet(row.isNull ? nullptr : row.list.data(), row.count), row.result) << row.name;
        EXPECT_EQ(ActiveIndexes(), row.after) << row.name;
    }
}

TEST_F(StoreTest, IndexListsReturnTheFullCountAndFillWhatFits)
{
    const Indexes active = {9, 8, 7};
    ASSERT_EQ(kxRuleSetActiveRuleSet(active.data(), 3), 0);
    for (const uint16_t index : {30, 10, 20})
        ASSERT_EQ(AddSet(index), 0);

    for (const int32_t maxCount : {-1, 0, 1, 2, 3, 4})
    {
        uint16_t gotActive[5] = {99, 99, 99, 99, 99}, gotSets[5] = {99, 99, 99, 99, 99};
        EXPECT_EQ(kxRuleGetActiveRuleSet(gotActive, maxCount), 3);
        EXPECT_EQ(kxRuleGetRuleSetIndex(gotSets, maxCount), 3);
        for (int32_t i = 0; i < 5; ++i)
        {
            const bool isFilled = i < maxCount && i < 3;
            EXPECT_EQ(gotActive[i], isFilled ? active[static_cast<size_t>(i)] : 99) << maxCount;
            EXPECT_EQ(gotSets[i], isFilled ? 10 * (i + 1) : 99) << maxCount;
        }
    }
    EXPECT_EQ(kxRuleGetActiveRuleSet(nullptr, 3), 3);
    EXPECT_EQ(kxRuleGetRuleSetIndex(nullptr, 3), 3);
}

TEST_F(StoreTest, AllocationGoesOnFromTheIndexGivenOutLast)
{
    const auto add = [](uint16_t wanted)
    {
        auto block = Build::RuleSet(77, L"x"); // the record's own index is no request
        const int32_t result = kxRuleAddRuleSet(wanted, block.get());
        return result == 0 ? int32_t{block->wRuleSetIndex} : result;
    };
    EXPECT_EQ(add(0), 1);
    EXPECT_EQ(add(0), 2);
    EXPECT_EQ(add(0), 3);
    ASSERT_EQ(kxRuleDeleteRuleSet(2), 0);
    EXPECT_EQ(add(0), 4) << "2 is free again only after the wrap";
    ASSERT_EQ(kxRuleDeleteRuleSet(4), 0);
    EXPECT_EQ(add(0), 4) << "the newest is given out again: the search starts at it";
    EXPECT_EQ(add(500), 500);
    EXPECT_EQ(add(1), KXRULE_E_NO_RULESET) << "a refusal moves nothing";
    EXPECT_EQ(add(0), 501);
    EXPECT_EQ(add(65280), 65280);
    EXPECT_EQ(add(0), 2) << "65280 wraps to 1, which is taken";
    EXPECT_EQ(add(65535), 65535) << "an explicit index is not limited";
    EXPECT_EQ(add(0), 5) << "the search wraps without giving out 0";
    ASSERT_EQ(kxRuleDeleteRuleSet(0), 0);
    EXPECT_EQ(SetIndexes(), Indexes{});
    EXPECT_EQ(add(0), 1);
}

TEST_F(StoreTest, AddRuleSetRefusalsInTheirOrder)
{
    PFW_RULE blank = Build::Access(1);
    blank.Access.Port[1] = Build::PortList("  \t\x80");
    PFW_RULE blank6 = blank;
    blank6.dwKind = KXRULE_KIND_ACCESS2;
    PFW_RULE blankNat = Build::Rule(KXRULE_KIND_NAT, 1);
    blankNat.Nat.Port[0] = Build::PortList("");

    EXPECT_EQ(kxRuleAddRuleSet(1, nullptr), KXRULE_E_NULL_POINTER);
    EXPECT_EQ(AddSet(1, {Build::Access(5), blank}), -10064);
    EXPECT_EQ(SetIndexes(), Indexes{});
    EXPECT_EQ(AddSet(1, {blank6, blankNat}), 0) << "only kind 1 is checked";

    std::vector<PFW_RULE> rules;
    for (uint16_t i = 0; i < KXRULE_MAX_RULES + 1; ++i)
        rules.push_back(Build::Access(i));
    EXPECT_EQ(AddSet(2, rules), KXRULE_E_TOO_MANY_RULES);
    rules.back().wRuleIndex = 0;
    EXPECT_EQ(AddSet(2, rules), 0) << "1025 records with 1024 different indexes";

    for (uint16_t i = 3; i <= KXRULE_MAX_RULESETS; ++i)
        ASSERT_EQ(AddSet(i), 0);
    rules.back().wRuleIndex = 5000;
    EXPECT_EQ(AddSet(0, rules), -10017) << "before the number of rules";
    EXPECT_EQ(AddSet(1), KXRULE_E_TOO_MANY_RULESETS) << "before the index in use";
    auto refused = Build::RuleSet(4711, L"x");
    EXPECT_EQ(kxRuleAddRuleSet(1, refused.get()), KXRULE_E_TOO_MANY_RULESETS);
    EXPECT_EQ(refused->wRuleSetIndex, 4711) << "a refusal leaves the record's index alone";
    Reopen();
    EXPECT_EQ(AddSet(0), KXRULE_E_TOO_MANY_RULESETS) << "sets from files count";
}

TEST_F(StoreTest, GetRuleSetReportsAllAndCopiesWhatFits)
{
    const std::wstring name(70, L'n'); // longer than the field, which has then no terminator
    ASSERT_EQ(
        AddSet(7, {Build::Access(30), Build::Access(10), Build::Access(20), Build::Access(10, L"C:\\later.exe")}, name),
        0);
    EXPECT_EQ(kxRuleGetRuleSet(7, nullptr, 3), 3);
    EXPECT_EQ(kxRuleGetRuleSet(8, nullptr, 3), KXRULE_E_NO_RULESET);

    for (const int32_t maxRules : {-1, 0, 2, 3, 9})
    {
        std::vector<unsigned char> bytes(KXRULE_RULESET_BYTES(4), 0xEE);
        PFW_RULESET* const record = reinterpret_cast<PFW_RULESET*>(bytes.data());
        EXPECT_EQ(kxRuleGetRuleSet(8, record, maxRules), KXRULE_E_NO_RULESET);
        EXPECT_EQ(record->wRuleSetIndex, 0xEEEE);
        EXPECT_EQ(kxRuleGetRuleSet(7, record, maxRules), 3);
        const size_t copied = maxRules < 0 ? 0 : static_cast<size_t>(maxRules > 3 ? 3 : maxRules);
        const size_t written = maxRules < 0 ? 0 : KXRULE_RULESET_BYTES(copied);
        for (size_t i = written; i < bytes.size(); ++i)
            ASSERT_EQ(bytes[i], 0xEE) << maxRules << " at " << i;
        if (maxRules < 0)
            continue;
        EXPECT_EQ(record->wRuleSetIndex, 7);
        EXPECT_EQ(record->nRuleCount, 3) << "the full count, however many were copied";
        EXPECT_EQ(KxCommon::Record::WideText(&record->wszName, 65), std::wstring(64, L'n'));
        for (size_t i = 0; i < copied; ++i)
            EXPECT_EQ(KXRULE_RULES(record)[i].wRuleIndex, 10 * (i + 1));
    }
    EXPECT_EQ(Rules(7)[0].Access.wszAppName[3], L'l') << "of two rules with one index the later one counts";
}

TEST_F(StoreTest, DeletedSetsLeaveTheirFilesAndTheActiveListBehind)
{
    const Indexes active = {1, 2};
    ASSERT_EQ(kxRuleSetActiveRuleSet(active.data(), 2), 0);
    for (const uint16_t index : {1, 2, 3})
        ASSERT_EQ(AddSet(index), 0);
    ASSERT_EQ(kxRuleWrite(), 0);
    ASSERT_EQ(AddSet(4), 0);

    EXPECT_EQ(kxRuleDeleteRuleSet(5), KXRULE_E_NO_RULESET);
    EXPECT_EQ(kxRuleDeleteRuleSet(4), 0) << "was never written: there is no file to delete";
    EXPECT_EQ(kxRuleDeleteRuleSet(2), 0);
    EXPECT_FALSE(Exists("KxRl0002.dat"));
    EXPECT_EQ(ActiveIndexes(), active);
    Reopen();
    EXPECT_EQ(SetIndexes(), (Indexes{1, 3}));
    EXPECT_EQ(kxRuleDeleteRuleSet(0), 0);
    EXPECT_EQ(kxRuleDeleteRuleSet(0), 0) << "also of an empty store";
    EXPECT_FALSE(Exists("KxRl0001.dat"));
    Reopen();
    EXPECT_EQ(SetIndexes(), Indexes{});
    EXPECT_EQ(ActiveIndexes(), active);
}
