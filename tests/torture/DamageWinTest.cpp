// Real files, damaged in every way: cut, bits flipped, lengths and counts replaced, records swapped, hostile names.
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
    /// Reads the directory with one file replaced; whatever comes of it, nothing else may suffer.
    void Try(const std::string& name, const std::string& content)
    {
        ASSERT_EQ(kxRuleFinalize(), 0);
        Files files = m_Good;
        files[name] = content;
        Restore(files);
        WriteBytes(Outside(), "outside");
        ASSERT_EQ(kxRuleInitialize(Directory().c_str(), nullptr), 0);
        const int32_t result = kxRuleRead();
        const bool isMacroFile = name == FileFormat::kMacroFileName;
        EXPECT_TRUE(result == 0 || (isMacroFile && (result == KXRULE_E_FILE_READ || result == KXRULE_E_MACRO_FORMAT)))
            << result;
        EXPECT_EQ(ReadBytes(Outside()), "outside");

        // The damaged bytes are kept as well, unless the damage went unnoticed and they are read as they are.
        const Files now = Snapshot();
        Files undamaged = m_Good;
        undamaged.erase(name);
        ExpectNothingLost(now, undamaged);
        ExpectNothingLost(now, {{name, content}});
        if (result == 0 && name != FileFormat::kMasterFileName)
        {
            for (const uint16_t index : {1, 2})
            {
                if (name != (index == 1 ? "KxRl0001.dat" : "KxRl0002.dat"))
                    EXPECT_EQ(Rules(index).size(), index == 1 ? 3u : 40u) << "the set that was not damaged";
                else
                    EXPECT_TRUE(NameOf(index) == L"small" || NameOf(index) == L"large" || Rules(index).size() >= 3)
                        << "neither read nor rescued";
            }
        }
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

TEST_F(DamageTest, CutAtAnyLengthAndAnyBitFlipped)
{
    Campaign campaign("damaged: cut and flip");
    const char* const names[] = {"KxRulMas.dat", "KxRulMac.dat", "KxRl0001.dat"};
    for (uint32_t position = 0; campaign.Next(150); ++position)
    {
        const std::string name = names[position % 3];
        std::string content = m_Good.at(name);
        // The small files byte after byte, the large one anywhere.
        const uint32_t size = static_cast<uint32_t>(content.size());
        const uint32_t at = size < 1000 && campaign.Seconds() != 0 ? position / 3 % size : campaign.Random(size);
        SCOPED_TRACE(name + " at " + std::to_string(at));
        if (campaign.Random(2) == 0)
            content.resize(at);
        else
            content[at] = static_cast<char>(content[at] ^ (1 << campaign.Random(8)));
        Try(name, content);
        ASSERT_FALSE(HasFailure());
    }
}

// Each 4-byte number of each file replaced: the plain length in front of a record, and the number in a record.
TEST_F(DamageTest, LengthsAndCountsReplaced)
{
    Campaign campaign("damaged: lengths and counts");
    for (const char* const name : {"KxRulMas.dat", "KxRulMac.dat", "KxRl0001.dat"})
    {
        const std::string& good = m_Good.at(name);
        for (size_t record = FileFormat::kMagicBytes; record < good.size();)
        {
            uint32_t length = 0;
            std::memcpy(&length, &good[record], sizeof length);
            for (const uint32_t value : {0u, 1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu})
            {
                SCOPED_TRACE(std::string(name) + ", record at " + std::to_string(record) + ", " +
                             std::to_string(value));
                std::string content = good;
                std::memcpy(&content[record], &value, sizeof value);
                Try(name, content);
                if (length == 16) // perhaps a number: a valid record with another one
                {
                    MemoryStream number;
                    ASSERT_TRUE(number.WriteU32(value).Finish());
                    content = good;
                    content.replace(record, 20, std::string(number.Data.begin(), number.Data.end()));
                    Try(name, content);
                }
                campaign.Count(1);
                ASSERT_FALSE(HasFailure());
            }
            record += sizeof length + length;
        }
    }
}

TEST_F(DamageTest, RecordsSwappedBetweenFiles)
{
    Campaign campaign("damaged: records swapped");
    const char* const names[] = {"KxRulMas.dat", "KxRulMac.dat", "KxRl0001.dat", "KxRl0002.dat"};
    while (campaign.Next(60))
    {
        const std::string name = names[campaign.Random(4)];
        const std::string& from = m_Good.at(names[campaign.Random(4)]);
        std::string content = m_Good.at(name);
        const size_t to = 4 + 20 * campaign.Random(static_cast<uint32_t>((content.size() - 4) / 20));
        const size_t at = 4 + 20 * campaign.Random(static_cast<uint32_t>((from.size() - 4) / 20));
        content.replace(to, 20, from, at, 20);
        SCOPED_TRACE(name + " at " + std::to_string(to));
        Try(name, content);
        ASSERT_FALSE(HasFailure());
    }
}

// Whoever may write the directory can forge a master file. Nothing outside the directory may be touched for it.
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
            Try(FileFormat::kMasterFileName, MasterFile(fields));
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
    Try(FileFormat::kMasterFileName, MasterFile(fields));
    for (int life = 0; life < 2; ++life)
    {
        EXPECT_EQ(SetIndexes().size(), 70u);
        EXPECT_EQ(AddSet(0), KXRULE_E_TOO_MANY_RULESETS);
        Reopen();
    }
    Try(FileFormat::kMasterFileName, MasterFile({FileFormat::kMacroFileName, 0, {}, {}}));
    EXPECT_EQ(AddSet(0), 0);
    EXPECT_EQ(SetIndexes(), std::vector<uint16_t>{1}) << "0, the next one in the file, is no index";
}
