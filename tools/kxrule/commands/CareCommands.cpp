// Commands that care for the files: verify, backup, restore, tidy. docs/recovery.md is for those who need them.
#include <algorithm>

#include <nlohmann/json.hpp>

#include "common/srclib/KxComn_Handle.h"
#include "persistence/FileFormat.h"
#include "policy/Utf8.h"
#include "policy/Words.h"
#include "tools/kxrule/commands/Commands.h"
#include "tools/kxrule/commands/StoreFiles.h"
#include "tools/kxrule/console/Columns.h"

namespace Tool
{
namespace
{

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

std::string Name(const fs::path& path)
{
    return Printable(ToUtf8(path.wstring()));
}

const char* FindingWord(Finding finding) noexcept
{
    return finding == Finding::Good ? "good" : finding == Finding::Note ? "note" : "damaged";
}

Json ReportAsJson(const StoreReport& report)
{
    Json json = {{"damaged", report.IsDamaged()}, {"files", Json::array()}};
    for (const FileReport& file : report.Files)
    {
        Json& entry = json["files"].emplace_back();
        entry["file"] = ToUtf8(file.File.wstring());
        entry["finding"] = FindingWord(file.What);
        if (!file.Content.empty())
            entry["content"] = file.Content;
        if (!file.Problem.empty())
            entry["problem"] = file.Problem;
        if (!file.Consequence.empty())
            entry["consequence"] = file.Consequence;
    }
    return json;
}

void PrintReport(Session& session, const StoreReport& report)
{
    Console& console = session.Terminal();
    if (session.Options().Json)
        return console.Out(ReportAsJson(report).dump(2) + "\n");
    std::vector<std::vector<std::string>> rows;
    for (const FileReport& file : report.Files)
    {
        const std::string separator = !file.Content.empty() && !file.Problem.empty() ? "; " : "";
        rows.push_back({Name(file.File), FindingWord(file.What), Printable(file.Content + separator + file.Problem)});
        if (!file.Consequence.empty())
            rows.push_back({"", "", "-> " + file.Consequence});
    }
    const std::vector<std::string> lines = Aligned(rows);
    size_t damaged = 0;
    for (size_t i = 0; i < lines.size(); ++i)
    {
        const bool bad = rows[i][1] == FindingWord(Finding::Damaged);
        damaged += bad ? 1 : 0;
        console.Out(console.Paint(bad ? Style::Bad : rows[i][0].empty() ? Style::Dim : Style::Plain, lines[i]) + "\n");
    }
    console.Out(damaged == 0 ? console.Paint(Style::Good, "nothing is damaged") + "\n"
                             : console.Paint(Style::Bad, std::to_string(damaged) + " damaged") + "\n");
}

void RequireDirectory(const fs::path& directory)
{
    std::error_code error;
    if (!fs::is_directory(directory, error))
        throw Failure(Name(directory) + " is no directory");
}

/// The C++ library's own comparison does not know directories here.
bool IsSameDirectory(const fs::path& a, const fs::path& b)
{
    const auto identify = [](const fs::path& directory, BY_HANDLE_FILE_INFORMATION& info)
    {
        const KxCommon::UniqueFile handle(::CreateFileW(directory.c_str(), 0,
                                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                        OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
        return handle && ::GetFileInformationByHandle(handle.get(), &info) != FALSE;
    };
    BY_HANDLE_FILE_INFORMATION first{};
    BY_HANDLE_FILE_INFORMATION second{};
    return identify(a, first) && identify(b, second) && first.dwVolumeSerialNumber == second.dwVolumeSerialNumber &&
           first.nFileIndexHigh == second.nFileIndexHigh && first.nFileIndexLow == second.nFileIndexLow;
}

/// Puts a file into the rule directory: it is copied beside the place it goes to and then put there in one step.
void PutFile(const fs::path& file, const fs::path& directory, const fs::path& name)
{
    const fs::path unfinished = directory / (name.wstring() + L".new");
    if (::CopyFileW(file.c_str(), unfinished.c_str(), FALSE) == FALSE ||
        ::MoveFileExW(unfinished.c_str(), (directory / name).c_str(),
                      MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) == FALSE)
        throw Failure("putting " + Name(name) + " in place: " + SystemText(::GetLastError()));
}

/// Copies what is about to be replaced; the directory with the copies, empty when there was nothing.
fs::path KeepReplaced(const fs::path& directory, const std::vector<fs::path>& names)
{
    if (names.empty())
        return {};
    fs::path kept = NewBackupDirectory(directory);
    CopyFiles(directory, kept, names);
    return kept;
}

Json NamesAsJson(const std::vector<fs::path>& names)
{
    Json json = Json::array();
    for (const fs::path& name : names)
        json.push_back(ToUtf8(name.wstring()));
    return json;
}

void TellRestored(Session& session, const std::vector<fs::path>& names, const fs::path& kept)
{
    if (session.Options().Json)
    {
        Json json = {{"restored", NamesAsJson(names)}};
        if (!kept.empty())
            json["kept"] = ToUtf8(kept.wstring());
        return session.Terminal().Out(json.dump(2) + "\n");
    }
    session.Terminal().Out(Count(names.size(), "file") + " restored" +
                           (kept.empty() ? "" : "; what was there before lies in " + Name(kept)) + "\n");
}

int RestoreDirectory(Session& session, const fs::path& source)
{
    const std::string& master = session.Options().Master;
    const std::vector<fs::path> names = StoreFileNames(source, master);
    std::error_code error;
    if (names.empty())
        throw Failure(Name(source) + " holds no rule files");
    if (IsSameDirectory(source, session.Directory()))
        throw Failure(Name(source) + " is the rule directory itself");
    const StoreReport report = CheckStore(source, master, session.Terminal(), false);
    if (report.IsDamaged())
    {
        PrintReport(session, report);
        throw Failure(Name(source) +
                      " is damaged and is not restored; its good rule set files can be restored one by one");
    }
    session.RefuseWhileInUse();
    const fs::path directory = session.Directory();
    fs::create_directories(directory, error);
    const std::vector<fs::path> replaced = StoreFileNames(directory, master);
    const fs::path kept = KeepReplaced(directory, replaced);
    // The master file comes last: until it is there, the old one names the old files.
    std::vector<fs::path> order(names.rbegin(), names.rend());
    for (const fs::path& name : order)
        PutFile(source / name, directory, name);
    for (const fs::path& name : replaced)
    {
        if (IsRuleSetFileName(name) && std::find(names.begin(), names.end(), name) == names.end())
            fs::remove(directory / name, error);
    }
    TellRestored(session, order, kept);
    return ExitDone;
}

int RestoreMacros(Session& session, const fs::path& file)
{
    session.RefuseWhileInUse();
    const fs::path directory = session.Directory();
    RequireDirectory(directory);
    const std::vector<fs::path> replaced = StoreFileNames(directory, session.Options().Master);
    // The macro file goes by the name that the master file gives it.
    fs::path name = FileFormat::kMacroFileName;
    for (const fs::path& other : replaced)
    {
        if (!IsRuleSetFileName(other) && ReadStoreFile(directory / other).Kind == FileKind::Macros)
            name = other;
    }
    const fs::path kept = KeepReplaced(directory, replaced);
    PutFile(file, directory, name);
    TellRestored(session, {name}, kept);
    return ExitDone;
}

int RestoreFile(Session& session, const fs::path& file)
{
    const FileContent content = ReadStoreFile(file);
    if (!content.Problem.empty())
        throw Failure(Name(file) + " is not restored: " + content.Problem);
    if (content.Kind == FileKind::Master)
        throw Failure(Name(file) + " is a master file; it is restored with its directory");
    if (content.Kind == FileKind::Macros)
        return RestoreMacros(session, file);
    if (content.Version == FileFormat::kOldVersion)
        throw Failure(Name(file) + " is of version 1, whose rules cannot be read");
    Policy wanted;
    wanted.RuleSets.push_back(content.RuleSet);
    std::stable_sort(wanted.RuleSets[0].Rules.begin(), wanted.RuleSets[0].Rules.end(),
                     [](const PFW_RULE& a, const PFW_RULE& b)
                     { return uint16_t{a.wRuleIndex} < uint16_t{b.wRuleIndex}; });
    session.OpenToChange();
    const Policy store = session.Read();
    for (const RuleSetRecord& ruleSet : store.RuleSets)
    {
        if (ruleSet.Index != content.RuleSet.Index)
            wanted.RuleSets.push_back(ruleSet);
    }
    session.KeepCopy();
    return ApplyPolicy(session, store, wanted, MergeMode::Replace);
}

} // namespace

int Verify(Session& session)
{
    RequireDirectory(session.Directory());
    const StoreReport report = CheckStore(session.Directory(), session.Options().Master, session.Terminal(), true);
    PrintReport(session, report);
    return report.IsDamaged() ? ExitFailed : ExitDone;
}

int Backup(Session& session, const std::string& target)
{
    RequireDirectory(session.Directory());
    const std::vector<fs::path> names = StoreFileNames(session.Directory(), session.Options().Master);
    const fs::path directory = AbsolutePath(target);
    std::error_code error;
    if (names.empty())
        throw Failure(Name(session.Directory()) + " holds no rule files");
    if (fs::exists(directory, error) && !fs::is_empty(directory, error))
        throw Failure(Name(directory) + " is not an empty directory");
    CopyFiles(session.Directory(), directory, names);
    if (session.Options().Json)
        session.Terminal().Out(Json({{"copied", NamesAsJson(names)}, {"to", ToUtf8(directory.wstring())}}).dump(2) +
                               "\n");
    else
        session.Terminal().Out(Count(names.size(), "file") + " copied to " + Name(directory) + "\n");
    return ExitDone;
}

int Restore(Session& session, const std::string& source)
{
    const fs::path path = AbsolutePath(source);
    std::error_code error;
    if (!fs::exists(path, error))
        throw Failure(Name(path) + " does not exist");
    return fs::is_directory(path, error) ? RestoreDirectory(session, path) : RestoreFile(session, path);
}

int Tidy(Session& session, bool yes)
{
    RequireDirectory(session.Directory());
    Console& console = session.Terminal();
    const fs::path directory = session.Directory();
    const std::vector<fs::path> names = TemporaryFileNames(directory);
    if (names.empty())
    {
        console.Out(session.Options().Json ? "{\"removed\": []}\n" : "no temporary files\n");
        return ExitDone;
    }
    session.RefuseWhileInUse(); // a write may be going on
    for (const fs::path& name : names)
        console.Out(session.Options().Json ? "" : Name(name) + "\n");
    if (!yes && !console.Confirm("remove " + Count(names.size(), "file") + "?"))
        throw Failure("nothing is removed; --yes does so without asking");
    std::vector<fs::path> removed;
    std::error_code error;
    for (const fs::path& name : names)
    {
        if (fs::remove(directory / name, error))
            removed.push_back(name);
    }
    if (session.Options().Json)
        console.Out(Json({{"removed", NamesAsJson(removed)}}).dump(2) + "\n");
    else
        console.Out(Count(removed.size(), "file") + " removed\n");
    if (removed.size() < names.size())
        throw Failure(Count(names.size() - removed.size(), "file") + " could not be removed");
    return ExitDone;
}

} // namespace Tool
