// Forged master files. (Other damage: crash/CrashWinTest.cpp.)
#include <algorithm>

#include "persistence/RuleFileNames.h"
#include "tests/support/FileContent.h"
#include "tests/torture/TortureTest.h"

class DamageTest : public TortureTest
{
protected:
    void SetUp() override
    {
        TortureTest::SetUp();
        FillStore(40);
        ASSERT_EQ(kxRuleWrite(), 0);
        m_Good = Snapshot();
    }
    /// Reads the directory with another master file; whatever the result, nothing else must suffer.
    void Try(const std::string& content)
    {
        ASSERT_EQ(kxRuleFinalize(), 0);
        Files files = m_Good;
        files[FileFormat::kMasterFileName] = content;
        Restore(files);
        WriteBytes(Outside(), "outside");
        ASSERT_EQ(kxRuleInitialize(Directory().c_str(), nullptr), 0);
        EXPECT_EQ(kxRuleRead(), 0);
        EXPECT_EQ(ReadBytes(Outside()), "outside");
        files.erase(FileFormat::kMasterFileName);
        ExpectNothingLost(Snapshot(), files);
    }
    static std::string MasterFile(const MasterFields& fields)
    {
        FileContent content;
        content.Master = fields;
        const std::vector<uint8_t> bytes = content.Write(FileContent::Kind::Master);
        return {bytes.begin(), bytes.end()};
    }
    [[nodiscard]] std::filesystem::path Outside() const
    {
        return std::filesystem::path(Directory()).parent_path().parent_path() /
               (std::filesystem::path(Directory()).parent_path().filename().string() + "-outside.dat");
    }
    void TearDown() override
    {
        TortureTest::TearDown();
        std::filesystem::remove(Outside());
    }

    Files m_Good;
};

// Whoever may write the directory can forge a master file. It must not make the library touch anything outside.
TEST_F(DamageTest, HostileNamesInTheMasterFile)
{
    Campaign campaign("damaged: hostile names in the master file");
    const std::string outside = Outside().filename().string();
    const std::string names[] = {"..\\" + outside,
                                 "../" + outside,
                                 Outside().string(),
                                 ".",
                                 "..",
                                 "",
                                 " ",
                                 "x.",
                                 "x ",
                                 "NUL",
                                 "con.dat",
                                 "COM1",
                                 "KxRl0001.dat:stream",
                                 "a\\b",
                                 "*",
                                 "KxRl????.dat",
                                 "\x01",
                                 "|",
                                 "KxRulMas.dat",
                                 "kxrulmac.DAT",
                                 std::string(5000, 'n'),
                                 std::string("a\0b", 3)};
    for (const std::string& name : names)
    {
        for (const bool isMacroFile : {false, true})
        {
            SCOPED_TRACE((isMacroFile ? "macro file " : "rule set ") + name);
            campaign.Count(1);
            const MasterFields fields{isMacroFile ? name : FileFormat::kMacroFileName,
                                      1,
                                      {},
                                      {"KxRl0001.dat", isMacroFile ? "KxRl0002.dat" : name, "KxRl0002.dat"}};
            Try(MasterFile(fields));
            EXPECT_EQ(Rules(1).size(), 3u);
            EXPECT_EQ(Rules(2).size(), 40u);
            ASSERT_EQ(kxRuleAddMacro(Build::Macro("m", {Build::Item("x")}).get()), 0);
            EXPECT_EQ(kxRuleWrite(), 0);
            EXPECT_EQ(ReadBytes(Outside()), "outside");
            ASSERT_EQ(kxRuleDeleteRuleSet(0), 0);
            EXPECT_EQ(ReadBytes(Outside()), "outside");
            ASSERT_FALSE(HasFailure());
        }
    }
    // More than can be added; each is missing, and rescued.
    MasterFields fields{FileFormat::kMacroFileName, 1, {}, {}};
    for (uint16_t index = 1; index <= KXRULE_MAX_RULESETS + 6; ++index)
        fields.RuleSetFileNames.push_back(RuleFiles::RuleSetFileName(index));
    Try(MasterFile(fields));
    for (int life = 0; life < 2; ++life)
    {
        EXPECT_EQ(SetIndexes().size(), 70u);
        EXPECT_EQ(AddSet(0), KXRULE_E_TOO_MANY_RULESETS);
        Reopen();
    }
    Try(MasterFile({FileFormat::kMacroFileName, 0, {}, {}}));
    EXPECT_EQ(AddSet(0), 0);
    EXPECT_EQ(SetIndexes(), std::vector<uint16_t>{1}) << "0, the next one in the file, is no index";
}
