// The store on disk, through the exports: what is read back, and from where. LivesTest.cpp tests what is written when,
// and what happens to damage.
#include "tests/api/StoreFixture.h"

#include <filesystem>

#include "common/srclib/KxComn_Handle.h"
#include "tests/standins/HashStandIn.h"
#include "tests/support/FileContent.h"
#include "tests/support/RegistryGuard.h"

using Indexes = std::vector<uint16_t>;

using FilesTest = StoreTest;

// Also those that a later one of the same index replaces: a hash library that watches the calls sees the file as it is.
TEST_F(FilesTest, RulesAreTakenOverInTheOrderOfTheFile)
{
    const RegistryGuard registry;
    const TempDir folder;
    const HashStandIn library(folder.Path());
    library->SetHash(9);
    ASSERT_EQ(AddSet(1), 0);
    registry.SetText(L"InstallPath", folder.Path().native());
    for (const Indexes& order : {Indexes{5, 7, 7}, Indexes{7, 5, 5, 7, 6}})
    {
        Close();
        FileContent content;
        content.Set = {1, L"set", 0};
        std::vector<std::wstring> paths;
        for (const uint16_t index : order)
        {
            paths.push_back(std::to_wstring(paths.size()) + L".exe");
            content.Rules.push_back(Build::Access(index, paths.back().c_str()));
        }
        const std::vector<uint8_t> bytes = content.Write(FileContent::Kind::RuleSet);
        WriteFile("KxRl0001.dat", std::string(bytes.begin(), bytes.end()));
        library->Paths.clear();
        Open();
        EXPECT_EQ(library->Paths, paths);
        for (const PFW_RULE& rule : Rules(1))
            EXPECT_EQ(rule.Access.abAppHash[0], 9) << rule.wRuleIndex;
    }
}

// Only if they already contain what would be written, and nobody else has written them or has them open.
TEST_F(FilesTest, MasterAndMacroFileAreNotWrittenAgain)
{
    ASSERT_EQ(AddSet(1), 0);
    ASSERT_EQ(kxRuleAddMacro(Build::Macro("web", {Build::Item("a")}).get()), 0);
    ASSERT_EQ(kxRuleWrite(), 0);
    const auto open = [this](const std::string& name)
    {
        return KxCommon::UniqueFile(::CreateFileA(PathOf(name).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    };
    const auto number = [&](const std::string& name)
    {
        BY_HANDLE_FILE_INFORMATION info{};
        static_cast<void>(::GetFileInformationByHandle(open(name).get(), &info));
        return uint64_t{info.nFileIndexHigh} << 32 | info.nFileIndexLow;
    };
    uint16_t index = 0;
    const auto isReplaced = [&](const std::string& name)
    {
        const PFW_RULE rule = Build::Access(++index);
        const uint64_t before = number(name);
        EXPECT_EQ(kxRuleAddRule(1, index, &rule), 0);
        EXPECT_EQ(kxRuleFlush(), 0);
        return number(name) != before;
    };
    EXPECT_TRUE(isReplaced("KxRl0001.dat"));
    for (const std::string name : {"KxRulMas.dat", "KxRulMac.dat"})
    {
        const std::filesystem::path path = PathOf(name);
        EXPECT_FALSE(isReplaced(name));
        const std::string bytes = ReadFile(name);
        for (size_t at = 0; at <= bytes.size(); at += 29)
        {
            std::string changed = bytes;
            changed.resize(std::max(bytes.size(), at + 1));
            changed[at] ^= 1;
            const auto time = std::filesystem::last_write_time(path);
            WriteFile(name, changed);
            std::filesystem::last_write_time(path, time);
            EXPECT_TRUE(isReplaced(name)) << name << " changed at " << at;
            EXPECT_EQ(ReadFile(name), bytes);
        }
        std::filesystem::last_write_time(path, std::filesystem::last_write_time(path) + std::chrono::seconds(1));
        EXPECT_TRUE(isReplaced(name)) << "touched";
        std::filesystem::remove(path);
        EXPECT_TRUE(isReplaced(name)) << "gone";
        EXPECT_FALSE(isReplaced(name));
        const KxCommon::UniqueFile holder = open(name);
        EXPECT_EQ(kxRuleWrite(), KXRULE_E_FILE_WRITE) << "nothing would change, and it is held";
    }
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
    ASSERT_EQ(kxRuleInitialize(Directory().c_str(), "KxRl0005.dat"), 0);
    ASSERT_EQ(AddSet(5), 0);
    EXPECT_EQ(kxRuleWrite(), KXRULE_E_FILE_WRITE) << "two files of one name";
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

// The next index is 0, which is none; then there are more sets than can be added, each missing and rescued.
TEST_F(FilesTest, AForgedMasterFile)
{
    FileContent forged;
    for (const size_t sets : {0, KXRULE_MAX_RULESETS + 6})
    {
        std::vector<std::string>& names = forged.Master.RuleSetFileNames;
        while (names.size() < sets)
            names.push_back("KxRl00" + std::to_string(10 + names.size()) + ".dat");
        const std::vector<uint8_t> bytes = forged.Write(FileContent::Kind::Master);
        Close();
        WriteFile("KxRulMas.dat", {bytes.begin(), bytes.end()});
        Open();
        EXPECT_EQ(AddSet(0), sets == 0 ? 0 : KXRULE_E_TOO_MANY_RULESETS);
        EXPECT_EQ(SetIndexes().size(), sets == 0 ? 1 : sets);
        EXPECT_NE(SetIndexes().front(), 0);
    }
}
