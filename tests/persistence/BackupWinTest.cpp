// What tests/api does not reach: backups in one second, and those that cannot be made.
#include "common/srclib/KxComn_Handle.h"
#include "persistence/Backup.h"

#include <gtest/gtest.h>

#include <set>

#include "tests/standins/TraceRecorder.h"
#include "tests/support/TempDir.h"

namespace
{

class BackupTest : public testing::Test
{
protected:
    TempDir Dir;
    const std::string Path = Dir.Path().string() + '\\';

    void Fill(const std::string& content)
    {
        for (const char* const name : {"Mine.dat", "KxRulMac.dat", "KxRl0001.dat"})
            WriteBytes(Dir / name, name + content);
    }
    [[nodiscard]] std::multiset<std::string> Contents() const
    {
        std::multiset<std::string> contents;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(Dir.Path()))
            if (entry.is_regular_file())
                contents.insert(ReadBytes(entry.path()));
        return contents;
    }
};

TEST_F(BackupTest, SeveralInOneSecondLoseNothing)
{
    std::multiset<std::string> expected;
    for (const std::string content : {"1", "2", "3"})
    {
        Fill(content);
        EXPECT_TRUE(Backup::SafetyCopy().Complete(Path, "Mine.dat", "KxRulMac.dat"));
        static_cast<void>(Backup::BackupAllRules(Path, "Mine.dat")); // from the second on they find their names taken
        for (const std::string name : {"Mine.dat", "KxRulMac.dat", "KxRl0001.dat"})
            expected.insert(name + content);
    }
    const std::multiset<std::string> contents = Contents();
    for (const std::string& content : expected)
        EXPECT_GE(contents.count(content), 1u) << content;
}

TEST_F(BackupTest, FailuresAreToldAndLeaveTheFiles)
{
    TraceRecorder trace;
    Fill("1");
    WriteBytes(Dir / "RuleBackup", "a file in place of the directory");
    const std::multiset<std::string> before = Contents();
    EXPECT_FALSE(Backup::BackupAllRules(Path, "Mine.dat"));
    EXPECT_FALSE(Backup::SafetyCopy().Complete(Path, "Mine.dat", "KxRulMac.dat"));
    trace.Take();
    EXPECT_EQ(Backup::KeepBroken(Path, "KxRl0001.dat", true), DWORD{ERROR_PATH_NOT_FOUND});
    EXPECT_FALSE(Backup::MoveBroken(Path, "KxRl0001.dat"));
    EXPECT_EQ(trace.Take(), std::vector<std::string>{"!!! \tCopyFile() failed (3): " + Path + "KxRl0001.dat -> " +
                                                     Path + "RuleBackup\\KxRl0001.dat.brk"});
    EXPECT_EQ(Backup::KeepBroken(Path, "missing.dat", true), 0u);
    EXPECT_EQ(Contents(), before);
}

TEST_F(BackupTest, ASafetyCopyIsOneHoweverManyTriesItTakes)
{
    Backup::SafetyCopy copy;
    EXPECT_TRUE(copy.Complete(Path, "Mine.dat", "KxRulMac.dat"));
    EXPECT_FALSE(std::filesystem::exists(Dir / "RuleBackup")) << "nothing to copy";
    Fill("1");
    {
        const KxCommon::UniqueFile held(
            ::CreateFileW((Dir / "KxRulMac.dat").c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(held);
        for (int i = 0; i < 3; ++i)
            EXPECT_FALSE(copy.Complete(Path, "Mine.dat", "KxRulMac.dat"));
    }
    EXPECT_TRUE(copy.Complete(Path, "Mine.dat", "KxRulMac.dat"));
    std::multiset<std::string> twice;
    for (const std::string name :
         {"Mine.dat1", "KxRulMac.dat1", "KxRl0001.dat1", "Mine.dat1", "KxRulMac.dat1", "KxRl0001.dat1"})
        twice.insert(name);
    EXPECT_EQ(Contents(), twice);
}

TEST_F(BackupTest, AnEarlierBrokenFileGivesWayToADamagedOneAlone)
{
    const auto kept = [this](const char* end)
    { return ReadBytes(Dir / "RuleBackup" / (std::string("KxRl0001.dat.brk") + end)); };
    const auto keep = [this](const char* content, bool mayReplace)
    {
        Fill(content);
        EXPECT_EQ(Backup::KeepBroken(Path, "KxRl0001.dat", mayReplace), 0u);
    };
    keep("1", false);
    keep("2", false);
    EXPECT_EQ(kept("") + ' ' + kept("_"), "KxRl0001.dat1 KxRl0001.dat2") << "perhaps only busy";
    keep("3", true);
    EXPECT_EQ(kept("") + ' ' + kept("_"), "KxRl0001.dat3 KxRl0001.dat2");
    std::filesystem::remove(Dir / "RuleBackup" / "KxRl0001.dat.brk");
    std::filesystem::create_directory(Dir / "RuleBackup" / "KxRl0001.dat.brk"); // cannot be written over
    keep("4", true);
    Fill("5");
    EXPECT_TRUE(Backup::MoveBroken(Path, "KxRl0001.dat"));
    EXPECT_EQ(kept("__") + ' ' + kept("___"), "KxRl0001.dat4 KxRl0001.dat5");
    EXPECT_FALSE(std::filesystem::exists(Dir / "KxRl0001.dat"));
}

} // namespace
