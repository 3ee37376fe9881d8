// A rule directory as kxRuleRead would find it. What the library does about a defect is the table of
// persistence/Recovery.h.
#include <algorithm>
#include <set>

#include "persistence/FileFormat.h"
#include "persistence/Recovery.h"
#include "persistence/RuleFileNames.h"
#include "policy/ResultCodes.h"
#include "policy/RuleJson.h"
#include "policy/Utf8.h"
#include "policy/Words.h"
#include "rules/Normalise.h"
#include "tools/kxrule/commands/StoreFiles.h"
#include "tools/kxrule/console/Columns.h"

namespace Tool
{
namespace
{

constexpr char kMovedAway[] =
    "the library would move the master file and all rule set files into a dated directory below "
    "RuleBackup";

bool IsUnopened(const FileContent& content) noexcept
{
    return content.Defect == FileDefect::Missing || content.Defect == FileDefect::Busy;
}

struct NoCase
{
    bool operator()(const std::string& a, const std::string& b) const
    {
        using namespace KxCommon::String;
        return CompareNoCase(ToWide(a), ToWide(b)) < 0;
    }
};

class Checker
{
public:
    Checker(const RuleDirectory& directory, bool thorough, Policy* policy)
        : m_Directory(directory), m_Thorough(thorough), m_Policy(policy)
    {
    }

    StoreReport Check(Console& console)
    {
        Progress progress(console, "checking the files");
        for (const std::string& name : StoreFileNames(m_Directory))
        {
            if (RuleFiles::IsRuleSetFileName(name))
                m_Unlisted.insert(name);
        }
        CheckMaster();
        CheckMacros();
        for (size_t i = 0; i < m_Fields.RuleSetFileNames.size(); ++i)
        {
            progress.Show(i, m_Fields.RuleSetFileNames.size());
            CheckRuleSet(m_Fields.RuleSetFileNames[i]);
        }
        CheckActive();
        for (const std::string& name : m_Unlisted)
            CheckUnlisted(name);
        CheckTemporaries();
        return std::move(m_Report);
    }

private:
    void Add(const std::string& name, Finding what, std::string content, std::string problem = {},
             std::string consequence = {})
    {
        m_Report.Files.push_back(
            {NarrowToUtf8(name), what, std::move(content), std::move(problem), std::move(consequence), {}, false});
    }
    void NoteOfMaster(std::string problem, std::string consequence)
    {
        Add(m_Directory.MasterFileName(), Finding::Note, {}, std::move(problem), std::move(consequence));
    }

    static std::string Stopped(const Recovery& recovery)
    {
        return "the library would read no rule set and report " + ResultText(recovery.Result);
    }

    void CheckMaster()
    {
        const std::string& name = m_Directory.MasterFileName();
        const FileContent content = ReadStoreFile(m_Directory, name, FileKind::Master);
        m_Fields = content.Master;
        if (m_Policy != nullptr)
            m_Policy->Active = m_Fields.ActiveRuleSets;
        if (content.Defect == FileDefect::None)
        {
            m_Whole.insert(FileKind::Master);
            return Add(name, Finding::Good,
                       Count(m_Fields.RuleSetFileNames.size(), "rule set") + ", " +
                           std::to_string(m_Fields.ActiveRuleSets.size()) + " active");
        }
        const Recovery& recovery = RecoveryOf(FileKind::Master, content.Defect);
        m_OfMaster = recovery.What;
        if (recovery.What == Remedy::Stop)
            return Add(name, Finding::Damaged, {}, content.Problem, Stopped(recovery));
        if (content.Defect == FileDefect::Missing && m_Unlisted.empty())
        {
            m_OfMaster = Remedy::GoOn;
            const bool isThere = m_Directory.MayExist(name);
            return Add(name, isThere ? Finding::Damaged : Finding::Note, {},
                       content.Problem + (isThere ? "" : ", and so are rule sets"), "the library would start empty");
        }
        Add(name, Finding::Damaged, {}, content.Problem,
            kMovedAway + std::string(m_Fields.RuleSetFileNames.empty()
                                         ? " and start empty"
                                         : "; rule sets whose names could be read would become rescue sets"));
    }

    void CheckMacros()
    {
        const std::string& name = m_Directory.MacroFileName();
        if (!m_Fields.MacroFileName.empty() && m_Fields.MacroFileName != name)
            NoteOfMaster("it names a macro file that cannot be one", "the library would use " + NarrowToUtf8(name));
        FileContent content = ReadStoreFile(m_Directory, name, FileKind::Macros);
        const size_t macros = content.Macros.size();
        if (m_Policy != nullptr)
        {
            for (MacroRecord& macro : content.Macros) // as the library hands them out: cut to their field
                macro.Name.resize(std::min(macro.Name.size(), sizeof(PFW_MACRO::szName) - 1));
            m_Policy->Macros = std::move(content.Macros);
        }
        if (content.Defect == FileDefect::None)
        {
            m_Whole.insert(FileKind::Macros);
            return Add(name, Finding::Good, Count(macros, "macro"));
        }
        const Recovery& recovery = RecoveryOf(FileKind::Macros, content.Defect);
        m_Report.IsStopped = recovery.What == Remedy::Stop && content.Defect != FileDefect::Busy;
        if (recovery.What == Remedy::Stop)
            return Add(name, Finding::Damaged, {}, content.Problem, Stopped(recovery));
        if (m_Directory.MayExist(name))
            return Add(name, Finding::Damaged, {}, content.Problem,
                       "the library would go on without macros, and copy the file before it writes its own");
        Add(name, Finding::Note, {}, content.Problem, "the library would have no macros");
    }

    /// What stands in for a rule set that cannot be read.
    std::string Rescue(const std::string& name) const
    {
        const uint16_t index = RuleFiles::IndexFromFileName(name);
        return index == 0 || m_Indexes.contains(index) ? "nothing would take its place"
                                                       : "a rescue set would take its place";
    }

    void CheckRuleSet(const std::string& name)
    {
        if (!m_Directory.IsUsableRuleSetFileName(name))
            return NoteOfMaster("it lists a rule set file whose name cannot be one: \"" + NarrowToUtf8(name) + "\"",
                                "the library would ignore it");
        if (!m_Listed.insert(name).second)
            return NoteOfMaster("it lists " + NarrowToUtf8(name) + " twice", "the library would read it once");
        m_Unlisted.erase(name);
        FileContent content = ReadStoreFile(m_Directory, name, FileKind::RuleSet);
        const std::string summary = std::to_string(content.RuleSet.Index) + " \"" + ToUtf8(content.RuleSet.Name) +
                                    "\", " + Count(content.RuleSet.Rules.size(), "rule");
        const bool isGood = content.Defect == FileDefect::None;
        if (IsUnopened(content) && !m_Directory.MayExist(name))
            return Add(name, Finding::Damaged, {}, content.Problem, Rescue(name));
        if (m_OfMaster == Remedy::BackUp) // by the time it is looked for, it has been moved
            return Add(name, isGood ? Finding::Note : Finding::Damaged, isGood ? summary : "", content.Problem,
                       "it would be moved with the master file, and " + Rescue(name));
        if (IsUnopened(content))
            return Add(name, Finding::Damaged, {}, content.Problem,
                       Rescue(name) + "; the file, which may be whole, would be copied to RuleBackup or renamed first");
        if (!isGood)
            return Add(name, Finding::Damaged, {}, content.Problem,
                       "the library would copy it to RuleBackup, and " + Rescue(name) + ", keeping " +
                           Count(content.RuleSet.Rules.size(), "rule") + " in front of the damage");
        const bool isFirst = m_Indexes.insert(content.RuleSet.Index).second;
        // A changed byte in the middle of a record shows in no length and no padding.
        const size_t odd = !m_Thorough
                               ? 0
                               : static_cast<size_t>(std::count_if(content.RuleSet.Rules.begin(),
                                                                   content.RuleSet.Rules.end(), HasUnexplainedBytes));
        if (m_Policy != nullptr)
            Take(std::move(content.RuleSet));
        if (content.Version == FileFormat::kOldVersion)
            return Add(name, Finding::Note, summary + " read",
                       std::to_string(content.RuleCount) + " rules of version 1", "the library does not read them");
        if (!isFirst)
            return Add(name, Finding::Note, summary, "another file has the same index",
                       "the later one in the master file counts");
        if (odd > 0)
            return Add(name, Finding::Note, summary, Count(odd, "rule") + " with bytes that no field explains",
                       "it takes them as they are; \"kxrule dump\" shows them as raw");
        Add(name, Finding::Good, summary);
    }

    /// As the library takes a set: each rule normalised, the later one of an index, in the order of the indexes.
    void Take(RuleSetRecord&& ruleSet)
    {
        ruleSet.Name.resize(std::min(ruleSet.Name.size(), size_t{KXRULE_RULESET_NAME_UNITS - 1}));
        std::for_each(ruleSet.Rules.begin(), ruleSet.Rules.end(), Normalise::NormaliseRule);
        const auto index = [](const PFW_RULE& rule) { return uint16_t{rule.wRuleIndex}; };
        std::reverse(ruleSet.Rules.begin(), ruleSet.Rules.end());
        std::stable_sort(ruleSet.Rules.begin(), ruleSet.Rules.end(),
                         [&](const PFW_RULE& a, const PFW_RULE& b) { return index(a) < index(b); });
        ruleSet.Rules.erase(std::unique(ruleSet.Rules.begin(), ruleSet.Rules.end(),
                                        [&](const PFW_RULE& a, const PFW_RULE& b) { return index(a) == index(b); }),
                            ruleSet.Rules.end());
        const auto place = std::lower_bound(m_Policy->RuleSets.begin(), m_Policy->RuleSets.end(), ruleSet.Index,
                                            [](const RuleSetRecord& a, uint16_t b) { return a.Index < b; });
        if (place != m_Policy->RuleSets.end() && place->Index == ruleSet.Index)
            *place = std::move(ruleSet);
        else
            m_Policy->RuleSets.insert(place, std::move(ruleSet));
    }

    /// Whether the file is whole, and nothing that the library reads is the same thing.
    bool IsOnlyCopy(const FileContent& content) const
    {
        return content.Defect == FileDefect::None &&
               (content.Kind == FileKind::RuleSet ? !m_Indexes.contains(content.RuleSet.Index)
                                                  : !m_Whole.contains(content.Kind));
    }

    /// Files that nobody reads: what there is of them only there stays, the rest tidy may remove.
    void AddLeftover(const std::string& name, const FileContent& content, std::string problem, std::string consequence)
    {
        const bool isOnly = IsOnlyCopy(content);
        if (isOnly)
            problem += content.Kind == FileKind::RuleSet
                           ? "; it is the only whole copy of rule set " + std::to_string(content.RuleSet.Index)
                           : "; it is the only whole " +
                                 std::string(content.Kind == FileKind::Master ? "master" : "macro") + " file";
        Add(name, Finding::Note, {}, std::move(problem),
            isOnly && content.Kind != FileKind::Master ? "nothing; \"kxrule restore\" brings it back"
                                                       : std::move(consequence));
        m_Report.Files.back().Leftover = isOnly ? "" : name;
        m_Report.Files.back().IsOnlyCopy = isOnly;
    }

    void CheckTemporaries()
    {
        std::vector<std::string> names;
        static_cast<void>(m_Directory.FindTemporaryFiles(names));
        std::sort(names.begin(), names.end());
        for (const std::string& name : names)
            AddLeftover(name, ReadStoreFile(m_Directory, name), "an unfinished write",
                        "nothing; \"kxrule tidy\" removes it");
    }

    void CheckActive()
    {
        if (m_Report.IsDamaged())
            return;
        for (const uint16_t index : m_Fields.ActiveRuleSets)
        {
            if (!m_Indexes.contains(index))
                NoteOfMaster("rule set " + std::to_string(index) + " is active but does not exist", "nothing");
        }
    }

    void CheckUnlisted(const std::string& name)
    {
        const FileContent content = ReadStoreFile(m_Directory, name, FileKind::RuleSet);
        const std::string& problem = content.Problem;
        const std::string unlisted = "the master file does not list it";
        if (m_OfMaster == Remedy::GoOn)
            return AddLeftover(name, content, unlisted + (problem.empty() ? "" : ", and " + problem),
                               "the library would not read it; \"kxrule tidy\" removes it");
        Add(name, Finding::Note, {}, problem.empty() ? "nothing is wrong with it" : problem,
            m_OfMaster == Remedy::BackUp ? "it would be moved with the master file" : "the library would not read it");
    }

    const RuleDirectory& m_Directory;
    const bool m_Thorough;
    Policy* const m_Policy;
    MasterFields m_Fields;
    Remedy m_OfMaster = Remedy::GoOn;
    std::set<std::string, NoCase> m_Listed;
    std::set<std::string, NoCase> m_Unlisted; // rule set files that the master file has not named so far
    std::set<uint16_t> m_Indexes;
    std::set<FileKind> m_Whole; // of the master and the macro file
    StoreReport m_Report;
};

} // namespace

bool StoreReport::IsDamaged() const noexcept
{
    return std::any_of(Files.begin(), Files.end(),
                       [](const FileReport& file) { return file.What == Finding::Damaged; });
}

std::string StoreReport::Problems() const
{
    std::string lines;
    for (const FileReport& file : Files)
    {
        if (file.What == Finding::Damaged)
            lines += "\n  " + Printable(file.File) + ": " + file.Problem;
    }
    return lines;
}

StoreReport CheckStore(const RuleDirectory& directory, Console& console, bool thorough, Policy* policy)
{
    return Checker(directory, thorough, policy).Check(console);
}

} // namespace Tool
