// Rule sets, rules, macros and their texts through the exports, at their limits. (tests/torture/ModelWinTest.cpp
// compares random calls with a model.)
#include "tests/api/StoreFixture.h"

#include <algorithm>
#include <functional>
#include <future>

#include "tests/standins/HashStandIn.h"
#include "tests/support/FileContent.h"
#include "tests/support/RegistryGuard.h"

TEST_F(StoreTest, TextsAreCopiedAsStrncpyDoes)
{
    PFW_RULE rule = Build::Access(5);
    rule.Access.Port[1] = Build::PortRange(90, 80); // in order in its text
    PFW_RULE unprintable = Build::Access(6);
    unprintable.dwKind = KXRULE_KIND_ACCESS2;
    const auto macro = Build::Macro(
        "web", {Build::Item(Build::PortList("80,8080")), Build::Item(Build::Single(Build::Ip(10, 1, 1, 1)))});
    ASSERT_EQ(AddSet(1, {rule, unprintable}), 0);

    const std::pair<std::string, std::function<int32_t(char*, int32_t)>> rows[] = {
        {"ACCESS,TCP,,,,80:90,ACCEPT", [](char* text, int32_t size) { return kxRuleGetRuleString(1, 5, text, size); }},
        {"ACCESS,TCP,,,,80:90,ACCEPT",
         [&](char* text, int32_t size) { return kxRuleGetRuleString2(&rule, text, size); }},
        {"web=80|8080,10.1.1.1", [&](char* text, int32_t size) { return kxRuleGetMacroString(&*macro, text, size); }},
    };
    for (const auto& [text, get] : rows)
    {
        const int32_t length = static_cast<int32_t>(text.size());
        EXPECT_EQ(get(nullptr, 100), length);
        for (const int32_t size : {-5, 0, 1, length - 1, length, length + 9})
        {
            std::vector<char> buffer(64, '#'), expected(64, '#');
            if (size > 0)
                std::strncpy(expected.data(), text.c_str(), static_cast<size_t>(size));
            EXPECT_EQ(get(buffer.data(), size), length) << size;
            EXPECT_EQ(buffer, expected) << text << " " << size;
        }
    }
    char untouched[8] = "before";
    EXPECT_EQ(kxRuleGetRuleString(1, 6, untouched, 8), KXRULE_E_RULE_TEXT);
    EXPECT_EQ(kxRuleGetRuleString(1, 7, untouched, 8), KXRULE_E_NO_RULE);
    EXPECT_EQ(kxRuleGetRuleString(2, 6, untouched, 8), KXRULE_E_NO_RULESET);
    EXPECT_EQ(kxRuleGetRuleString2(&unprintable, untouched, 8), KXRULE_E_RULE_TEXT);
    EXPECT_EQ(kxRuleGetMacroString(Build::Macro("m", {}).get(), untouched, 8), KXRULE_E_MACRO_TEXT);
    EXPECT_STREQ(untouched, "before");

    // The buffer may be inside the record that is rendered.
    char* const inside = reinterpret_cast<char*>(&rule) + 140;
    EXPECT_EQ(kxRuleGetRuleString2(&rule, inside, 30), 26);
    EXPECT_STREQ(inside, "ACCESS,TCP,,,,80:90,ACCEPT");
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
    EXPECT_EQ(kxRuleSetActiveRuleSet(nullptr, -1), KXRULE_E_NULL_POINTER);
    EXPECT_EQ(ActiveIndexes(), active);
    EXPECT_EQ(kxRuleSetActiveRuleSet(active.data(), -4), 0);
    EXPECT_EQ(ActiveIndexes(), Indexes{});
    EXPECT_EQ(kxRuleSetActiveRuleSet(nullptr, 0), 0);
}

TEST_F(StoreTest, RefusalsAtTheLimitsInTheirOrder)
{
    const PFW_RULE rule = Build::Access();
    PFW_RULE blank = Build::Access(1);
    blank.Access.Port[1] = Build::PortList("  \t\x80");
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

TEST_F(StoreTest, MacrosAreAppendedAndCopiedOutPacked)
{
    EXPECT_EQ(kxRuleDeleteMacro(), 0);
    EXPECT_EQ(kxRuleGetMacro(nullptr, 100), 0);

    const auto one = Build::Macro("one", {Build::Item("text")});
    auto three = Build::Macro(std::string(32, 'm'), {Build::Item("a"), Build::Item("b"), Build::Item("c", 99)});
    ASSERT_EQ(kxRuleAddMacro(&*one), 0);
    ASSERT_EQ(kxRuleAddMacro(&*three), 0);
    EXPECT_EQ(kxRuleGetMacroCount(), 2);
    EXPECT_EQ(kxRuleGetMacro(nullptr, 0), 40 * 2 + 137 * 4);
    EXPECT_EQ(kxRuleGetMacro(nullptr, 10000), 628);

    std::vector<unsigned char> bytes(640, 0xEE), untouched = bytes;
    EXPECT_EQ(kxRuleGetMacro(bytes.data(), 627), 628);
    EXPECT_EQ(bytes, untouched);
    EXPECT_EQ(kxRuleGetMacro(bytes.data(), -1), 628);
    EXPECT_EQ(bytes, untouched);
    ASSERT_EQ(kxRuleGetMacro(bytes.data(), 628), 628);

    std::vector<unsigned char> expected = one.Bytes();
    three->szName[31] = 0; // a name without terminator is cut to 31 bytes
    expected.insert(expected.end(), three.Bytes().begin(), three.Bytes().end());
    for (const size_t reserved : {size_t{0}, one.Bytes().size()})
        std::memset(expected.data() + reserved, 0xEE, 4); // left as it was in the buffer
    expected.resize(640, 0xEE);
    EXPECT_EQ(bytes, expected);

    ASSERT_EQ(kxRuleAddMacro(&*one), 0) << "equal names are not looked for";
    auto negative = Build::Macro("none", {});
    negative->nItemCount = -3;
    ASSERT_EQ(kxRuleAddMacro(&*negative), 0);
    EXPECT_EQ(kxRuleGetMacroCount(), 4);
    EXPECT_EQ(kxRuleGetMacro(nullptr, 0), 628 + 177 + 40);
    EXPECT_EQ(kxRuleDeleteMacro(), 0);
    EXPECT_EQ(kxRuleGetMacroCount(), 0);
}

class HashTest : public StoreTest
{
protected:
    HashTest() { m_Registry.SetText(L"InstallPath", m_Folder.Path().native()); }

    const RegistryGuard m_Registry;
    const TempDir m_Folder;
    const HashStandIn m_Library{m_Folder.Path()};
};

// A rule that fails keeps its hash; the walk goes on to the end of its set and stops there.
TEST_F(HashTest, HashesAreRefreshedUpToTheFirstSetThatFails)
{
    static HashStandInState* s_Library;
    s_Library = m_Library.operator->();
    m_Library->OnCall = [](const wchar_t* path)
    {
        s_Library->Status = *path == L'b' ? 31 : 0;
        const auto texts = [] // wait for no call, not even for one that hashes under the global lock
        {
            EXPECT_EQ(kxRuleGetRuleString2(nullptr, nullptr, 0), KXRULE_E_NULL_POINTER);
            EXPECT_EQ(kxRuleGetMacroString(nullptr, nullptr, 0), KXRULE_E_NULL_POINTER);
        };
        std::async(std::launch::async, texts).get();
    };
    const auto hashes = []
    {
        std::string all; // the last byte of each, '-' for zero
        for (const uint16_t set : SetIndexes())
        {
            for (const PFW_RULE& rule : Rules(set))
                all += static_cast<char>(std::max<uint8_t>(rule.Access.abAppHash[19], '-'));
        }
        return all;
    };
    std::vector<uint32_t> calls;
    const auto called = [](uint32_t set, const PFW_RULE* rule, void* context) -> int32_t
    {
        static_cast<std::vector<uint32_t>*>(context)->push_back(set * 100 + rule->wRuleIndex);
        EXPECT_EQ(rule->Access.abAppHash[19], 'b') << "called before the change";
        EXPECT_EQ(std::async(std::launch::async, kxRuleGetRuleTopIndex, uint16_t{2}).get(), 7) << "readers go on";
        return -1;
    };

    m_Library->SetHash('a');
    ASSERT_EQ(AddSet(7, {Build::Access(1, L"c.exe")}), 0);
    ASSERT_EQ(AddSet(3, {Build::Access(4, L"d.exe"), Build::Access(2, L"c.exe"), Build::Access(1, L"bad.exe")}), 0);
    ASSERT_EQ(AddSet(2, {Build::Access(9, L"C.exe"), Build::Access(8, L"SYSTEM"), Build::Access(7)}), 0);
    Reopen(); // nothing is pending
    EXPECT_EQ(hashes(), "--aaaaa");
    m_Library->SetHash('b');
    EXPECT_EQ(kxRuleUpdateHashValue(nullptr, nullptr, called, &calls), 31);
    EXPECT_EQ(calls, (std::vector<uint32_t>{209, 302, 304}));
    EXPECT_EQ(hashes(), "--babba");
    Reopen();
    EXPECT_EQ(hashes(), "--babba") << "not marked for writing";

    calls.clear();
    EXPECT_EQ(kxRuleUpdateHashValue(L"SYSTEM", s_Library->Hash, called, &calls), 0);
    EXPECT_EQ(kxRuleUpdateHashValue(L"C.EXE", s_Library->Hash, called, &calls), 0) << "two have it already";
    EXPECT_EQ(calls, (std::vector<uint32_t>{208, 701}));
    EXPECT_EQ(hashes(), "-bbabbb");

    EXPECT_EQ(kxRuleUpdateHashValue(L"d.exe", nullptr, nullptr, nullptr), 0) << "nobody to call";

    m_Registry.SetText(L"InstallPath", L""); // no library
    EXPECT_EQ(kxRuleUpdateHashValue(L"other.exe", nullptr, called, &calls), 0) << "no rule has it";
    EXPECT_EQ(kxRuleUpdateHashValue(L"c.exe", nullptr, called, &calls), KXRULE_E_HASH_LIBRARY);
    const PFW_RULE rule = Build::Access(0, L"c.exe");
    EXPECT_EQ(kxRuleAddRule(7, 2, &rule), 0);
    EXPECT_EQ(hashes(), "-bbabbb-");
    EXPECT_EQ(calls.size(), 2u);
    m_Registry.SetText(L"InstallPath", m_Folder.Path().generic_wstring()); // with slashes
    Reopen();
    EXPECT_EQ(hashes(), "--babbbb") << "the system's goes, what was added without a library gets its own";
    Close();
    m_Registry.SetText(L"InstallPath", L"");
    EXPECT_EQ(kxRuleUpdateHashValue(L"c.exe", nullptr, called, &calls), 0) << "nothing to do";
    Open();
}

// Also those that a later one of the same index replaces: a hash library that watches the calls sees the file as it is.
TEST_F(HashTest, RulesAreTakenOverInTheOrderOfTheFile)
{
    m_Library->SetHash(9);
    ASSERT_EQ(AddSet(1), 0);
    for (const Indexes& order : {Indexes{5, 7, 7}, Indexes{7, 5, 5, 7, 6}})
    {
        Close();
        FileContent content;
        content.Set = {1, L"set", 0};
        std::vector<std::wstring> paths;
        for (const uint16_t index : order)
        {
            paths.push_back(std::to_wstring(paths.size()) + L".exe");
            content.Rules.push_back(Build::Access(index, paths.back()));
        }
        const std::vector<uint8_t> bytes = content.Write(FileContent::Kind::RuleSet);
        WriteFile("KxRl0001.dat", std::string(bytes.begin(), bytes.end()));
        m_Library->Paths.clear();
        Open();
        EXPECT_EQ(m_Library->Paths, paths);
        for (const PFW_RULE& rule : Rules(1))
            EXPECT_EQ(rule.Access.abAppHash[0], 9) << rule.wRuleIndex;
    }
}
