// What the store says and answers when its files are damaged, or cannot be read or written. tests/data/trace-*.txt show
// the whole of three lives.
#include "repository/RuleMaster.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <regex>

#include "tests/standins/TraceRecorder.h"
#include "tests/support/FileContent.h"
#include "tests/support/FileFaults.h"

namespace
{

using Operation = FileFaults::Operation;
using Files = std::map<std::string, std::string>;

std::string Text(const std::vector<uint8_t>& bytes)
{
    return {bytes.begin(), bytes.end()};
}

std::string MasterFile(const char* macroFile)
{
    FileContent content;
    content.Master = {macroFile, 3, {1}, {"KxRl0001.dat", "KxRl00AB.dat"}};
    return Text(content.Write(FileContent::Kind::Master));
}

std::string Rescued(const char* file, const char* code)
{
    return std::string("\tCRuleSet::Read() error ") + code + " (file=\"" + file +
           "\")\n\tCreating a rescue RuleSet instead of a broken/deleted RuleSet " + file + "\n";
}

TEST(RuleMasterFiles, WhatIsSaidOfDamage)
{
    const std::string master = "KxRulMas.dat", macros = "KxRulMac.dat", one = "KxRl0001.dat", last = "KxRl00AB.dat";
    MemoryStream number, zero;
    ASSERT_TRUE(number.WriteU32(7).Finish() && zero.WriteU16(0).Finish());
    const auto nothing = [](Files&) {};
    const auto put = [](const std::string& file, size_t at, const MemoryStream& record)
    { return [=, bytes = Text(record.Data)](Files& files) { files[file].replace(at, bytes.size(), bytes); }; };
    const auto cut = [](const std::string& file, size_t size)
    { return [=](Files& files) { files[file].resize(size); }; };
    const auto cutLast = [](const std::string& file) { return [=](Files& files) { files[file].pop_back(); }; };
    const std::string exception = "\tCEncryptFile exception occurs\n";
    const struct
    {
        const char* Name;
        std::function<void(Files&)> Damage;
        int32_t Result;
        std::string Said;
        Operation Fault = Operation::Read; // of these calls, those from First to Last are refused
        int First = 1, Last = 0;
        bool IsWritten = false; // read whole, changed and written; otherwise read
    } rows[] = {
        {"no master", [&](Files& files) { files.erase(master); }, 0,
         "Master file open failed. But ruleset file exists.\n\tRead master file failed [Garbage ruleset file "
         "exists]\n"},
        {"master refused", nothing, 0, "\tMasterFile read error\n\tRead master file failed [Read fail]\n",
         Operation::Read, 1, 2},
        {"master empty", cut(master, 0), 0,
         "\tMasterFile does not match magic\n\tRead master file failed [Wrong magic]\n"},
        {"master version", put(master, 4, number), 0,
         "\tMasterFile does not match file version\n\tRead master file failed [Wrong version]\n"},
        {"master cut", cut(master, 30), 0, exception},
        {"macro file elsewhere", [&](Files& files) { files[master] = MasterFile("..\\x"); }, 0,
         "\tMacro file name ignored (..\\x)\n"},
        {"macros refused", nothing, -10056, "\tMacroFile read error\n\tReadMacroFile error (-10056)\n", Operation::Read,
         2, 3},
        {"macros empty", cut(macros, 0), -10060, "\tMacroFile does not match magic\n\tReadMacroFile error (-10060)\n"},
        {"macros version", put(macros, 4, number), -10060,
         "\tMasterFile does not match version\n\tReadMacroFile error (-10060)\n"},
        {"macros cut", cut(macros, 50), -10056, exception + "\tReadMacroFile error (-10056)\n"},
        {"macros cut in an item", cutLast(macros), -10056,
         "\tMasterFile read value error\n\tReadMacroFile error (-10056)\n"},
        {"no set", [&](Files& files) { files.erase(one); }, 0,
         "\tFile open error\n" + Rescued("KxRl0001.dat", "-10055")},
        {"set refused", nothing, 0, "\tFile read error\n" + Rescued("KxRl0001.dat", "-10056"), Operation::Read, 3, 4},
        {"set empty", cut(one, 0), 0, "\tFile magic does not match\n" + Rescued("KxRl0001.dat", "-10059")},
        {"set version", put(one, 4, number), 0, "\tFile version does not match\n" + Rescued("KxRl0001.dat", "-10059")},
        {"set cut", cut(one, 30), 0, exception + Rescued("KxRl0001.dat", "-10056")},
        {"set index 0", put(one, 24, zero), 0, "\tFile index is 0\n" + Rescued("KxRl0001.dat", "-10056")},
        {"set cut in a rule", cutLast(one), 0, "\tFile read error [Body]\n" + Rescued("KxRl0001.dat", "-10056")},
        {"one index twice", [&](Files& files) { files[last] = files[one]; }, 0,
         "\tRuleSet index 1 is listed twice, the later file counts (file=\"KxRl00AB.dat\")\n"},
        {"rescue of an index that is there", [&](Files& files) { files[one].swap(files[last]), files[last] = ""; }, 0,
         "\tFile magic does not match\n" + Rescued("KxRl00AB.dat", "-10059") +
             "\tNo rescue RuleSet for index 171 (file=\"KxRl00AB.dat\")\n"},
        {"rescue not written, but the last one is good", cut(one, 0), 0,
         "\tFile magic does not match\n" + Rescued("KxRl0001.dat", "-10059") +
             "\tFile write error [File-Body]\n\tFail to create RuleSet file (-10057)\n",
         Operation::Write, 1, 1},
        {"last rescue not written", cut(last, 0), -10057,
         "\tFile magic does not match\n" + Rescued("KxRl00AB.dat", "-10059") +
             "\tFile write error [File-Body]\n\tFail to create RuleSet file (-10057)\n"
             "\tReadRuleSetFile error (-10057)\n",
         Operation::Write, 1, 1},
        {"macros not opened", nothing, -10055, "\tFile open error (Mac#.tmp)\n\tWriteMacroFile error (-10055)\n",
         Operation::Open, 1, 1, true},
        {"set not opened", nothing, -10055, "\tFile open error\n\tWriteRuleSetFile error (-10055)\n", Operation::Open,
         2, 2, true},
        {"master not opened", nothing, -10055, "\tFile open error (Mas#.tmp)\n\tWriteMasterFile error (-10055)\n",
         Operation::Open, 3, 3, true},
        {"macros not written", nothing, -10057, "\tFile write error\n\tWriteMacroFile error (-10057)\n",
         Operation::Write, 1, 1, true},
        {"set not written", nothing, -10057, "\tFile write error [File-Body]\n\tWriteRuleSetFile error (-10057)\n",
         Operation::Write, 2, 2, true},
        {"master not written", nothing, -10057, exception + "\tWriteMasterFile error (-10057)\n", Operation::Write, 3,
         3, true},
    };
    TraceRecorder trace;
    FileFaults faults;
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.Name);
        const TempDir dir;
        Files files = {{master, MasterFile("KxRulMac.dat")},
                       {macros, ReadBytes("tests/data/macros.dat")},
                       {one, ReadBytes("tests/data/ruleset.dat")},
                       {last, ReadBytes("tests/data/ruleset-empty.dat")}};
        row.Damage(files);
        for (const auto& [name, content] : files)
            WriteBytes(dir / name, content);
        CCriticalSectionLock outer(KxCommon::Synchronize::LockRank::Global);
        const KxCommon::Synchronize::ScopedLock<CCriticalSectionLock> guard(outer);
        CRuleMaster store(outer);
        ASSERT_EQ(store.Init(dir.Path().string(), nullptr), 0);
        if (row.IsWritten)
        {
            ASSERT_EQ(store.ReadAll(), 0);
            EXPECT_EQ(store.DeleteRule(1, 9999), -10016); // marks the set
        }
        trace.Take();
        faults.Fail(row.Fault, ERROR_CRC, row.First, row.Last);
        EXPECT_EQ(row.IsWritten ? store.WriteAll() : store.ReadAll(), row.Result);
        faults.Fail(row.Fault, ERROR_SUCCESS);
        std::string said;
        bool saysReturn = false;
        for (const std::string& line : trace.Take())
        {
            if (line.starts_with("!!! "))
                said += line.substr(4) + '\n';
            saysReturn |= line.ends_with("All Return");
        }
        EXPECT_EQ(saysReturn, row.Result == 0);
        const std::string path = dir.Path().string() + '\\';
        for (size_t at; (at = said.find(path)) != std::string::npos;)
            said.erase(at, path.size());
        EXPECT_EQ(std::regex_replace(said, std::regex("(Mas|Mac|Rul)[0-9A-Fa-f]+\\.tmp"), "$1#.tmp"), row.Said);
        store.Finalize();
    }
}

} // namespace
