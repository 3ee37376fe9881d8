// Rules, macros and their texts through the exports.
#include "tests/api/StoreFixture.h"

#include <algorithm>
#include <functional>
#include <future>
#include <thread>

#include "tests/standins/HashStandIn.h"
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

    struct
    {
        const char* name;
        std::string text;
        std::function<int32_t(char*, int32_t)> get;
    } const rows[] = {
        {"stored", "ACCESS,TCP,,,,80:90,ACCEPT",
         [](char* text, int32_t size) { return kxRuleGetRuleString(1, 5, text, size); }},
        {"record", "ACCESS,TCP,,,,80:90,ACCEPT",
         [&](char* text, int32_t size) { return kxRuleGetRuleString2(&rule, text, size); }},
        {"macro", "web=80|8080,10.1.1.1",
         [&](char* text, int32_t size) { return kxRuleGetMacroString(&*macro, text, size); }},
    };
    for (const auto& row : rows)
    {
        const int32_t length = static_cast<int32_t>(row.text.size());
        EXPECT_EQ(row.get(nullptr, 100), length) << row.name;
        for (const int32_t size : {-5, 0, 1, 10, length - 1, length, length + 1, length + 9})
        {
            std::vector<char> buffer(64, '#'), expected(64, '#');
            if (size > 0)
                std::strncpy(expected.data(), row.text.c_str(), static_cast<size_t>(size));
            EXPECT_EQ(row.get(buffer.data(), size), length) << row.name << " " << size;
            EXPECT_EQ(buffer, expected) << row.name << " " << size;
        }
    }

    char untouched[8] = "before";
    EXPECT_EQ(kxRuleGetRuleString(1, 6, untouched, 8), KXRULE_E_RULE_TEXT);
    EXPECT_EQ(kxRuleGetRuleString(1, 7, untouched, 8), KXRULE_E_NO_RULE);
    EXPECT_EQ(kxRuleGetRuleString(2, 6, untouched, 8), KXRULE_E_NO_RULESET);
    EXPECT_EQ(kxRuleGetRuleString2(&unprintable, untouched, 8), KXRULE_E_RULE_TEXT);
    EXPECT_EQ(kxRuleGetRuleString2(nullptr, untouched, 8), KXRULE_E_NULL_POINTER);
    EXPECT_EQ(kxRuleGetMacroString(nullptr, untouched, 8), KXRULE_E_NULL_POINTER);
    EXPECT_EQ(kxRuleGetMacroString(Build::Macro("m", {}).get(), untouched, 8), KXRULE_E_MACRO_TEXT);
    EXPECT_STREQ(untouched, "before");

    // The buffer may be inside the record that is rendered.
    char* const inside = reinterpret_cast<char*>(&rule) + 140;
    EXPECT_EQ(kxRuleGetRuleString2(&rule, inside, 30), 26);
    EXPECT_STREQ(inside, "ACCESS,TCP,,,,80:90,ACCEPT");
}

TEST_F(StoreTest, MacrosAreAppendedAndCopiedOutPacked)
{
    EXPECT_EQ(kxRuleAddMacro(nullptr), KXRULE_E_NULL_POINTER);
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

// A rule that fails keeps its hash; the walk goes on to the end of its set and stops there.
TEST_F(StoreTest, HashesAreRefreshedUpToTheFirstSetThatFails)
{
    static HashStandInState* s_Library;
    const RegistryGuard registry;
    const TempDir folder;
    registry.SetText(L"InstallPath", folder.Path().native());
    const HashStandIn library(folder.Path());
    s_Library = library.operator->();
    library->OnCall = [](const wchar_t* path)
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

    library->SetHash('a');
    ASSERT_EQ(AddSet(7, {Build::Access(1, L"c.exe")}), 0);
    ASSERT_EQ(AddSet(3, {Build::Access(4, L"d.exe"), Build::Access(2, L"c.exe"), Build::Access(1, L"bad.exe")}), 0);
    ASSERT_EQ(AddSet(2, {Build::Access(9, L"C.exe"), Build::Access(8, L"SYSTEM"), Build::Access(7)}), 0);
    Reopen(); // nothing is pending
    EXPECT_EQ(hashes(), "--aaaaa");
    library->SetHash('b');
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

    registry.SetText(L"InstallPath", L""); // no library
    EXPECT_EQ(kxRuleUpdateHashValue(L"other.exe", nullptr, called, &calls), 0) << "no rule has it";
    EXPECT_EQ(kxRuleUpdateHashValue(L"c.exe", nullptr, called, &calls), KXRULE_E_HASH_LIBRARY);
    const PFW_RULE rule = Build::Access(0, L"c.exe");
    EXPECT_EQ(kxRuleAddRule(7, 2, &rule), 0);
    EXPECT_EQ(hashes(), "-bbabbb-");
    EXPECT_EQ(calls.size(), 2u);
    registry.SetText(L"InstallPath", folder.Path().generic_wstring()); // with slashes
    Reopen();
    EXPECT_EQ(hashes(), "--babbbb") << "the system's goes, what was added without a library gets its own";
}

TEST_F(StoreTest, AStopWritesWhatARefreshChangesMeanwhile)
{
    ASSERT_EQ(AddSet(1, {Build::Access(1, L"SYSTEM")}), 0);
    Reopen();                                            // nothing is pending
    const std::string before = ReadFile("KxRl0001.dat"); // a read would take the hash away again
    std::future<int32_t> stop;
    const auto stopping = [](uint32_t, const PFW_RULE*, void* context) -> int32_t
    {
        *static_cast<std::future<int32_t>*>(context) = std::async(std::launch::async, kxRuleFinalize);
        std::this_thread::sleep_for(std::chrono::milliseconds(100)); // it comes to where it waits for the refresh
        return 0;
    };
    const std::vector<uint8_t> hash(KXRULE_HASH_BYTES, 7);
    EXPECT_EQ(kxRuleUpdateHashValue(L"SYSTEM", hash.data(), stopping, &stop), 0);
    EXPECT_EQ(stop.get(), 0);
    EXPECT_TRUE(ReadFile("KxRl0001.dat") != before);
}
