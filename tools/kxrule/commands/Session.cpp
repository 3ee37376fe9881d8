// The library on a directory, from start to end.
#include "tools/kxrule/commands/Session.h"

#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_Names.h"
#include "common/srclib/KxComn_Record.h"
#include "policy/Apply.h"
#include "policy/ResultCodes.h"
#include "policy/Utf8.h"

namespace Tool
{
std::wstring AbsolutePath(const std::string& path)
{
    const std::wstring wide = FromUtf8(path);
    std::wstring full(MAX_PATH, L'\0');
    DWORD length = ::GetFullPathNameW(wide.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    if (length >= full.size())
    {
        full.resize(length);
        length = ::GetFullPathNameW(wide.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    }
    full.resize(length < full.size() ? length : 0);
    if (full.empty())
        throw Failure("\"" + path + "\" is no path: " + SystemText(::GetLastError()));
    return full;
}

Session::Session(const GlobalOptions& options, Console& console) : m_Options(options), m_Console(console)
{
    m_Directory = options.Directory.empty() ? RuleLibrary::OwnDirectory() : AbsolutePath(options.Directory);
    if (m_Directory.back() != L'\\')
        m_Directory += L'\\';
}

Session::~Session()
{
    if (m_Initialised && m_MayEnd)
        m_Library->Finalize();
    else if (m_Initialised)
        static_cast<void>(m_Library.release()); // unloading is for libraries that have been finalised
}

bool Session::DirectoryExists() const noexcept
{
    const DWORD attributes = ::GetFileAttributesW(m_Directory.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

void Session::RefuseWhileInUse() const
{
    const std::wstring name = L"Global\\" + std::wstring(KxCommon::Names::kMutexName);
    const KxCommon::UniqueKernelObject mutex(::OpenMutexW(SYNCHRONIZE, FALSE, name.c_str()));
    const bool exists = mutex || ::GetLastError() == ERROR_ACCESS_DENIED;
    if (exists && !m_Options.Force)
        throw Failure("another process has the rule library initialised and may write its own state over this change; "
                      "stop it first, or use --force");
}

void Session::Open()
{
    const RuleDirectory store = Store();
    m_Library = std::make_unique<RuleLibrary>();
    Check(m_Library->Initialize(store.Path().c_str(), store.MasterFileName().c_str()), "starting the library");
    m_Initialised = true;
    const int32_t result = m_Library->Read();
    if (result != KXRULE_OK)
        throw Failure("reading " + ToUtf8(m_Directory) + ": " + ResultText(result) +
                          "; \"kxrule verify\" tells which file",
                      ExitFailed, result);
}

void Session::OpenToLook()
{
    if (!DirectoryExists())
        throw Failure(ToUtf8(m_Directory) + " is no directory");
    // The library answers damage by moving and rewriting files, which nobody asks for who only wants to look.
    std::string problems;
    for (const FileReport& file : CheckStore(Store(), m_Console, false).Files)
    {
        if (file.What == Finding::Damaged)
            problems += "\n  " + file.File + ": " + file.Problem;
    }
    if (!problems.empty())
        throw Failure("the store is damaged; \"kxrule verify\" tells what the library would do with it" + problems);
    Open();
    m_MayEnd = true;
}

void Session::OpenToChange()
{
    RefuseWhileInUse();
    Open();
    m_MayEnd = true;
}

void Session::KeepCopy()
{
    const RuleDirectory store = Store();
    CopyToBackup(store, StoreFileNames(store));
}

void Session::Write()
{
    Check(m_Library->Write(), "writing " + ToUtf8(m_Directory));
    m_MayEnd = true;
}

std::vector<RuleSetRecord> Session::ReadRuleSets()
{
    std::vector<uint16_t> indexes(static_cast<size_t>(m_Library->GetRuleSetIndex(nullptr, 0)));
    m_Library->GetRuleSetIndex(indexes.data(), static_cast<int32_t>(indexes.size()));
    std::vector<RuleSetRecord> ruleSets;
    std::vector<unsigned char> block;
    Progress progress(m_Console, "reading the store");
    for (const uint16_t index : indexes)
    {
        progress.Show(ruleSets.size(), indexes.size());
        const int32_t count = m_Library->GetRuleSet(index, nullptr, 0);
        Check(count, "reading rule set " + std::to_string(index));
        block.resize(KXRULE_RULESET_BYTES(count));
        PFW_RULESET* const record = reinterpret_cast<PFW_RULESET*>(block.data());
        Check(m_Library->GetRuleSet(index, record, count), "reading rule set " + std::to_string(index));
        RuleSetRecord& ruleSet = ruleSets.emplace_back();
        ruleSet.Index = index;
        ruleSet.Name = KxCommon::Record::WideText(&record->wszName, KXRULE_RULESET_NAME_UNITS);
        ruleSet.Rules.assign(KXRULE_RULES(record), KXRULE_RULES(record) + count);
    }
    return ruleSets;
}

std::vector<MacroRecord> Session::ReadMacros()
{
    std::vector<unsigned char> block(static_cast<size_t>(m_Library->GetMacro(nullptr, 0)));
    m_Library->GetMacro(block.data(), static_cast<int32_t>(block.size()));
    std::vector<MacroRecord> macros;
    for (size_t at = 0; at < block.size();)
    {
        PFW_MACRO* const record = reinterpret_cast<PFW_MACRO*>(block.data() + at);
        const MACRO_ITEM* const items = KXRULE_MACRO_ITEMS(record);
        const int32_t count = record->nItemCount;
        macros.push_back({std::string(KxCommon::Record::Text(&record->szName, sizeof record->szName)),
                          std::vector<MACRO_ITEM>(items, items + count)});
        at += KXRULE_MACRO_BYTES(count);
    }
    return macros;
}

Policy Session::Read()
{
    Policy policy;
    std::vector<uint16_t>& active = policy.Active.emplace(static_cast<size_t>(m_Library->GetActiveRuleSet(nullptr, 0)));
    m_Library->GetActiveRuleSet(active.data(), static_cast<int32_t>(active.size()));
    policy.Macros = ReadMacros();
    policy.RuleSets = ReadRuleSets();
    return policy;
}

std::string Session::RuleLine(uint16_t ruleSetIndex, uint16_t ruleIndex)
{
    const int32_t length = m_Library->GetRuleString(ruleSetIndex, ruleIndex, nullptr, 0);
    if (length < 0)
        return {};
    std::string text(static_cast<size_t>(length) + 1, '\0');
    m_Library->GetRuleString(ruleSetIndex, ruleIndex, text.data(), static_cast<int32_t>(text.size()));
    text.resize(static_cast<size_t>(length));
    return NarrowToUtf8(text);
}

std::string Session::MacroLine(const MacroRecord& macro)
{
    const std::vector<unsigned char> block = MacroBytes(macro);
    const PFW_MACRO* const record = reinterpret_cast<const PFW_MACRO*>(block.data());
    const int32_t length = m_Library->GetMacroString(record, nullptr, 0);
    if (length < 0)
        return NarrowToUtf8(macro.Name) + "=";
    std::string text(static_cast<size_t>(length) + 1, '\0');
    m_Library->GetMacroString(record, text.data(), static_cast<int32_t>(text.size()));
    text.resize(static_cast<size_t>(length));
    return NarrowToUtf8(text);
}

} // namespace Tool
