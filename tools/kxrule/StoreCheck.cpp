// A rule directory as kxRuleRead would find it; docs/recovery.md tells what the library does with damage.
#include <algorithm>
#include <map>

#include "persistence/FileFormat.h"
#include "tools/kxrule/ResultCodes.h"
#include "tools/kxrule/RuleJson.h"
#include "tools/kxrule/StoreFiles.h"
#include "tools/kxrule/Utf8.h"

namespace Tool
{
namespace
{

namespace fs = std::filesystem;

constexpr char kMovedAway[] =
    "the library would move the master file and all rule set files into a dated directory below "
    "RuleBackup";

/// Whether a name out of a master file can only mean a file in the directory itself.
bool IsBareName(const std::string& name) noexcept
{
    const auto isPlain = [](char c) { return static_cast<unsigned char>(c) >= 0x20 && c != '\x7F'; };
    return !name.empty() && name.size() <= 200 && name.find_first_of("\\/:*?\"<>|") == std::string::npos &&
           name.front() != '.' && name.front() != ' ' && name.back() != '.' && name.back() != ' ' &&
           std::all_of(name.begin(), name.end(), isPlain);
}

std::string Count(size_t number, const char* what)
{
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
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
        if (CheckMaster())
        {
            CheckMacros();
            for (size_t i = 0; i < m_Fields.RuleSetFileNames.size(); ++i)
            {
                progress.Show(i, m_Fields.RuleSetFileNames.size());
                CheckRuleSet(m_Fields.RuleSetFileNames[i]);
            }
            CheckActive();
        }
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

    /// False when nothing that it would name can be looked at.
    bool CheckMaster()
    {
        std::error_code error;
        if (!fs::exists(m_Directory / m_Master, error))
        {
            if (m_Unlisted.empty())
                Add(m_Master, Finding::Note, {}, "it is missing, and so are rule sets",
                    "the library would start empty");
            else
                Add(m_Master, Finding::Damaged, {}, "it is missing", std::string(kMovedAway) + " and start empty");
            m_MasterIsGood = m_Unlisted.empty();
            return m_Unlisted.empty() && fs::exists(m_Directory / FileFormat::kMacroFileName, error);
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
        else
            Add(m_Master, Finding::Damaged, {}, content.Problem,
                std::string(kMovedAway) + "; rule sets whose names could be read would become rescue sets");
        return true;
    }

    void CheckMacros()
    {
        std::string name = FileFormat::kMacroFileName;
        if (!m_Fields.MacroFileName.empty() && !IsBareName(m_Fields.MacroFileName))
            Add(m_Master, Finding::Note, {}, "it names a macro file that is no plain file name",
                "the library would use " + name);
        else if (!m_Fields.MacroFileName.empty())
            name = NarrowToUtf8(m_Fields.MacroFileName);
        const fs::path file = FromUtf8(name);
        std::error_code error;
        if (!fs::exists(m_Directory / file, error))
            return Add(file, Finding::Note, {}, "it is missing", "the library would have no macros");
        FileContent content = ReadStoreFile(m_Directory / file);
        if (content.Problem.empty() && content.Kind == FileKind::Macros)
            return Add(file, Finding::Good, Count(content.Macros.size(), "macro"));
        const bool wrongFormat =
            content.Result == KXRULE_E_MACRO_FORMAT || !content.Known || content.Kind != FileKind::Macros;
        if (content.Kind != FileKind::Macros && content.Problem.empty())
            content.Problem = "it is no macro file";
        Add(file, Finding::Damaged, {}, content.Problem,
            "the library would read no rule set and report " +
                ResultText(wrongFormat ? KXRULE_E_MACRO_FORMAT : KXRULE_E_FILE_READ));
    }

    void CheckRuleSet(const std::string& narrowName)
    {
        const fs::path name = FromUtf8(NarrowToUtf8(narrowName));
        if (!IsBareName(narrowName))
            return Add(m_Master, Finding::Note, {},
                       "it lists a rule set file whose name is no plain file name: \"" + NarrowToUtf8(narrowName) +
                           "\"",
                       "the library would ignore it");
        std::erase_if(m_Unlisted, [&](const fs::path& other)
                      { return KxCommon::String::EqualNoCase(other.wstring(), name.wstring()); });
        std::error_code error;
        if (!fs::exists(m_Directory / name, error))
            return Add(name, Finding::Damaged, {}, "it is missing", "a rescue set would take its place");
        const FileContent content = ReadStoreFile(m_Directory / name);
        const bool wrongKind = content.Known && content.Kind != FileKind::RuleSet;
        if (!content.Problem.empty() || wrongKind)
            return Add(name, Finding::Damaged, {}, wrongKind ? "it is no rule set file" : content.Problem,
                       "the library would copy it to RuleBackup and put a rescue set in its place, keeping " +
                           Count(content.RuleSet.Rules.size(), "rule") + " in front of the damage");
        if (content.RuleSet.Index == 0)
            return Add(name, Finding::Damaged, {}, "its index is 0",
                       "the library would copy it to RuleBackup and put a rescue set in its place");
        m_Indexes.push_back(content.RuleSet.Index);
        const std::string summary =
            std::to_string(content.RuleSet.Index) + " \"" + ToUtf8(content.RuleSet.Name) + "\", ";
        if (content.Version == FileFormat::kOldVersion)
            return Add(name, Finding::Note, summary + "version 1",
                       std::to_string(content.RuleCount) + " rules of version 1", "the library does not read them");
        if (std::count(m_Indexes.begin(), m_Indexes.end(), content.RuleSet.Index) > 1)
            return Add(name, Finding::Note, summary + Count(content.RuleSet.Rules.size(), "rule"),
                       "another file has the same index", "the later one in the master file counts");
        // A changed byte in the middle of a record shows in no length and no padding.
        const size_t odd = !m_Thorough
                               ? 0
                               : static_cast<size_t>(std::count_if(content.RuleSet.Rules.begin(),
                                                                   content.RuleSet.Rules.end(), HasUnexplainedBytes));
        if (odd > 0)
            return Add(name, Finding::Note, summary + Count(content.RuleSet.Rules.size(), "rule"),
                       Count(odd, "rule") + " with bytes that no field explains",
                       "it takes them as they are; \"kxrule dump\" shows them as raw");
        Add(name, Finding::Good, summary + Count(content.RuleSet.Rules.size(), "rule"));
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
        const FileContent content = ReadStoreFile(m_Directory / name);
        const std::string problem = "the master file does not list it";
        Add(name, Finding::Note, {},
            m_MasterIsGood            ? problem + (content.Problem.empty() ? "" : ", and " + content.Problem)
            : content.Problem.empty() ? "nothing is wrong with it"
                                      : content.Problem,
            m_MasterIsGood ? "the library would not read it" : "it would be moved with the master file");
    }

    const fs::path m_Directory;
    const bool m_Thorough;
    const fs::path m_Master;
    MasterFields m_Fields;
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
