// Commands that care for the files: verify, backup, restore, tidy. docs/recovery.md is for those who need them.
#include <algorithm>
#include <iterator>

#include <nlohmann/json.hpp>

#include "common/srclib/KxComn_Handle.h"
#include "persistence/RuleFileNames.h"
#include "policy/Utf8.h"
#include "policy/Words.h"
#include "tools/kxrule/commands/Commands.h"
#include "tools/kxrule/console/Columns.h"
#include "tools/kxrule/console/Interrupt.h"

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
        entry["file"] = file.File;
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
        rows.push_back(
            {Printable(file.File), FindingWord(file.What), Printable(file.Content + separator + file.Problem)});
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

void PutFile(const RuleDirectory& source, const std::string& name, const RuleDirectory& target,
             const std::string& targetName)
{
    if (!target.Put(source, name, targetName))
        throw Failure("putting " + NarrowToUtf8(targetName) + " in place: " + SystemText(::GetLastError()));
}

Json NamesAsJson(const std::vector<std::string>& names)
{
    Json json = Json::array();
    for (const std::string& name : names)
        json.push_back(NarrowToUtf8(name));
    return json;
}

void TellRestored(Session& session, const std::vector<std::string>& names)
{
    const std::string copies = ToUtf8(session.Copies().wstring());
    if (session.Options().Json)
    {
        Json json = {{"restored", NamesAsJson(names)}};
        if (!copies.empty())
            json["copies"] = copies;
        return session.Terminal().Out(json.dump(2) + "\n");
    }
    session.Terminal().Out(Count(names.size(), "file") + " restored" +
                           (copies.empty() ? "" : "; what was there before lies in " + Printable(copies)) + "\n");
}

int RestoreMacros(Session& session, const StoreFile& file)
{
    RequireDirectory(session.Directory());
    session.Claim();
    session.BeginChange();
    const RuleDirectory target = session.Store();
    session.KeepCopy();
    PutFile(file.Directory, file.Name, target, target.MacroFileName());
    TellRestored(session, {target.MacroFileName()});
    return ExitDone;
}

int RestoreFile(Session& session, const fs::path& file)
{
    const StoreFile place(file.wstring());
    const FileContent content = ReadStoreFile(place.Directory, place.Name);
    if (!content.Problem.empty())
        throw Failure(Name(file) + " is not restored: " + content.Problem);
    if (content.Kind == FileKind::Master)
        throw Failure(Name(file) + " is a master file; it is restored with its directory");
    if (content.Kind == FileKind::Macros)
        return RestoreMacros(session, place);
    if (content.Version == FileFormat::kOldVersion)
        throw Failure(Name(file) + " is of version 1, whose rules cannot be read");
    Policy wanted;
    wanted.RuleSets.push_back(content.RuleSet);
    std::stable_sort(wanted.RuleSets[0].Rules.begin(), wanted.RuleSets[0].Rules.end(),
                     [](const PFW_RULE& a, const PFW_RULE& b)
                     { return uint16_t{a.wRuleIndex} < uint16_t{b.wRuleIndex}; });
    session.OpenToChange(Session::OnDamage::Mend);
    const Policy store = session.Read();
    for (const RuleSetRecord& ruleSet : store.RuleSets)
    {
        if (ruleSet.Index != content.RuleSet.Index)
            wanted.RuleSets.push_back(ruleSet);
    }
    return ApplyPolicy(session, store, wanted, MergeMode::Replace);
}

} // namespace

int Verify(Session& session)
{
    RequireDirectory(session.Directory());
    const StoreReport report = CheckStore(session.Store(), session.Terminal(), true);
    PrintReport(session, report);
    return report.IsDamaged() ? ExitFailed : ExitDone;
}

int Backup(Session& session, const std::string& target)
{
    RequireDirectory(session.Directory());
    const RuleDirectory store = session.Store();
    const std::vector<std::string> names = StoreFileNames(store);
    const fs::path path = AbsolutePath(target);
    std::error_code error;
    if (names.empty())
        throw Failure(Name(session.Directory()) + " holds no rule files");
    if (fs::exists(path, error) && !fs::is_empty(path, error))
        throw Failure(Name(path) + " is not an empty directory");
    HoldInterrupts();
    const bool isNew = fs::create_directories(path, error);
    if (!fs::is_directory(path))
        throw Failure(Name(path) + " cannot be made: " + SystemText(static_cast<uint32_t>(error.value())));
    try
    {
        CopyFiles(store, StoreAt(path.wstring(), session.Options().Master), names);
    }
    catch (const Failure&)
    {
        if (isNew)
            fs::remove(path, error);
        throw;
    }
    if (session.Options().Json)
        session.Terminal().Out(Json({{"copied", NamesAsJson(names)}, {"to", ToUtf8(path.wstring())}}).dump(2) + "\n");
    else
        session.Terminal().Out(Count(names.size(), "file") + " copied to " + Name(path) + "\n");
    return ExitDone;
}

int RestoreDirectory(Session& session, const fs::path& path)
{
    const RuleDirectory source = StoreAt(path.wstring(), session.Options().Master);
    std::vector<std::string> names = StoreFileNames(source);
    if (names.empty())
        throw Failure(Name(path) + " holds no rule files");
    if (IsSameDirectory(path, session.Directory()))
        throw Failure(Name(path) + " is the rule directory itself");
    const StoreReport report = CheckStore(source, session.Terminal(), false);
    if (report.IsDamaged())
    {
        PrintReport(session, report);
        throw Failure(Name(path) +
                      " is damaged and is not restored; its good rule set files can be restored one by one");
    }
    if (names.front() != source.MasterFileName())
        throw Failure(Name(path) + " holds no master file; its files can be restored one by one");
    session.Claim();
    session.BeginChange();
    const RuleDirectory target = session.Store();
    const std::vector<std::string> replaced = StoreFileNames(target);
    session.KeepCopy();
    // The master file comes last: until it is there, the old one names the old files.
    std::reverse(names.begin(), names.end());
    for (const std::string& name : names)
        PutFile(source, name, target, name);
    for (const std::string& name : replaced)
    {
        if (std::find(names.begin(), names.end(), name) == names.end())
            target.Remove(name);
    }
    TellRestored(session, names);
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
    const bool json = session.Options().Json;
    const RuleDirectory store = session.Store();
    session.Claim(); // a write may be going on
    std::vector<std::string> names;
    for (const FileReport& file : CheckStore(store, console, false).Files)
    {
        if (!file.Leftover.empty())
            names.push_back(file.Leftover);
        else if (file.IsOnlyCopy && !json)
            console.Out(Printable(file.File) + " stays: " + file.Problem + "\n");
    }
    if (names.empty())
    {
        console.Out(json ? "{\"removed\": []}\n" : "nothing to remove\n");
        return ExitDone;
    }
    for (const std::string& name : names)
        console.Out(json ? "" : Printable(NarrowToUtf8(name)) + "\n");
    if (!yes && !console.Confirm("remove " + Count(names.size(), "file") + "?"))
        throw Failure("nothing is removed; --yes does so without asking");
    session.BeginChange();
    if (std::any_of(names.begin(), names.end(), RuleFiles::IsRuleSetFileName))
        session.KeepCopy();
    std::vector<std::string> removed;
    std::copy_if(names.begin(), names.end(), std::back_inserter(removed),
                 [&store](const std::string& name) { return store.Remove(name); });
    const std::string copies = ToUtf8(session.Copies().wstring());
    if (json)
        console.Out(Json({{"removed", NamesAsJson(removed)}}).dump(2) + "\n");
    else
        console.Out(Count(removed.size(), "file") + " removed" +
                    (copies.empty() ? "" : "; what was there before lies in " + Printable(copies)) + "\n");
    if (removed.size() < names.size())
        throw Failure(Count(names.size() - removed.size(), "file") + " could not be removed");
    return ExitDone;
}

} // namespace Tool
