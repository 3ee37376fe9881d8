// The trace of one run of the library, line by line, as in tests/data/trace-*.txt: a copy of the DLL with a stand-in
// trace library beside it.
#include "tests/api/Lives.h"

#include <gtest/gtest.h>

#include <functional>
#include <regex>

#include "api/include/KxPfwRule.h"
#include "common/srclib/KxComn_Record.h"
#include "tests/support/RecordBuilder.h"
#include "tests/support/RegistryGuard.h"

#define KX_CALL(function, ...) KX_CALL_OF(m_Lives.Library, function, __VA_ARGS__)

class TraceTest : public testing::Test
{
protected:
    void SetUp() override
    {
        m_Lives.Trace->HasConfig = true;
        m_Lives.Trace->Enable = 1;
        m_Lives.Trace->Level = 1 + 16 + 256;
    }
    void Start() { KX_CALL(kxRuleInitialize, m_Lives.Rules.c_str(), static_cast<const char*>(nullptr)); }
    std::string Said() { return m_Lives.Said(); }

    Lives m_Lives;
};

TEST_F(TraceTest, AWholeLife)
{
    WriteBytes(m_Lives.Folder / "KxPfw.ini", "[ServiceSession]\nLogPrefix=Q_\n[InteractiveSession]\nLogPrefix=Q_\n");
    Start();
    ASSERT_EQ(m_Lives.Trace->Configs.size(), 1u);
    EXPECT_EQ(m_Lives.Trace->Configs[0].Head.dwUnit, 1u);
    EXPECT_EQ(KxCommon::Record::WideText(&m_Lives.Trace->Configs[0].szLogPrefix, 256), L"Q_");
    KX_CALL(kxRuleRead);
    auto set = Build::RuleSet(3, L"set", {Build::Access(1)});
    KX_CALL(kxRuleAddRuleSet, uint16_t{0}, set.get());
    auto rule = Build::Access(1);
    KX_CALL(kxRuleAddRule, uint16_t{1}, uint16_t{2}, &rule);
    KX_CALL(kxRuleGetRule, uint16_t{1}, uint16_t{2}, static_cast<PFW_RULE*>(nullptr));
    KX_CALL(kxRuleWrite);
    KX_CALL(kxRuleAddRuleSet, uint16_t{1}, set.get());
    KX_CALL(kxRuleDeleteRuleSet, uint16_t{9});
    KX_CALL(kxRuleFinalize);
    EXPECT_EQ(Said(), ReadBytes("tests/data/trace-life.txt"));
}

// The trace of file operations in other cases: a script and its lines.
TEST_F(TraceTest, BrokenBusyAndUnreadFiles)
{
    const std::pair<const char*, const char*> scripts[] = {
        {"store 1 2", "cut 1; hold 2 none; open; read =-10057"},
        {"end; release", "hold mas none; open; read =-10055"},
        {"end; release", "hold mac none; open; read =-10055"},
        {"end; release", "open; add 3; write"},
        {"", "rename vol away; macro; write =-10055; delete 3 =-10055; rename away vol"},
        {"end; plain mas; plain mac", "life =-10060; end"},
    };
    std::string said;
    for (const auto& [before, script] : scripts)
    {
        ASSERT_EQ(m_Lives.Run(before), "");
        Said();
        ASSERT_EQ(m_Lives.Run(script), "");
        static const std::regex others(".* - (KxPfwRule|RuleMaster|PfwTimer)\\.cpp\n"); // as in every life
        said += std::string("> ") + script + '\n' + std::regex_replace(Said(), others, "");
    }
    EXPECT_EQ(said, ReadBytes("tests/data/trace-recovery.txt"));
}

TEST_F(TraceTest, ErrorsOfFiles)
{
    const auto rescued = [](const std::string& code, const char* file = "KxRl0001.dat")
    {
        return "\tCRuleSet::Read() error " + code + " (file=\"" + file +
               "\")\n\tCreating a rescue RuleSet instead of a broken/deleted RuleSet " + file + "\n";
    };
    const std::string exception = "\tCEncryptFile exception occurs\n";
    const struct
    {
        const char* script;
        std::string said;
    } rows[] = {
        {"remove mas; life", "Master file open failed. But ruleset file exists.\n\tRead master file failed [Garbage "
                             "ruleset file exists]\n"},
        {"refuse ReadFile; life =-10056",
         "\tMasterFile read error\n\tRead master file failed [Read fail]\n\tMacroFile read error\n"
         "\tReadMacroFile error (-10056)\n"},
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
    for (const auto& row : rows)
    {
        m_Lives.Trace->Level = 256;
        ASSERT_EQ(m_Lives.Run("remove .; store 1 2"), "") << row.script;
        Said();
        EXPECT_EQ(m_Lives.Run(row.script), "");
        const std::string said = std::regex_replace(Said(), std::regex("!!! ([^]*?) - [A-Za-z]+\\.cpp\n"), "$1\n");
        EXPECT_EQ(said, row.said) << row.script;
        ASSERT_EQ(m_Lives.Run("release; end"), "");
    }
}

// The export's own lines, or none.
TEST_F(TraceTest, CallsSayTheirNameAndTheirResult)
{
    Start();
    PFW_RULE rule = Build::Access(2), got{};
    rule.dwActive = 7;
    auto macro = Build::Macro("m", {Build::Item("a")});
    char* const text = nullptr;
    uint16_t* const indexes = nullptr;
    KX_CALL(kxRuleAddRuleSet, uint16_t{1}, Build::RuleSet(1, L"set", {rule}).get());
    Said();
#define KX_ROW(result, isSilent, function, ...)                                                                        \
    {                                                                                                                  \
#function, [&] { return KX_CALL(function __VA_OPT__(, ) __VA_ARGS__); }, result, isSilent                      \
    }
    struct
    {
        std::string name;
        std::function<int32_t()> call;
        int32_t result;
        bool isSilent;
    } const rows[] = {
        KX_ROW(0, false, kxRuleSetActiveRuleSet, indexes, 0),
        KX_ROW(0, false, kxRuleGetActiveRuleSet, indexes, 0),
        KX_ROW(1, false, kxRuleGetRuleSetIndex, indexes, 0),
        KX_ROW(1, false, kxRuleGetRuleSet, uint16_t{1}, static_cast<PFW_RULESET*>(nullptr), 0),
        KX_ROW(2, false, kxRuleGetRuleTopIndex, uint16_t{1}),
        KX_ROW(-10015, false, kxRuleGetRuleBottomIndex, uint16_t{9}),
        KX_ROW(7, false, kxRuleIsRuleActive, uint16_t{1}, uint16_t{2}),
        KX_ROW(21, false, kxRuleGetRuleString, uint16_t{1}, uint16_t{2}, text, 0),
        KX_ROW(21, false, kxRuleGetRuleString2, &rule, text, 0),
        KX_ROW(-10012, false, kxRuleGetRuleString2, static_cast<const PFW_RULE*>(nullptr), text, 0),
        KX_ROW(0, false, kxRuleAddMacro, macro.get()),
        KX_ROW(1, false, kxRuleGetMacroCount),
        KX_ROW(177, false, kxRuleGetMacro, static_cast<void*>(nullptr), 0),
        KX_ROW(0, false, kxRuleDeleteMacro),
        KX_ROW(-10016, false, kxRuleDeleteRule, uint16_t{1}, uint16_t{3}),
        KX_ROW(0, true, kxRuleGetRule, uint16_t{1}, uint16_t{2}, &got),
        KX_ROW(3, true, kxRuleGetMacroString, macro.get(), text, 0),
        KX_ROW(-10012, true, kxRuleGetMacroString, static_cast<const PFW_MACRO*>(nullptr), text, 0),
    };
#undef KX_ROW
    for (const auto& row : rows)
    {
        EXPECT_EQ(row.call(), row.result) << row.name;
        const std::string lines = "@@@ " + row.name + " Enter - KxPfwRule.cpp\n@@@ " + row.name + " Return (" +
                                  std::to_string(row.result) + ") - KxPfwRule.cpp\n";
        EXPECT_EQ(Said(), row.isSilent ? "" : lines);
    }
    KX_CALL(kxRuleFinalize);
}

static bool g_IsAskedAsPromised = false;

static HANDLE WINAPI RefuseMutex(SECURITY_ATTRIBUTES* attributes, BOOL isOwner, const wchar_t* name)
{
    BOOL isPresent = FALSE, isDefaulted = FALSE;
    PACL list = nullptr;
    g_IsAskedAsPromised =
        attributes != nullptr && attributes->nLength == sizeof *attributes && attributes->bInheritHandle != FALSE &&
        ::GetSecurityDescriptorDacl(attributes->lpSecurityDescriptor, &isPresent, &list, &isDefaulted) != FALSE &&
        isPresent != FALSE && list == nullptr && isOwner != FALSE &&
        name == std::wstring(L"Global\\KxPfwRuleDllLockMutex");
    ::SetLastError(4711);
    return nullptr;
}

TEST_F(TraceTest, WithoutTheMutexItDoesNotStart)
{
    m_Lives.Redirect("CreateMutexW", reinterpret_cast<void*>(RefuseMutex));
    for (int i = 0; i < 2; ++i) // a refused start is none, so the second is refused for the same reason
    {
        EXPECT_EQ(KX_CALL(kxRuleInitialize, m_Lives.Rules.c_str(), static_cast<const char*>(nullptr)), KXRULE_E_MUTEX);
        EXPECT_EQ(Said(),
                  "@@@ kxRuleInitialize Enter - KxPfwRule.cpp\n!!! Failed to Get Mutex (4711) - KxPfwRule.cpp\n");
    }
    EXPECT_TRUE(g_IsAskedAsPromised);
    EXPECT_EQ(KX_CALL(kxRuleFinalize), 0);
}

// What each call traces when it refuses, and which calls trace nothing on return.
TEST_F(TraceTest, RefusedCalls)
{
    Start();
    PFW_RULE blank = Build::Access(1);
    blank.Access.Port[0] = Build::PortList("");
    const RegistryGuard registry; // no hash library
    const std::vector<PFW_RULE> rules = {Build::Access(2), Build::Access(3, L"C:\\ü.exe")};
    KX_CALL(kxRuleAddRuleSet, uint16_t{1}, Build::RuleSet(1, L"set", rules).get());
    Said();
    std::vector<PFW_RULE> tooMany;
    for (uint16_t i = 0; i <= KXRULE_MAX_RULES; ++i)
        tooMany.push_back(Build::Access(i));
    const uint16_t zero = 0, active[] = {5, 65281, 0};
    const auto none = static_cast<const char*>(nullptr);
    struct
    {
        const char* name;
        std::function<int32_t()> call;
        int32_t result;
        std::string said;
    } const rows[] = {
        {"second start", [&] { return KX_CALL(kxRuleInitialize, none, none); }, KXRULE_E_ALREADY_INITIALIZED,
         "@@@ kxRuleInitialize Enter - KxPfwRule.cpp\n"
         "@@@ rule path not specified. will use dll's location as rule path - KxPfwRule.cpp\n"
         "!!! Already Initialized - KxPfwRule.cpp\n"},
        {"active, null", [&] { return KX_CALL(kxRuleSetActiveRuleSet, static_cast<const uint16_t*>(nullptr), 1); },
         KXRULE_E_NULL_POINTER,
         "@@@ kxRuleSetActiveRuleSet Enter - KxPfwRule.cpp\n"
         "@@@ Pointer to array of rule set is NULL but nCount is not ZERO. - KxPfwRule.cpp\n"},
        {"active, the first of two that are wrong", [&] { return KX_CALL(kxRuleSetActiveRuleSet, &active[0], 3); },
         KXRULE_E_NO_RULESET,
         "@@@ kxRuleSetActiveRuleSet Enter - KxPfwRule.cpp\n!!! Invalid RuleSet index (65281) - KxPfwRule.cpp\n"},
        {"set, null", [&] { return KX_CALL(kxRuleAddRuleSet, zero, static_cast<PFW_RULESET*>(nullptr)); },
         KXRULE_E_NULL_POINTER,
         "@@@ kxRuleAddRuleSet Enter - KxPfwRule.cpp\n"
         "@@@ Pointer to structure of rule set is NULL. - KxPfwRule.cpp\n"},
        {"set, port list", [&] { return KX_CALL(kxRuleAddRuleSet, zero, Build::RuleSet(1, L"", {blank}).get()); },
         KXRULE_E_PORT_LIST, "@@@ kxRuleAddRuleSet Enter - KxPfwRule.cpp\n"},
        {"set, too many rules", [&] { return KX_CALL(kxRuleAddRuleSet, zero, Build::RuleSet(7, L"", tooMany).get()); },
         KXRULE_E_TOO_MANY_RULES,
         "@@@ kxRuleAddRuleSet Enter - KxPfwRule.cpp\n@@@ CRuleMaster::AddRuleSet Enter - RuleMaster.cpp\n"
         "@@@ CRuleMaster::AddRuleSet Return (-10018) - RuleMaster.cpp\n@@@ \tIndex:7 - KxPfwRule.cpp\n"
         "@@@ kxRuleAddRuleSet Return (-10018) - KxPfwRule.cpp\n"},
        {"rule, null", [&] { return KX_CALL(kxRuleAddRule, zero, zero, static_cast<const PFW_RULE*>(nullptr)); },
         KXRULE_E_NULL_POINTER,
         "@@@ kxRuleAddRule Enter - KxPfwRule.cpp\n@@@ Pointer of Rule structure is NULL. - KxPfwRule.cpp\n"},
        {"rule, port list", [&] { return KX_CALL(kxRuleAddRule, zero, zero, &blank); }, KXRULE_E_PORT_LIST,
         "@@@ kxRuleAddRule Enter - KxPfwRule.cpp\n"},
        {"macro, null", [&] { return KX_CALL(kxRuleAddMacro, static_cast<const PFW_MACRO*>(nullptr)); },
         KXRULE_E_NULL_POINTER,
         "@@@ kxRuleAddMacro Enter - KxPfwRule.cpp\n@@@ Pointer of Macro structure is NULL. - KxPfwRule.cpp\n"},
        {"hash",
         [&]
         {
             return KX_CALL(kxRuleUpdateHashValue, static_cast<const KXWCHAR*>(nullptr),
                            static_cast<const uint8_t*>(nullptr), static_cast<KXRULE_HASH_CALLBACK>(nullptr),
                            static_cast<void*>(nullptr));
         },
         KXRULE_E_HASH_LIBRARY,
         ".w. CRule::UpdateHash, m_Rule.Access.wszAppName is empty RuleSet(1) Rule(2) - RuleHash.cpp\n"
         ".w. CRule::UpdateHash, Updating hash RuleSet(1) Rule(3) (C:\\\xFC.exe) - RuleHash.cpp\n"
         "!!! CHashDll::Init load library error - HashDll.cpp\n"},
    };
    for (const auto& row : rows)
    {
        EXPECT_EQ(row.call(), row.result) << row.name;
        EXPECT_EQ(Said(), row.said) << row.name;
    }
    KX_CALL(kxRuleFinalize);
    Said();
    Start();
    Said();
    EXPECT_EQ(KX_CALL(kxRuleFlush), 0);
    EXPECT_EQ(Said(), "@@@ CRuleMaster::FlushRule not necessary - RuleMasterFiles.cpp\n");
    KX_CALL(kxRuleFinalize);
    EXPECT_EQ(KX_CALL(kxRuleInitialize, "", none), 0);
    EXPECT_EQ(KX_CALL(kxRuleWrite), 0);
    EXPECT_TRUE(std::filesystem::exists(m_Lives.Folder / "KxRulMas.dat")) << "the library's own directory";
    KX_CALL(kxRuleFinalize);
}
