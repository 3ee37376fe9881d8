// What one life of the library says, line by line, as tests/data/trace-*.txt: a copy of the DLL with a stand-in trace
// library beside it.
#include "tests/api/StoreFixture.h"

#include <functional>
#include <optional>
#include <regex>
#include <sstream>

#include "common/srclib/KxComn_Windows.h"
#include "tests/standins/TraceStandIn.h"
#include "tests/support/RegistryGuard.h"

namespace
{

// The exports of a copy of the DLL in a folder of its own.
class LibraryCopy
{
public:
    explicit LibraryCopy(const std::filesystem::path& folder)
    {
        std::filesystem::copy_file(TestFolder() / "KxPfwRul.dll", folder / "KxPfwRul.dll");
        m_Module = ::LoadLibraryW((folder / "KxPfwRul.dll").c_str());
    }
    ~LibraryCopy() { ::FreeLibrary(m_Module); }
    LibraryCopy(const LibraryCopy&) = delete;
    LibraryCopy& operator=(const LibraryCopy&) = delete;

    /// The copy's function that has the signature and name of a declared one: Call("kxRuleRead", kxRuleRead).
    template <class Result, class... Parameters, class... Arguments>
    Result Call(const char* name, Result (*)(Parameters...), Arguments... arguments) const
    {
        void* const address = reinterpret_cast<void*>(::GetProcAddress(m_Module, name));
        return reinterpret_cast<Result (*)(Parameters...)>(address)(arguments...);
    }

    /// Puts another function in the place of one that the copy has from kernel32.
    void Redirect(const char* name, void* to) const
    {
        auto* const base = reinterpret_cast<unsigned char*>(m_Module);
        const auto* const head =
            reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
        const IMAGE_DATA_DIRECTORY table = head->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IAT];
        void* const from = reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleA("kernel32.dll"), name));
        void** const first = reinterpret_cast<void**>(base + table.VirtualAddress);
        void** const last = first + table.Size / sizeof *first;
        void** const at = std::find(first, last, from);
        ASSERT_NE(at, last) << name;
        DWORD before = 0;
        ::VirtualProtect(at, sizeof *at, PAGE_READWRITE, &before);
        *at = to;
    }

private:
    HMODULE m_Module = nullptr;
};

} // namespace

#define KX_CALL(function, ...) m_Library->Call(#function, function __VA_OPT__(, ) __VA_ARGS__)

class TraceTest : public testing::Test
{
protected:
    void SetUp() override
    {
        m_Trace.emplace(m_Folder.Path());
        (*m_Trace)->HasConfig = true;
        (*m_Trace)->Enable = 1;
        (*m_Trace)->Level = 1 + 16 + 256;
        m_Library.emplace(m_Folder.Path());
    }
    [[nodiscard]] std::string Rules() const { return (m_Folder / "rules").string() + '\\'; }
    [[nodiscard]] std::filesystem::path RuleFile(const char* name) const { return m_Folder / "rules" / name; }
    void Start() { KX_CALL(kxRuleInitialize, Rules().c_str(), static_cast<const char*>(nullptr)); }

    /// The lines since the last call: tag, message and source file, without time, ids and line number; paths and
    /// temporary names shortened.
    std::string Said()
    {
        std::string said;
        for (; m_Seen < (*m_Trace)->Lines.size(); ++m_Seen)
        {
            const std::wstring& wide = (*m_Trace)->Lines[m_Seen].Text;
            std::string line(wide.begin(), wide.end());
            std::smatch parts;
            static const std::regex form(
                R"(\d\d/\d\d/\d{4} \d\d:\d\d:\d\d\.\d{3} [0-9a-f]{4,}:[0-9a-f]{4,} (...) <PfwRule> ([^]*) - (\S+)\(\d+\)\r\n)");
            if (!std::regex_match(line, parts, form))
                return "a line of another form: " + line;
            std::string message = parts[2];
            for (size_t at; (at = message.find(Rules())) != std::string::npos;)
                message.replace(at, Rules().size(), "DIR\\");
            message = std::regex_replace(message, std::regex("(Mas|Mac|Rul)[0-9A-Fa-f]+\\.tmp"), "$1#.tmp");
            message = std::regex_replace(message, std::regex("succeeded \\([0-9A-F]{8}\\)"), "succeeded (HANDLE)");
            message = std::regex_replace(message, std::regex("RuleBackup\\\\[0-9]{12}"), "RuleBackup\\DATE");
            said += parts[1].str() + ' ' + message + " - " + parts[3].str() + '\n';
        }
        return said;
    }

    TempDir m_Folder;
    std::optional<TraceStandIn> m_Trace;
    std::optional<LibraryCopy> m_Library;
    size_t m_Seen = 0;
};

TEST_F(TraceTest, AWholeLife)
{
    WriteBytes(m_Folder / "KxPfw.ini", "[ServiceSession]\nLogPrefix=Q_\n[InteractiveSession]\nLogPrefix=Q_\n");
    Start();
    ASSERT_EQ((*m_Trace)->Configs.size(), 1u);
    EXPECT_EQ((*m_Trace)->Configs[0].Head.dwUnit, 1u);
    EXPECT_EQ(KxCommon::Record::WideText(&(*m_Trace)->Configs[0].szLogPrefix, 256), L"Q_");
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

TEST_F(TraceTest, ABrokenRuleSetThenAnUnusableMasterAndMacroFile)
{
    Start();
    KX_CALL(kxRuleAddRuleSet, uint16_t{1}, Build::RuleSet(3, L"set", {Build::Access(1), Build::Access(2)}).get());
    KX_CALL(kxRuleFinalize);
    std::string bytes = ReadBytes(RuleFile("KxRl0001.dat"));
    bytes.resize(bytes.size() - 1);
    WriteBytes(RuleFile("KxRl0001.dat"), bytes);
    Said();
    Start();
    KX_CALL(kxRuleRead);
    KX_CALL(kxRuleFinalize);
    EXPECT_EQ(Said(), ReadBytes("tests/data/trace-rescue.txt"));

    WriteBytes(RuleFile("KxRulMas.dat"), "xx");
    WriteBytes(RuleFile("KxRulMac.dat"), "xx");
    Start();
    KX_CALL(kxRuleRead);
    KX_CALL(kxRuleFinalize);
    EXPECT_EQ(Said(), ReadBytes("tests/data/trace-moved.txt"));
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
    m_Library->Redirect("CreateMutexW", reinterpret_cast<void*>(RefuseMutex));
    for (int i = 0; i < 2; ++i) // a refused start is none, so the second is refused for the same reason
    {
        EXPECT_EQ(KX_CALL(kxRuleInitialize, Rules().c_str(), static_cast<const char*>(nullptr)), KXRULE_E_MUTEX);
        EXPECT_EQ(Said(),
                  "@@@ kxRuleInitialize Enter - KxPfwRule.cpp\n!!! Failed to Get Mutex (4711) - KxPfwRule.cpp\n");
    }
    EXPECT_TRUE(g_IsAskedAsPromised);
    EXPECT_EQ(KX_CALL(kxRuleFinalize), 0);
}

// Which calls say what when they refuse, and which of them say nothing on their way out.
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
    EXPECT_TRUE(std::filesystem::exists(m_Folder.Path() / "KxRulMas.dat")) << "the library's own directory";
    KX_CALL(kxRuleFinalize);
}
