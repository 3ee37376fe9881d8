// What tests/api does not reach: backups in one second, and those that cannot be made.
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
        EXPECT_TRUE(Backup::CopyAllRules(Path, "Mine.dat", "KxRulMac.dat"));
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
    EXPECT_FALSE(Backup::CopyAllRules(Path, "Mine.dat", "KxRulMac.dat"));
    trace.Take();
    EXPECT_FALSE(Backup::KeepBroken(Path, "KxRl0001.dat"));
    EXPECT_EQ(trace.Take(), std::vector<std::string>{"!!! \tCopyFile() failed (3): " + Path + "KxRl0001.dat -> " +
                                                     Path + "RuleBackup\\KxRl0001.dat.brk"});
    EXPECT_TRUE(Backup::KeepBroken(Path, "missing.dat"));
    EXPECT_EQ(Contents(), before);
}

} // namespace
