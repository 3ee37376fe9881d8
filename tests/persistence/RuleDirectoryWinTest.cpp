#include "persistence/RuleDirectory.h"

#include <gtest/gtest.h>

#include <new>
#include <regex>
#include <set>

#include "persistence/RuleFileNames.h"
#include "tests/standins/TraceRecorder.h"
#include "tests/support/FileFaults.h"
#include "tests/support/TempDir.h"

namespace
{

using KxCommon::UniqueFile;
using Operation = FileFaults::Operation;
using Encoder = std::function<int32_t(CEncryptStream&)>;

int32_t WriteNumber(CEncryptStream& stream)
{
    stream.WriteU32(7);
    return 0;
}

class RuleDirectoryTest : public testing::Test
{
protected:
    TempDir Dir;
    const std::string Path = Dir.Path().string() + '\\';
    const std::filesystem::path Target = Dir / "KxRl0001.dat";
    TraceRecorder Trace;

    int32_t Write(const Encoder& encode = WriteNumber, const char* below = "", FileKind kind = FileKind::RuleSet)
    {
        RuleDirectory directory;
        directory.Locate(Path + below, "KxRulMas.dat");
        return directory.Write({kind, "KxRl0001.dat", encode, [](const std::string&) { return 0u; }});
    }
    UniqueFile OpenTarget(DWORD share) const
    {
        return UniqueFile(::CreateFileW(Target.c_str(), GENERIC_READ, share, nullptr, OPEN_EXISTING, 0, nullptr));
    }
    // What a write left: its result, what the file holds, temporary files, and the errors traced. The temporary files
    // are removed, which a handle left open would not allow.
    std::string Outcome(int32_t result)
    {
        std::string text = std::to_string(result);
        const std::string content = ReadBytes(Target);
        text += content.size() == 24 && content.starts_with("KRSF") ? " new" : ' ' + content;
        for (const auto& entry : std::filesystem::directory_iterator(Dir.Path()))
            if (entry.path().extension() == ".tmp")
                text += ::DeleteFileW(entry.path().c_str()) != FALSE ? " +temporary" : " +held";
        for (const std::string& line : Trace.Take())
            text += ' ' + line;
        for (size_t at; (at = text.find(Path)) != std::string::npos;)
            text.erase(at, Path.size());
        return std::regex_replace(text, std::regex("Rul[0-9A-Fa-f]+\\.tmp"), "Rul#.tmp");
    }
};

TEST_F(RuleDirectoryTest, Names)
{
    using namespace std::string_literals;
    EXPECT_EQ(RuleFiles::RuleSetFileName(1), "KxRl0001.dat");
    EXPECT_EQ(RuleFiles::RuleSetFileName(0xFFAB), "KxRlFFAB.dat");
    for (const auto& name : {"KxRl0001.dat"s, "a"s, "a b.c.d"s, "COMA.dat"s, "CONS"s, "\xE4"s, std::string(200, 'x')})
        EXPECT_TRUE(RuleFiles::IsBareName(name)) << name;
    for (const auto& name : {""s,         "."s,
                             ".."s,       "..\\x"s,
                             "x/y"s,      "C:x"s,
                             "x*"s,       "x?"s,
                             "\"x"s,      "x<"s,
                             "x>"s,       "x|y"s,
                             "x\0y"s,     "x\n"s,
                             "x."s,       "x "s,
                             ".x"s,       " x"s,
                             "con"s,      "NUL.dat"s,
                             "Aux .x"s,   "com1"s,
                             "LPT9.a.b"s, "COM\xB9"s,
                             "CONIN$"s,   std::string(201, 'x')})
        EXPECT_FALSE(RuleFiles::IsBareName(name)) << name;

    for (const char* const name : {"KxRl0001.dat", "kxrl00ab.DAT", "KxRl00011.dat", "KxRl0001.data", "KxRl.1.dat"})
        WriteBytes(Dir / name, "x");
    std::filesystem::create_directory(Dir / "KxRl0002.dat");
    RuleDirectory directory;
    directory.Locate(Path, "KxRulMas.dat");
    std::vector<std::string> found;
    EXPECT_TRUE(directory.FindRuleSetFiles(found));
    EXPECT_EQ(found, (std::vector<std::string>{"KxRl0001.dat", "KxRl0002.dat", "kxrl00ab.DAT"}));
    EXPECT_TRUE(RuleFiles::IsRuleSetFileName("KxRl.dat")); // not found everywhere
}

TEST_F(RuleDirectoryTest, WhatStandsInTheWay)
{
    EXPECT_EQ(Outcome(Write()), "0 new");
    WriteBytes(Target, "old");
    EXPECT_EQ(Outcome(Write()), "0 new");
    WriteBytes(Target, "old");
    UniqueFile reader = OpenTarget(FILE_SHARE_READ | FILE_SHARE_WRITE); // lets it be written, not replaced
    EXPECT_EQ(Outcome(Write()), "0 new");
    reader.reset();
    WriteBytes(Target, "old");
    reader = OpenTarget(0);
    int32_t result = Write();
    reader.reset();
    EXPECT_EQ(Outcome(result), "-10057 old +temporary !!! \tCopyFile() failed 32 (Rul#.tmp -> KxRl0001.dat)");

    // Whether the copy is refused depends on the system and the user; a move would lose the attribute.
    for (const DWORD attribute : {FILE_ATTRIBUTE_READONLY, FILE_ATTRIBUTE_HIDDEN, FILE_ATTRIBUTE_SYSTEM})
    {
        WriteBytes(Target, "old");
        ::SetFileAttributesW(Target.c_str(), attribute);
        const DWORD before = ::GetFileAttributesW(Target.c_str());
        result = Write();
        EXPECT_EQ(::GetFileAttributesW(Target.c_str()) & attribute, before & attribute) << attribute;
        EXPECT_EQ(Outcome(result),
                  result == 0 ? "0 new" : "-10057 old +temporary !!! \tCopyFile() failed 5 (Rul#.tmp -> KxRl0001.dat)");
        ::SetFileAttributesW(Target.c_str(), FILE_ATTRIBUTE_NORMAL);
    }
    std::filesystem::remove(Target);
    std::filesystem::create_directory(Target);
    EXPECT_EQ(Outcome(Write()), "-10057  +temporary !!! \tCopyFile() failed 5 (Rul#.tmp -> KxRl0001.dat)");
    EXPECT_EQ(Outcome(Write(WriteNumber, "missing\\", FileKind::Macros)), "-10055  !!! \tFile open error ()");
    EXPECT_EQ(Outcome(Write(WriteNumber, "missing\\")), "-10055  !!! \tFile open error");
}

TEST_F(RuleDirectoryTest, EveryStepFailing)
{
    const auto throwsWriteError = [](CEncryptStream&) -> int32_t { throw CEncryptStream::WriteError; };
    const auto throwsBadAlloc = [](CEncryptStream&) -> int32_t { throw std::bad_alloc(); };
    WriteBytes(Target, "old");
    EXPECT_EQ(Outcome(Write([](CEncryptStream&) { return -123; })), "-123 old +temporary");
    EXPECT_EQ(Outcome(Write(throwsWriteError)), "-10057 old +temporary !!! \tCEncryptFile exception occurs");
    EXPECT_EQ(Outcome(Write(throwsBadAlloc)), "-10057 old +temporary !!! \tOut of memory while writing a file");
    const struct
    {
        std::set<Operation> Failing;
        const char* Outcome;
    } cases[] = {
        {{Operation::TemporaryName}, "-10055 old !!! \tFile open error"},
        {{Operation::Open}, "-10055 old +temporary !!! \tFile open error"},
        {{Operation::Write}, "-10057 old +temporary !!! \tFile write error"},
        {{Operation::Flush}, "-10057 old +temporary !!! \tFile write error"},
        {{Operation::Close}, "-10057 old +temporary !!! \tFile write error"},
        {{Operation::Attributes}, "0 new"},
        {{Operation::Move}, "0 new"},
        {{Operation::Move, Operation::Copy},
         "-10057 old +temporary !!! \tCopyFile() failed 112 (Rul#.tmp -> KxRl0001.dat)"},
        {{Operation::Move, Operation::Delete}, "0 new +temporary !!! \tDeleteFile() failed 112 (Rul#.tmp)"},
    };
    FileFaults faults;
    for (const auto& c : cases)
    {
        WriteBytes(Target, "old");
        faults.Fail(c.Failing, ERROR_DISK_FULL);
        EXPECT_EQ(Outcome(Write()), c.Outcome);
        EXPECT_LE(faults.Count(Operation::Copy), 1);
        faults.Fail(c.Failing, ERROR_SUCCESS);
        EXPECT_EQ(Outcome(Write()), "0 new");
    }
    for (const DWORD error : {ERROR_ACCESS_DENIED, ERROR_SHARING_VIOLATION}) // which may pass
    {
        WriteBytes(Target, "old");
        faults.Fail({Operation::Move, Operation::Copy}, error, 1, 3);
        EXPECT_EQ(Outcome(Write()), "0 new");
        faults.Fail({Operation::Move, Operation::Copy}, error);
        EXPECT_TRUE(Outcome(Write()).starts_with("-10057 new +temporary"));
        EXPECT_GT(faults.Count(Operation::Move), 3);
        EXPECT_EQ(faults.Count(Operation::Copy), 1); // only when no move came to pass: it writes into the real file
    }
}

} // namespace
