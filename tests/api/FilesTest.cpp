// The store on disk, through the exports: what comes back, and what becomes of damage.
#include "tests/api/StoreFixture.h"

#include <filesystem>
#include <functional>

#include "tests/standins/StandIn.h"

using Indexes = std::vector<uint16_t>;

namespace
{

const std::wstring kRescueName = L"This is a rescue RuleSet for a broken/deleted RuleSet.";

} // namespace

class FilesTest : public StoreTest
{
protected:
    /// Three sets with two rules each, a macro, an active list, written.
    void WriteStore()
    {
        for (const uint16_t index : {1, 2, 0xAB})
            ASSERT_EQ(AddSet(index, {Build::Access(10), Build::Rule(KXRULE_KIND_NAT, 20)}, L"Büro"), 0);
        ASSERT_EQ(kxRuleAddMacro(Build::Macro("web", {Build::Item("a"), Build::Item("b")}).get()), 0);
        const uint16_t active[] = {2, 9};
        ASSERT_EQ(kxRuleSetActiveRuleSet(active, 2), 0);
    }
    /// Ends the life that wrote a file, changes the file's bytes, and begins another life.
    void Damage(const std::string& name, const std::function<void(std::string&)>& damage, int32_t expectedRead = 0)
    {
        Close();
        std::filesystem::remove_all(PathOf("RuleBackup"));
        m_Damaged = ReadFile(name);
        damage(m_Damaged);
        WriteFile(name, m_Damaged);
        Open(expectedRead);
    }
    /// Names in the rule directory, or in a directory in it.
    [[nodiscard]] std::vector<std::string> Names(const std::string& below = "") const
    {
        std::vector<std::string> names;
        if (!std::filesystem::exists(PathOf(below)))
            return names;
        for (const auto& entry : std::filesystem::directory_iterator(PathOf(below)))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
    /// The one dated directory below RuleBackup.
    [[nodiscard]] std::vector<std::string> BackedUp() const
    {
        for (const std::string& name : Names("RuleBackup"))
        {
            if (std::filesystem::is_directory(PathOf("RuleBackup\\" + name)))
                return Names("RuleBackup\\" + name);
        }
        return {};
    }
    std::string m_Damaged; // the bytes of the damaged file
};

TEST_F(FilesTest, WhatWasWrittenComesBackInANewLife)
{
    WriteStore();
    ASSERT_EQ(kxRuleWrite(), 0);
    EXPECT_EQ(Names(), (std::vector<std::string>{"KxRl0001.dat", "KxRl0002.dat", "KxRl00AB.dat", "KxRulMac.dat",
                                                 "KxRulMas.dat"}));
    const auto before = Rules(2);
    ASSERT_EQ(kxRuleFinalize(), 0);
    ASSERT_EQ(kxRuleInitialize(Directory().c_str(), nullptr), 0);
    EXPECT_EQ(SetIndexes(), Indexes{}) << "nothing is read before kxRuleRead";
    ASSERT_EQ(kxRuleRead(), 0);
    ASSERT_EQ(kxRuleDeleteRule(2, 10), 0);
    ASSERT_EQ(AddSet(7), 0);
    ASSERT_EQ(kxRuleSetActiveRuleSet(nullptr, 0), 0);
    ASSERT_EQ(kxRuleRead(), 0) << "what is in memory is discarded, and nothing is there twice";
    EXPECT_EQ(SetIndexes(), (Indexes{1, 2, 0xAB}));
    EXPECT_EQ(ActiveIndexes(), (Indexes{2, 9}));
    EXPECT_EQ(NameOf(2), L"Büro");
    EXPECT_EQ(kxRuleGetMacro(nullptr, 0), 40 + 2 * 137);
    const auto after = Rules(2);
    ASSERT_EQ(after.size(), before.size());
    EXPECT_EQ(std::memcmp(after.data(), before.data(), before.size() * sizeof(PFW_RULE)), 0);
    std::filesystem::remove(PathOf("KxRl0002.dat"));
    ASSERT_EQ(kxRuleFlush(), 0);
    EXPECT_TRUE(Exists("KxRl0002.dat")) << "marked before the read";
    EXPECT_EQ(AddSet(0), 0);
    EXPECT_EQ(SetIndexes().back(), 0xAC) << "the next index is kept, too";
}

TEST_F(FilesTest, FilesHaveTheirDocumentedSizes)
{
    ASSERT_EQ(kxRuleWrite(), 0);
    EXPECT_EQ(ReadFile("KxRulMas.dat").size(), 128u);
    EXPECT_EQ(ReadFile("KxRulMac.dat").size(), 44u);
    ASSERT_EQ(AddSet(1, {Build::Access(1), Build::Access(2)}, L""), 0);
    ASSERT_EQ(kxRuleWrite(), 0);
    EXPECT_EQ(ReadFile("KxRl0001.dat").size(), 88u + 2 * 2852);
}

TEST_F(FilesTest, ChangesAreTrackedUntilATimedWrite)
{
    const PFW_RULE rule = Build::Access();
    EXPECT_EQ(kxRuleAddRule(9, 1, &rule), KXRULE_E_NO_RULESET);
    EXPECT_EQ(kxRuleDeleteRule(9, 1), KXRULE_E_NO_RULESET);
    EXPECT_EQ(kxRuleFlush(), 0);
    EXPECT_EQ(Names(), std::vector<std::string>{}) << "nothing changed, nothing written";
    auto macro = Build::Macro("m", {});
    const std::function<int32_t()> changes[] = {[&] { return kxRuleAddMacro(macro.get()); }, kxRuleDeleteMacro,
                                                [] { return kxRuleSetActiveRuleSet(nullptr, 0); }};
    for (const auto& change : changes)
    {
        ASSERT_EQ(change(), 0);
        ASSERT_EQ(kxRuleFlush(), 0);
        EXPECT_TRUE(Exists("KxRulMas.dat")) << "change " << &change - changes;
        Close();
        std::filesystem::remove(PathOf("KxRulMas.dat"));
        Open();
    }
    ASSERT_EQ(AddSet(1), 0);
    ASSERT_EQ(kxRuleFlush(), 0);
    EXPECT_TRUE(Exists("KxRl0001.dat"));
    std::filesystem::remove(PathOf("KxRl0001.dat"));
    std::filesystem::remove(PathOf("KxRulMas.dat"));
    ASSERT_EQ(kxRuleFlush(), 0);
    EXPECT_TRUE(Exists("KxRulMas.dat")) << "only a timed write makes the store clean";
    EXPECT_FALSE(Exists("KxRl0001.dat")) << "the set itself was not changed again";
    ASSERT_EQ(kxRuleAddRule(1, 3, &rule), 0);
    const std::function<int32_t()> refused[] = {[] { return kxRuleDeleteRule(1, 99); },
                                                [&] { return kxRuleAddRule(1, 3, &rule); }};
    for (const auto& change : refused)
    {
        ASSERT_EQ(kxRuleFlush(), 0);
        std::filesystem::remove(PathOf("KxRl0001.dat"));
        ASSERT_NE(change(), 0);
        ASSERT_EQ(kxRuleFlush(), 0);
        EXPECT_TRUE(Exists("KxRl0001.dat")) << "a refused change marks its set all the same";
    }
    ASSERT_EQ(kxRuleAddRule(1, 4, &rule), 0);
    Reopen();
    EXPECT_EQ(RuleIndexes(1), (Indexes{3, 4})) << "kxRuleFinalize writes what is pending";
}

TEST_F(FilesTest, BrokenRuleSetsBecomeRescueSets)
{
    const size_t body = 44 + 20 + 4 + 16 + 20; // of a set with a name of four letters
    struct
    {
        const char* name;
        std::function<void(std::string&)> damage;
        Indexes rules;
    } const rows[] = {
        {"other magic", [](std::string& file) { file[3] = 'M'; }, {30000, 30001, 30002}},
        {"cut in the first rule", [=](std::string& file) { file.resize(body + 2000); }, {30000, 30001, 30002}},
        {"cut in the second rule", [=](std::string& file) { file.resize(body + 2852 + 1); }, {10, 30001, 30002, 30003}},
        {"a byte of the last rule",
         [=](std::string& file) { file[file.size() - 1] ^= 0x40; },
         {10, 30001, 30002, 30003}},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(kxRuleDeleteRuleSet(0), 0);
        ASSERT_EQ(kxRuleDeleteMacro(), 0);
        WriteStore();
        Damage("KxRl00AB.dat", row.damage);
        EXPECT_EQ(SetIndexes(), (Indexes{1, 2, 0xAB}));
        EXPECT_EQ(NameOf(0xAB), kRescueName);
        EXPECT_EQ(RuleIndexes(0xAB), row.rules);
        EXPECT_EQ(NameOf(2), L"Büro");
        EXPECT_EQ(ReadFile("RuleBackup\\KxRl00AB.dat.brk"), m_Damaged);
        const size_t rules = row.rules.size();
        EXPECT_EQ(ReadFile("KxRl00AB.dat").size(), 88 + 112 + rules * 2852) << "written back at once";
        for (size_t i = 0; i < 3; ++i)
        {
            const PFW_RULE rescue = Rules(0xAB)[rules - 3 + i];
            EXPECT_EQ(rescue.dwActive, 1u);
            EXPECT_EQ(rescue.Access.dwProtocol, 0xFFFFFFFFu);
            EXPECT_EQ(rescue.Access.dwSpare2, i + 1);
            EXPECT_EQ(rescue.Access.dwAction, i == 0 ? KXRULE_ACTION_DROP : KXRULE_ACTION_ACCEPT);
        }
        Reopen();
        EXPECT_EQ(RuleIndexes(0xAB), row.rules) << "a rescue set is read like any other";
    }
    Close();
    std::filesystem::remove_all(PathOf("RuleBackup"));
    std::filesystem::remove(PathOf("KxRl0002.dat"));
    Open();
    EXPECT_EQ(RuleIndexes(2), (Indexes{30000, 30001, 30002})) << "a missing file is rescued, too";
    EXPECT_EQ(NameOf(2), kRescueName);
    EXPECT_FALSE(Exists("RuleBackup")) << "but there is nothing to keep";
}

// Its rules are not read, so its file is kept before it is written over, and once: the next copy would have none of them.
TEST_F(FilesTest, AFileOfTheOldVersionIsKept)
{
    const std::string old = ReadBytes("tests/data/ruleset-old.dat");
    ASSERT_EQ(AddSet(7), 0);
    Close();
    WriteFile("KxRl0007.dat", old);
    Open();
    EXPECT_EQ(NameOf(7), L"Old");
    for (const uint16_t index : {1, 2})
    {
        const PFW_RULE rule = Build::Access();
        ASSERT_EQ(kxRuleAddRule(7, index, &rule), 0);
        EXPECT_EQ(Exists("RuleBackup"), index == 2);
        ASSERT_EQ(kxRuleWrite(), 0);
        EXPECT_EQ(ReadFile("RuleBackup\\KxRl0007.dat.brk"), old);
    }
    Reopen();
    EXPECT_EQ(RuleIndexes(7), (Indexes{1, 2}));
}

TEST_F(FilesTest, AnUnusableMasterFileMovesAllRuleFilesAway)
{
    struct
    {
        const char* name;
        std::function<void(std::string&)> damage;
        Indexes sets; // rescued, because their names had been read
    } const rows[] = {
        {"other version", [](std::string& file) { file.replace(4, 20, file.substr(24, 20)); }, {}},
        {"cut behind the first name", [](std::string& file) { file.resize(file.size() - 80); }, {1}},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(kxRuleDeleteRuleSet(0), 0);
        ASSERT_EQ(kxRuleDeleteMacro(), 0);
        WriteStore();
        Damage("KxRulMas.dat", row.damage);
        EXPECT_EQ(BackedUp(),
                  (std::vector<std::string>{"KxRl0001.dat", "KxRl0002.dat", "KxRl00AB.dat", "KxRulMas.dat"}));
        EXPECT_EQ(SetIndexes(), row.sets);
        EXPECT_EQ(kxRuleGetMacroCount(), 1) << "the macro file stays where it is";
        Reopen();
        EXPECT_EQ(SetIndexes(), row.sets) << "rescue sets are listed by the write that ended the life before";
    }
    ASSERT_EQ(kxRuleDeleteRuleSet(0), 0);
    WriteStore();
    Close();
    std::filesystem::remove_all(PathOf("RuleBackup"));
    std::filesystem::remove(PathOf("KxRulMas.dat"));
    Open();
    EXPECT_EQ(SetIndexes(), Indexes{}) << "rule set files without a master file are moved away";
    EXPECT_EQ(BackedUp(), (std::vector<std::string>{"KxRl0001.dat", "KxRl0002.dat", "KxRl00AB.dat"}));
}

TEST_F(FilesTest, ABrokenMacroFileEndsTheReadAndNothingIsWrittenOverItsRuleSets)
{
    struct
    {
        const char* name;
        std::function<void(std::string&)> damage;
        int32_t result;
        int32_t macros;
    } const rows[] = {
        {"other version", [](std::string& file) { file.replace(4, 20, file.substr(24, 20)); }, KXRULE_E_MACRO_FORMAT,
         0},
        {"cut in the last item", [](std::string& file) { file.resize(file.size() - 1); }, KXRULE_E_FILE_READ, 1},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(kxRuleDeleteRuleSet(0), 0);
        ASSERT_EQ(kxRuleDeleteMacro(), 0);
        WriteStore();
        ASSERT_EQ(kxRuleAddMacro(Build::Macro("two", {Build::Item("c")}).get()), 0);
        Damage("KxRulMac.dat", row.damage, row.result);
        EXPECT_EQ(SetIndexes(), Indexes{}) << "the rule sets have not been read";
        EXPECT_EQ(kxRuleGetMacroCount(), row.macros);
        EXPECT_EQ(Names("RuleBackup"), std::vector<std::string>{});
        ASSERT_EQ(AddSet(0), 0); // the caller does what it was told not to do
        ASSERT_EQ(kxRuleWrite(), 0);
        EXPECT_EQ(BackedUp(), (std::vector<std::string>{"KxRl0001.dat", "KxRl0002.dat", "KxRl00AB.dat", "KxRulMac.dat",
                                                        "KxRulMas.dat"}));
        EXPECT_EQ(ReadFile("RuleBackup\\" + Names("RuleBackup")[0] + "\\KxRulMac.dat"), m_Damaged);
        ASSERT_EQ(kxRuleWrite(), 0);
        EXPECT_EQ(Names("RuleBackup").size(), 1u) << "once is enough";
    }
}

TEST_F(FilesTest, AFailedWriteLeavesTheFileAsItWas)
{
    WriteStore();
    ASSERT_EQ(kxRuleWrite(), 0);
    const std::string before = ReadFile("KxRl0002.dat");
    ASSERT_EQ(kxRuleDeleteRule(2, 10), 0);
    std::filesystem::remove(PathOf("KxRl0002.dat"));
    std::filesystem::create_directory(PathOf("KxRl0002.dat")); // neither move nor copy can replace a directory
    EXPECT_EQ(kxRuleWrite(), KXRULE_E_FILE_WRITE);
    std::filesystem::remove(PathOf("KxRl0002.dat"));
    WriteFile("KxRl0002.dat", before);
    EXPECT_EQ(kxRuleWrite(), 0) << "the set is still marked";
    EXPECT_NE(ReadFile("KxRl0002.dat"), before);
    size_t temporary = 0;
    for (const std::string& name : Names())
        temporary += name.rfind("Rul", 0) == 0 && name.rfind("RuleB", 0) != 0;
    EXPECT_EQ(temporary, 1u) << "the temporary file of the failed write stays";
    std::filesystem::create_directory(PathOf("KxRl0003.dat"));
    ASSERT_EQ(AddSet(3), 0);
    EXPECT_EQ(kxRuleWrite(), KXRULE_E_FILE_WRITE);
    ASSERT_EQ(kxRuleDeleteRuleSet(0xAB), 0); // writes the list
    Reopen();
    EXPECT_EQ(SetIndexes(), (Indexes{1, 2})) << "a file that never came to be is not listed";
}

TEST_F(FilesTest, TheMasterFileNamesTheMacroFile)
{
    WriteStore();
    Close();
    const std::string others = ReadFile("KxRulMac.dat"); // one macro
    WriteFile("KxRulMas.dat", ReadBytes("tests/data/master-many.dat"));
    WriteFile("OtherMac.dat", ReadBytes("tests/data/macros.dat"));
    Open();
    EXPECT_EQ(kxRuleGetMacroCount(), 3);
    ASSERT_EQ(kxRuleDeleteMacro(), 0);
    Reopen();
    EXPECT_EQ(kxRuleGetMacroCount(), 0) << "the name was written back";
    EXPECT_EQ(ReadFile("OtherMac.dat"), ReadBytes("tests/data/macros-empty.dat"));
    EXPECT_EQ(ReadFile("KxRulMac.dat"), others);
    Close();
    ASSERT_EQ(kxRuleInitialize(Directory().c_str(), nullptr), 0);
    ASSERT_EQ(kxRuleWrite(), 0);
    EXPECT_EQ(ReadFile("KxRulMac.dat").size(), 44u) << "a new life begins with the default name";
}

TEST_F(FilesTest, FileNamesOfTheCaller)
{
    ASSERT_EQ(kxRuleFinalize(), 0);
    ASSERT_EQ(kxRuleInitialize(Directory().substr(0, Directory().size() - 1).c_str(), "other.dat"), 0);
    ASSERT_EQ(AddSet(1), 0);
    ASSERT_EQ(kxRuleWrite(), 0);
    EXPECT_TRUE(Exists("other.dat"));
    Reopen();
    EXPECT_EQ(SetIndexes(), Indexes{}) << "the default name again, so rule set files without a master file";
    ASSERT_EQ(kxRuleFinalize(), 0);
    ASSERT_EQ(kxRuleInitialize(PathOf("new").c_str(), ""), 0);
    EXPECT_TRUE(std::filesystem::is_directory(PathOf("new"))) << "the directory is made, one level";
    ASSERT_EQ(kxRuleFinalize(), 0);
    ASSERT_EQ(kxRuleInitialize(nullptr, "own-folder.dat"), 0);
    ASSERT_EQ(kxRuleDeleteRuleSet(0), 0);
    ASSERT_EQ(kxRuleFinalize(), 0);
    EXPECT_TRUE(std::filesystem::remove(TestFolder() / "own-folder.dat")) << "the folder of the library";
    EXPECT_TRUE(std::filesystem::remove(TestFolder() / "KxRulMac.dat"));
}
