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
#include "tools/kxrule/commands/StoreFiles.h"

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
    Checker(const RuleDirectory& directory, bool thorough) : m_Directory(directory), m_Thorough(thorough) {}

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
        for (const std::string& name : TemporaryFileNames(m_Directory))
            Add(name, Finding::Note, {}, "an unfinished write", "nothing; \"kxrule tidy\" removes it");
        return std::move(m_Report);
    }

private:
    void Add(const std::string& name, Finding what, std::string content, std::string problem = {},
             std::string consequence = {})
    {
        m_Report.Files.push_back(
            {NarrowToUtf8(name), what, std::move(content), std::move(problem), std::move(consequence)});
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
        if (content.Defect == FileDefect::None)
            return Add(name, Finding::Good,
                       Count(m_Fields.RuleSetFileNames.size(), "rule set") + ", " +
                           std::to_string(m_Fields.ActiveRuleSets.size()) + " active");
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
        const FileContent content = ReadStoreFile(m_Directory, name, FileKind::Macros);
        if (content.Defect == FileDefect::None)
            return Add(name, Finding::Good, Count(content.Macros.size(), "macro"));
        const Recovery& recovery = RecoveryOf(FileKind::Macros, content.Defect);
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
        const FileContent content = ReadStoreFile(m_Directory, name, FileKind::RuleSet);
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
        if (content.Version == FileFormat::kOldVersion)
            return Add(name, Finding::Note, summary + " read",
                       std::to_string(content.RuleCount) + " rules of version 1", "the library does not read them");
        if (!isFirst)
            return Add(name, Finding::Note, summary, "another file has the same index",
                       "the later one in the master file counts");
        // A changed byte in the middle of a record shows in no length and no padding.
        const size_t odd = !m_Thorough
                               ? 0
                               : static_cast<size_t>(std::count_if(content.RuleSet.Rules.begin(),
                                                                   content.RuleSet.Rules.end(), HasUnexplainedBytes));
        if (odd > 0)
            return Add(name, Finding::Note, summary, Count(odd, "rule") + " with bytes that no field explains",
                       "it takes them as they are; \"kxrule dump\" shows them as raw");
        Add(name, Finding::Good, summary);
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
        const std::string problem = ReadStoreFile(m_Directory, name, FileKind::RuleSet).Problem;
        const std::string unlisted = "the master file does not list it";
        if (m_OfMaster == Remedy::GoOn)
            return Add(name, Finding::Note, {}, unlisted + (problem.empty() ? "" : ", and " + problem),
                       "the library would not read it");
        Add(name, Finding::Note, {}, problem.empty() ? "nothing is wrong with it" : problem,
            m_OfMaster == Remedy::BackUp ? "it would be moved with the master file" : "the library would not read it");
    }

    const RuleDirectory& m_Directory;
    const bool m_Thorough;
    MasterFields m_Fields;
    Remedy m_OfMaster = Remedy::GoOn;
    std::set<std::string, NoCase> m_Listed;
    std::set<std::string, NoCase>
        m_Unlisted; // rule set files in the directory that the master file has not named so far
    std::set<uint16_t> m_Indexes;
    StoreReport m_Report;
};

} // namespace

bool StoreReport::IsDamaged() const noexcept
{
    return std::any_of(Files.begin(), Files.end(),
                       [](const FileReport& file) { return file.What == Finding::Damaged; });
}

StoreReport CheckStore(const RuleDirectory& directory, Console& console, bool thorough)
{
    return Checker(directory, thorough).Check(console);
}

} // namespace Tool
