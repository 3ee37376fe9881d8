// The files of a rule directory: names and contents.
#include "tools/kxrule/commands/StoreFiles.h"

#include <algorithm>
#include <filesystem>

#include "common/srclib/KxComn_Trace.h"
#include "persistence/EncryptFile.h"
#include "persistence/RuleFileNames.h"
#include "policy/Utf8.h"
#include "rules/Normalise.h"
#include "tools/kxrule/console/Failure.h"

// The traces of the library's sources go nowhere here: the tool reports failures itself.
namespace KxCommon
{

std::atomic<bool> g_TraceActive{false};

void TraceLine(const char*, uint32_t, uint32_t, const char*, ...) noexcept {}
void TraceLineWide(const char*, uint32_t, uint32_t, const KXWCHAR*, ...) noexcept {}

} // namespace KxCommon

namespace Tool
{
namespace
{

/// A path in the active code page, by its short name if the code page lacks letters of the long one.
std::wstring SayablePath(const std::wstring& path)
{
    if (Utf8ToNarrow(ToUtf8(path)))
        return path;
    std::wstring shortPath(path.size() + MAX_PATH, L'\0');
    const DWORD length = ::GetShortPathNameW(path.c_str(), shortPath.data(), static_cast<DWORD>(shortPath.size()));
    shortPath.resize(length < shortPath.size() ? length : 0);
    if (shortPath.empty() || !Utf8ToNarrow(ToUtf8(shortPath)))
        throw Failure("the library cannot open " + ToUtf8(path) +
                      ": the active code page lacks a character of the path");
    return shortPath;
}

std::string NarrowPath(const std::wstring& path)
{
    return *Utf8ToNarrow(ToUtf8(SayablePath(path)));
}

} // namespace

StoreFile::StoreFile(const std::wstring& path)
{
    const std::filesystem::path sayable = SayablePath(path);
    Directory.Locate(NarrowPath(sayable.parent_path().wstring()), FileFormat::kMasterFileName);
    Name = NarrowPath(sayable.filename().wstring());
}

RuleDirectory StoreAt(const std::wstring& path, const std::string& masterFileName)
{
    const std::optional<std::string> master = Utf8ToNarrow(masterFileName);
    if (!master)
        throw Failure("the active code page lacks a character of the master file's name");
    RuleDirectory directory;
    directory.Locate(NarrowPath(path), master->empty() ? FileFormat::kMasterFileName : *master);
    // A damaged master file may still name it.
    const LookedAt seen = LookAt(directory, directory.MasterFileName(), FileKind::Master);
    static_cast<void>(directory.TakeMacroFileName(seen.File.Master.MacroFileName));
    return directory;
}

std::vector<std::string> StoreFileNames(const RuleDirectory& directory)
{
    std::vector<std::string> names;
    if (!directory.FindFiles(names))
        throw Failure(NarrowToUtf8(directory.Path()) + " cannot be searched: " + SystemText(::GetLastError()));
    const auto ruleSets = std::find_if(names.begin(), names.end(), RuleFiles::IsRuleSetFileName);
    std::sort(ruleSets, names.end());
    return names;
}

const char* KindWord(FileKind kind) noexcept
{
    return kind == FileKind::Master ? "master file" : kind == FileKind::Macros ? "macro file" : "rule set file";
}

std::string ProblemText(const LookedAt& file)
{
    const FileHead& head = file.File.Head;
    switch (head.Defect)
    {
    case FileDefect::None:
        return {};
    case FileDefect::Missing:
    case FileDefect::Busy:
        return file.Error == ERROR_FILE_NOT_FOUND || file.Error == ERROR_PATH_NOT_FOUND
                   ? "it is missing"
                   : "it cannot be opened: " + SystemText(file.Error);
    case FileDefect::Unreadable:
        return "it cannot be read";
    case FileDefect::WrongMagic:
        return head.IsKnown      ? std::string("it is a ") + KindWord(head.Kind)
               : file.Bytes == 0 ? "it is empty"
                                 : "it does not begin like a rule file";
    case FileDefect::WrongVersion:
        return "its version is unknown";
    case FileDefect::Damaged:
        return "it is damaged or cut short";
    case FileDefect::DamagedItem:
        return (head.Kind == FileKind::Macros ? "macro " + std::to_string(file.File.Macros.size() + 1)
                                              : "rule " + std::to_string(file.File.Rules.size() + 1) + " of " +
                                                    std::to_string(file.File.Set.RuleCount)) +
               " is damaged or cut short";
    case FileDefect::NoIndex:
        return "its index is 0";
    }
    return "it cannot be used";
}

std::vector<MacroRecord> MacrosOf(RuleFile file)
{
    std::vector<MacroRecord> macros;
    for (MacroFields& macro : file.Macros)
        macros.push_back({std::move(macro.Name), std::move(macro.Items)});
    return macros;
}

RuleSetRecord RuleSetOf(RuleFile file)
{
    return {file.Set.Index, std::move(file.Set.Name), std::move(file.Rules)};
}

std::vector<MacroRecord> InMemory(std::vector<MacroRecord> macros)
{
    for (MacroRecord& macro : macros)
        macro.Name.resize(std::min(macro.Name.size(), sizeof(PFW_MACRO::szName) - 1));
    return macros;
}

RuleSetRecord InMemory(RuleSetRecord ruleSet)
{
    std::vector<PFW_RULE>& rules = ruleSet.Rules;
    const auto index = [](const PFW_RULE& rule) { return uint16_t{rule.wRuleIndex}; };
    ruleSet.Name.resize(std::min(ruleSet.Name.size(), size_t{KXRULE_RULESET_NAME_UNITS - 1}));
    std::ranges::for_each(rules, Normalise::NormaliseRule);
    if (std::ranges::adjacent_find(rules, std::ranges::greater_equal(), index) == rules.end())
        return ruleSet;
    std::ranges::reverse(rules);
    std::ranges::stable_sort(rules, {}, index);
    const auto isSame = [&](const PFW_RULE& a, const PFW_RULE& b) { return index(a) == index(b); };
    rules.erase(std::unique(rules.begin(), rules.end(), isSame), rules.end());
    return ruleSet;
}

} // namespace Tool
