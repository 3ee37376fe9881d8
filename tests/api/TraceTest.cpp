// What the library traces, line by line: a copy of the DLL with a stand-in trace library beside it.
#include "tests/api/Lives.h"

#include <gtest/gtest.h>

#include <functional>
#include <tuple>
#include <utility>

#include "api/include/KxPfwRule.h"
#include "tests/support/RecordBuilder.h"

#define KX_CALL(function, ...) KX_CALL_OF(m_Lives.Library, function, __VA_ARGS__)

class TraceTest : public testing::Test
{
protected:
    Lives m_Lives;
};

TEST_F(TraceTest, WholeLives)
{
    ASSERT_EQ(m_Lives.Run("open; read; add 0; write; add 1 =-10015; delete 9 =-10015"), "");
    EXPECT_EQ(m_Lives.Said(), ReadBytes("tests/data/trace-life.txt"));
    ASSERT_EQ(m_Lives.Run("end; store 1 2; plain mas; plain mac; open"), "");
    m_Lives.Said();
    ASSERT_EQ(m_Lives.Run("read =-10060; flush; end"), "");
    EXPECT_EQ(m_Lives.Said(), ReadBytes("tests/data/trace-recovery.txt"));
}

TEST_F(TraceTest, Errors)
{
    const auto rescued = [](const std::string& code, const char* file = "KxRl0001.dat")
    {
        return "\tCRuleSet::Read() error " + code + " (file=\"" + file +
               "\")\n\tCreating a rescue RuleSet instead of a broken/deleted RuleSet " + file + "\n";
    };
    const std::string exception = "\tCEncryptFile exception occurs\n";
    const std::pair<const char*, std::string> rows[] = {
        {"refuse CreateMutexW; open =-10063; open =-10063", "Failed to Get Mutex (112)\nFailed to Get Mutex (112)\n"},
        {"remove mas; life", "Master file open failed. But ruleset file exists.\n\tRead master file failed [Garbage "
                             "ruleset file exists]\n"},
        {"refuse ReadFile; life =-10056",
         "\tMasterFile read error\n\tRead master file failed [Read fail]\n\tMacroFile read error\n"
         "\tReadMacroFile error (-10056)\n"},
        {"hold mas none; open; read =-10055", "\tReadMasterFile error (-10055)\n"},
        {"hold mac none; open; read =-10055", "\tReadMacroFile error (-10055)\n"},
        {"life; rename vol away; macro; write =-10055; delete 2 =-10055; rename away vol",
         "\tFile open error ()\n\tWriteMacroFile error (-10055)\n\tFile open error ()\n"},
        {"version mas; life", "\tMasterFile does not match file version\n\tRead master file failed [Wrong version]\n"},
        {"cut mas 30; life", exception},
        {"list ..\\x KxRl0001.dat; life", "\tMacro file name ignored (..\\x)\n"},
        {"list KxRl0001.dat KxRl0001.dat; life", "\tMacro file name ignored (KxRl0001.dat)\n"},
        {"list kxrulmas.DAT KxRl0001.dat; life", "\tMacro file name ignored (kxrulmas.DAT)\n"},
        {"list KxRulMac.dat KxRl0001.dat ..\\x kxrl0001.DAT KxRulMas.dat kxrulmac.DAT; life",
         "\tCRuleSet::Read() error -10055 (file=\"..\\x\")\n"
         "\tCRuleSet::Read() error -10055 (file=\"KxRulMas.dat\")\n"
         "\tCRuleSet::Read() error -10055 (file=\"kxrulmac.DAT\")\n"},
        {"version mac; life =-10060", "\tMasterFile does not match version\n\tReadMacroFile error (-10060)\n"},
        {"cut mac 50; life =-10056", exception + "\tReadMacroFile error (-10056)\n"},
        {"cut mac; life =-10056", "\tMasterFile read value error\n\tReadMacroFile error (-10056)\n"},
        {"remove 1; life", "\tFile open error\n" + rescued("-10055")},
        {"cut 1 0; life", "\tFile magic does not match\n" + rescued("-10059")},
        {"version 1; life", "\tFile version does not match\n" + rescued("-10059")},
        {"cut 1 30; life", exception + rescued("-10056")},
        {"remove 2; copy 1 2; life",
         "\tRuleSet index 1 is listed twice, the later file counts (file=\"KxRl0002.dat\")\n"},
        {"ring 1 2; cut 2; life", "\tFile read error [Body]\n" + rescued("-10056", "KxRl0002.dat") +
                                      "\tNo rescue RuleSet for index 2 (file=\"KxRl0002.dat\")\n"},
        {"cut 2; refuse GetTempFileNameA; life =-10055",
         "\tFile read error [Body]\n" + rescued("-10056", "KxRl0002.dat") +
             "\tFile open error\n\tFail to create RuleSet file (-10055)\n\tReadRuleSetFile error (-10055)\n"},
        {"cut 1; hold 2 none; open; read =-10057",
         "\tFile read error [Body]\n" + rescued("-10056") + "\tFile open error\n" + rescued("-10055", "KxRl0002.dat") +
             "\tCopyFile() failed 32 (DIR\\Rul#.tmp -> DIR\\KxRl0002.dat)\n"
             "\tFail to create RuleSet file (-10057)\n\tReadRuleSetFile error (-10057)\n"},
        {"cut 1; refuse WriteFile; life",
         "\tFile read error [Body]\n" + rescued("-10056") +
             "\tFile write error [File-Body]\n\tFail to create RuleSet file (-10057)\n"},
        {"life; macro; refuse GetTempFileNameA; write =-10055",
         "\tFile open error ()\n\tWriteMacroFile error (-10055)\n"},
        {"life; macro; refuse WriteFile; write =-10057", "\tFile write error\n\tWriteMacroFile error (-10057)\n"},
        {"life; macro; refuse FlushFileBuffers; write =-10057",
         "\tFile write error\n\tWriteMacroFile error (-10057)\n"},
        {"life; macro; refuse MoveFileExA; write", ""},
        {"life; macro; refuse MoveFileExA; refuse CopyFileA; write =-10057",
         "\tCopyFile() failed 112 (DIR\\Mac#.tmp -> DIR\\KxRulMac.dat)\n\tWriteMacroFile error (-10057)\n"},
        {"life; macro; refuse MoveFileExA; refuse DeleteFileA; write",
         "\tDeleteFile() failed 112 (DIR\\Mac#.tmp)\n\tDeleteFile() failed 112 (DIR\\Mas#.tmp)\n"},
        {"life; rule 1; hold 1 none; write =-10057",
         "\tCopyFile() failed 32 (DIR\\Rul#.tmp -> DIR\\KxRl0001.dat)\n\tWriteRuleSetFile error (-10057)\n"},
        {"life; macro; hold mas none; write =-10057",
         "\tCopyFile() failed 32 (DIR\\Mas#.tmp -> DIR\\KxRulMas.dat)\n\tWriteMasterFile error (-10057)\n"},
    };
    for (const auto& [script, said] : rows)
    {
        m_Lives.Trace->Level = 256;
        ASSERT_EQ(m_Lives.Run("remove .; store 1 2"), "") << script;
        m_Lives.Said();
        EXPECT_EQ(m_Lives.Run(script), "");
        EXPECT_EQ(m_Lives.Said(true), said) << script;
        ASSERT_EQ(m_Lives.Run("release; end"), "");
    }
}

// Between an export's own two lines is what it has to say; one that refuses at once does not say its result.
TEST_F(TraceTest, CallsSayTheirNameAndTheirResult)
{
    ASSERT_EQ(m_Lives.Run("open"), "");
    PFW_RULE rule = Build::Access(2), got{}, blank = Build::Access(1);
    rule.dwActive = 7;
    blank.Access.Port[0] = Build::PortList("");
    std::vector<PFW_RULE> tooMany(KXRULE_MAX_RULES + 1, rule);
    for (uint16_t i = 0; i <= KXRULE_MAX_RULES; ++i)
        tooMany[i].wRuleIndex = i;
    auto macro = Build::Macro("m", {Build::Item("a")});
    const uint16_t active[] = {5, 65281, 0}; // the first of two that are wrong counts
    KX_CALL(kxRuleAddRuleSet, 1, Build::RuleSet(1, L"set", {rule, Build::Access(3)}).get());
    m_Lives.Said();
    const char* const silent = "silent";
    const char* const result = "result";
#define KX_ROW(code, said, function, ...)                                                                              \
    {                                                                                                                  \
#function, [&] { return KX_CALL(function __VA_OPT__(, ) __VA_ARGS__); }, code, said                            \
    }
    const std::tuple<std::string, std::function<int32_t()>, int32_t, std::string> rows[] = {
        KX_ROW(0, result, kxRuleSetActiveRuleSet, nullptr, 0),
        KX_ROW(0, result, kxRuleGetActiveRuleSet, nullptr, 0),
        KX_ROW(1, result, kxRuleGetRuleSetIndex, nullptr, 0),
        KX_ROW(2, result, kxRuleGetRuleSet, 1, nullptr, 0),
        KX_ROW(2, result, kxRuleGetRuleTopIndex, 1),
        KX_ROW(-10015, result, kxRuleGetRuleBottomIndex, 9),
        KX_ROW(7, result, kxRuleIsRuleActive, 1, 2),
        KX_ROW(21, result, kxRuleGetRuleString, 1, 2, nullptr, 0),
        KX_ROW(21, result, kxRuleGetRuleString2, &rule, nullptr, 0),
        KX_ROW(-10012, result, kxRuleGetRuleString2, nullptr, nullptr, 0),
        KX_ROW(0, result, kxRuleAddMacro, macro.get()),
        KX_ROW(1, result, kxRuleGetMacroCount),
        KX_ROW(177, result, kxRuleGetMacro, nullptr, 0),
        KX_ROW(0, result, kxRuleDeleteMacro),
        KX_ROW(-10016, result, kxRuleDeleteRule, 1, 3333),
        KX_ROW(-10019, result, kxRuleAddRule, 1, 2, &rule),
        KX_ROW(0, silent, kxRuleGetRule, 1, 2, &got),
        KX_ROW(3, silent, kxRuleGetMacroString, macro.get(), nullptr, 0),
        KX_ROW(-10012, silent, kxRuleGetMacroString, nullptr, nullptr, 0),
        KX_ROW(-10061,
               "@@@ rule path not specified. will use dll's location as rule path - KxPfwRule.cpp\n"
               "!!! Already Initialized",
               kxRuleInitialize, nullptr, nullptr),
        KX_ROW(-10012, "@@@ Pointer to array of rule set is NULL but nCount is not ZERO.", kxRuleSetActiveRuleSet,
               nullptr, 1),
        KX_ROW(-10015, "!!! Invalid RuleSet index (65281)", kxRuleSetActiveRuleSet, &active[0], 3),
        KX_ROW(-10012, "@@@ Pointer to structure of rule set is NULL.", kxRuleAddRuleSet, 0, nullptr),
        KX_ROW(-10064, "", kxRuleAddRuleSet, 0, Build::RuleSet(1, L"", {blank}).get()),
        KX_ROW(-10018,
               "@@@ CRuleMaster::AddRuleSet Enter - RuleMaster.cpp\n"
               "@@@ CRuleMaster::AddRuleSet Return (-10018) - RuleMaster.cpp\n"
               "@@@ \tIndex:7 - KxPfwRule.cpp\n@@@ kxRuleAddRuleSet Return (-10018)",
               kxRuleAddRuleSet, 0, Build::RuleSet(7, L"", tooMany).get()),
        KX_ROW(-10012, "@@@ Pointer of Rule structure is NULL.", kxRuleAddRule, 0, 0, nullptr),
        KX_ROW(-10064, "", kxRuleAddRule, 0, 0, &blank),
        KX_ROW(-10012, "@@@ Pointer of Macro structure is NULL.", kxRuleAddMacro, nullptr),
    };
#undef KX_ROW
    for (const auto& [name, call, code, said] : rows)
    {
        EXPECT_EQ(call(), code) << name;
        const std::string lines = said == result ? "@@@ " + name + " Return (" + std::to_string(code) + ")" : said;
        const std::string all = "@@@ " + name + " Enter - KxPfwRule.cpp\n" + lines;
        EXPECT_EQ(m_Lives.Said(), said == silent ? "" : all + (lines.empty() ? "" : " - KxPfwRule.cpp\n"));
    }
    ASSERT_EQ(m_Lives.Run("end"), "");
}
