// A rule directory as kxRuleRead would find it; docs/recovery.md tells what the library does with damage.
#include <algorithm>
#include <map>

#include "common/srclib/KxComn_Windows.h"

#include "persistence/FileFormat.h"
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

namespace fs = std::filesystem;

constexpr char kMovedAway[] =
    "the library would move the master file and all rule set files into a dated directory below "
    "RuleBackup";
constexpr char kCopiedFirst[] =
    "and before its first write copy every file into a dated directory below RuleBackup; it writes nothing (-10057) "
    "while one of them cannot be copied";

/// Whether there is something of that name, be it something that cannot be opened.
bool IsThere(const fs::path& path) noexcept
{
    if (::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES)
        return true;
    const DWORD error = ::GetLastError();
    return error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND;
}

bool IsUnopened(const FileContent& content) noexcept
{
    return content.Result == KXRULE_E_FILE_OPEN;
}

bool IsSameName(const fs::path& a, const fs::path& b)
{
    return KxCommon::String::EqualNoCase(a.wstring(), b.wstring());
}

class Checker
{
public:
    Checker(const fs::path& directory, const std::string& masterFileName, bool thorough)
        : m_Directory(directory), m_Thorough(thorough),
          m_Master(FromUtf8(masterFileName.empty() ? FileFormat::kMasterFileName : masterFileName))
    {
    }

    StoreReport Check(Console& console)
    {
        Progress progress(console, "checking the files");
        std::error_code error;
        for (const fs::directory_entry& entry : fs::directory_iterator(m_Directory, error))
        {
            if (entry.is_regular_file(error) && IsRuleSetFileName(entry.path().filename()))
                m_Unlisted.push_back(entry.path().filename());
        }
        std::sort(m_Unlisted.begin(), m_Unlisted.end());
        CheckMaster();
        CheckMacros();
        for (size_t i = 0; i < m_Fields.RuleSetFileNames.size(); ++i)
        {
            progress.Show(i, m_Fields.RuleSetFileNames.size());
            CheckRuleSet(m_Fields.RuleSetFileNames[i]);
        }
        CheckActive();
        for (const fs::path& name : m_Unlisted)
            CheckUnlisted(name);
        for (const fs::path& name : TemporaryFileNames(m_Directory))
            Add(name, Finding::Note, {}, "an unfinished write", "nothing; \"kxrule tidy\" removes it");
        return std::move(m_Report);
    }

private:
    void Add(const fs::path& name, Finding what, std::string content, std::string problem = {},
             std::string consequence = {})
    {
        m_Report.Files.push_back({name, what, std::move(content), std::move(problem), std::move(consequence)});
    }

    void CheckMaster()
    {
        if (!IsThere(m_Directory / m_Master))
        {
            m_MasterIsGood = m_Unlisted.empty();
            if (m_MasterIsGood)
                Add(m_Master, Finding::Note, {}, "it is missing, and so are rule sets",
                    "the library would start empty");
            else
                Add(m_Master, Finding::Damaged, {}, "it is missing", std::string(kMovedAway) + " and start empty");
            return;
        }
        FileContent content = ReadStoreFile(m_Directory / m_Master);
        if (content.Problem.empty() && content.Kind != FileKind::Master)
            content.Problem = "it is no master file";
        m_Fields = content.Master;
        m_MasterIsGood = content.Problem.empty();
        if (m_MasterIsGood)
            Add(m_Master, Finding::Good,
                Count(m_Fields.RuleSetFileNames.size(), "rule set") + ", " +
                    std::to_string(m_Fields.ActiveRuleSets.size()) + " active");
        else if (IsUnopened(content))
            Add(m_Master, Finding::Damaged, {}, content.Problem,
                (m_Unlisted.empty() ? "the library would start empty, " : std::string(kMovedAway) + ", start empty, ") +
                    kCopiedFirst);
        else
            Add(m_Master, Finding::Damaged, {}, content.Problem,
                std::string(kMovedAway) + "; rule sets whose names could be read would become rescue sets");
    }

    void CheckMacros()
    {
        const fs::path file = m_MacroFile = UsedMacroFileName(m_Fields, m_Master);
        if (!m_Fields.MacroFileName.empty() && !IsSameName(FromUtf8(NarrowToUtf8(m_Fields.MacroFileName)), file))
            Add(m_Master, Finding::Note, {}, "it names a macro file that cannot be one",
                "the library would use " + ToUtf8(file.wstring()));
        if (!IsThere(m_Directory / file))
            return Add(file, Finding::Note, {}, "it is missing", "the library would have no macros");
        FileContent content = ReadStoreFile(m_Directory / file);
        if (content.Problem.empty() && content.Kind == FileKind::Macros)
            return Add(file, Finding::Good, Count(content.Macros.size(), "macro"));
        if (IsUnopened(content))
            return Add(file, Finding::Damaged, {}, content.Problem,
                       std::string("the library would go on without macros, ") + kCopiedFirst);
        const bool wrongFormat =
            content.Result == KXRULE_E_MACRO_FORMAT || !content.Known || content.Kind != FileKind::Macros;
        if (content.Kind != FileKind::Macros && content.Problem.empty())
            content.Problem = "it is no macro file";
        Add(file, Finding::Damaged, {}, content.Problem,
            "the library would read no rule set and report " +
                ResultText(wrongFormat ? KXRULE_E_MACRO_FORMAT : KXRULE_E_FILE_READ));
    }

    /// Names that the library does not open.
    bool IsIgnored(const std::string& narrowName, const fs::path& name) const
    {
        return !RuleFiles::IsBareName(narrowName) || IsSameName(name, m_Master) || IsSameName(name, m_MacroFile);
    }

    /// What stands in for a rule set that cannot be read.
    std::string Rescue(const std::string& narrowName) const
    {
        const uint16_t index = RuleFiles::IndexFromFileName(narrowName);
        const bool isTaken = std::find(m_Indexes.begin(), m_Indexes.end(), index) != m_Indexes.end();
        return index == 0 || isTaken ? "nothing would take its place" : "a rescue set would take its place";
    }

    void CheckRuleSet(const std::string& narrowName)
    {
        const fs::path name = FromUtf8(NarrowToUtf8(narrowName));
        if (IsIgnored(narrowName, name))
            return Add(m_Master, Finding::Note, {},
                       "it lists a rule set file whose name cannot be one: \"" + NarrowToUtf8(narrowName) + "\"",
                       "the library would ignore it");
        std::erase_if(m_Unlisted, [&](const fs::path& other) { return IsSameName(other, name); });
        if (!IsThere(m_Directory / name))
            return Add(name, Finding::Damaged, {}, "it is missing", Rescue(narrowName));
        const FileContent content = ReadStoreFile(m_Directory / name);
        const std::string problem = RuleSetProblem(content);
        const std::string summary = std::to_string(content.RuleSet.Index) + " \"" + ToUtf8(content.RuleSet.Name) +
                                    "\", " + Count(content.RuleSet.Rules.size(), "rule");
        if (!m_MasterIsGood) // by the time it is looked for, it has been moved
            return Add(name, problem.empty() ? Finding::Note : Finding::Damaged, problem.empty() ? summary : "",
                       problem, "it would be moved with the master file, and " + Rescue(narrowName));
        if (IsUnopened(content))
            return Add(name, Finding::Damaged, {}, problem,
                       Rescue(narrowName) + " in memory; the file stays until it has been copied to RuleBackup");
        if (!problem.empty())
            return Add(name, Finding::Damaged, {}, problem,
                       "the library would copy it to RuleBackup, and " + Rescue(narrowName) + ", keeping " +
                           Count(content.RuleSet.Rules.size(), "rule") + " in front of the damage");
        m_Indexes.push_back(content.RuleSet.Index);
        if (content.Version == FileFormat::kOldVersion)
            return Add(name, Finding::Note, summary + " read",
                       std::to_string(content.RuleCount) + " rules of version 1", "the library does not read them");
        if (std::count(m_Indexes.begin(), m_Indexes.end(), content.RuleSet.Index) > 1)
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

    static std::string RuleSetProblem(const FileContent& content)
    {
        if (content.Known && content.Kind != FileKind::RuleSet)
            return "it is no rule set file";
        return content.Problem.empty() && content.RuleSet.Index == 0 ? "its index is 0" : content.Problem;
    }

    void CheckActive()
    {
        for (const uint16_t index : m_Fields.ActiveRuleSets)
        {
            if (m_MasterIsGood && std::find(m_Indexes.begin(), m_Indexes.end(), index) == m_Indexes.end() &&
                !m_Report.IsDamaged())
                Add(m_Master, Finding::Note, {}, "rule set " + std::to_string(index) + " is active but does not exist",
                    "nothing");
        }
    }

    void CheckUnlisted(const fs::path& name)
    {
        const std::string problem = RuleSetProblem(ReadStoreFile(m_Directory / name));
        const std::string unlisted = "the master file does not list it";
        if (m_MasterIsGood)
            return Add(name, Finding::Note, {}, unlisted + (problem.empty() ? "" : ", and " + problem),
                       "the library would not read it");
        Add(name, Finding::Note, {}, problem.empty() ? "nothing is wrong with it" : problem,
            "it would be moved with the master file");
    }

    const fs::path m_Directory;
    const bool m_Thorough;
    const fs::path m_Master;
    MasterFields m_Fields;
    fs::path m_MacroFile;
    bool m_MasterIsGood = false;
    std::vector<fs::path> m_Unlisted; // rule set files in the directory that the master file has not named so far
    std::vector<uint16_t> m_Indexes;
    StoreReport m_Report;
};

} // namespace

bool StoreReport::IsDamaged() const noexcept
{
    return std::any_of(Files.begin(), Files.end(),
                       [](const FileReport& file) { return file.What == Finding::Damaged; });
}

StoreReport CheckStore(const fs::path& directory, const std::string& masterFileName, Console& console, bool thorough)
{
    return Checker(directory, masterFileName, thorough).Check(console);
}

} // namespace Tool
