// Commands that maintain the files: verify, backup, restore, tidy. docs/recovery.md explains when to use them.
#include <algorithm>
#include <iterator>

#include <nlohmann/json.hpp>

#include "persistence/Copies.h"
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
    // A changed bit within a record does not show: it makes another rule.
    console.Out(damaged == 0
                    ? console.Paint(Style::Good, "no damage found") + "; --against BACKUP finds every changed bit\n"
                    : console.Paint(Style::Bad, std::to_string(damaged) + " damaged") + "\n");
}

Json NamesAsJson(const std::vector<std::string>& names)
{
    Json json = Json::array();
    for (const std::string& name : names)
        json.push_back(NarrowToUtf8(name));
    return json;
}

[[noreturn]] void FailedToPut(const std::string& name)
{
    throw Failure("putting " + NarrowToUtf8(name) + " in place: " + SystemText(::GetLastError()));
}

int RestoreMacros(Session& session, const StoreFile& file)
{
    RequireDirectory(session.Directory());
    session.Claim();
    session.BeginChange();
    session.CopyFiles();
    const RuleDirectory store = session.Store();
    if (!store.Put(file.Directory, file.Name, store.MacroFileName()))
        FailedToPut(store.MacroFileName());
    return TellRestored(session, {store.MacroFileName()});
}

int RestoreFile(Session& session, const fs::path& file)
{
    const StoreFile place(file.wstring());
    LookedAt seen = LookAt(place.Directory, place.Name);
    if (!seen.IsWhole())
        throw Failure(Name(file) + " is not restored: " + ProblemText(seen));
    if (seen.File.Head.Kind == FileKind::Master)
        throw Failure(Name(file) + " is a master file; it is restored with its directory");
    if (seen.File.Head.Kind == FileKind::Macros)
        return RestoreMacros(session, place);
    if (seen.File.Head.Version == FileFormat::kOldVersion)
        throw Failure(Name(file) + " is of version 1, whose rules cannot be read");
    Policy wanted;
    wanted.RuleSets.push_back(InMemory(RuleSetOf(std::move(seen.File))));
    session.OpenToChange(Session::OnDamage::Mend);
    Policy store = session.Read();
    for (const RuleSetRecord& ruleSet : store.RuleSets)
    {
        if (ruleSet.Index != wanted.RuleSets.front().Index)
            wanted.RuleSets.push_back(ruleSet);
    }
    return ApplyPolicy(session, store, wanted, MergeMode::Replace);
}

int VerifyAgainst(Session& session, const std::string& backup)
{
    const fs::path path = session.ExistingPath(backup);
    RequireDirectory(path.wstring());
    const auto changes = Copies::Compare(session.Store(), StoreAt(path.wstring(), session.Options().Master));
    if (!changes)
        throw Failure(Name(path) + " or the store cannot be read, or has no rule files");
    static constexpr const char* kWords[] = {"altered", "missing", "added"};
    Json json = Json::array();
    for (const Copies::Changed& change : *changes)
    {
        const char* const word = kWords[static_cast<size_t>(change.What)];
        json.push_back({{"file", NarrowToUtf8(change.Name)}, {"change", word}});
        session.Terminal().Out(session.Options().Json ? "" : Printable(NarrowToUtf8(change.Name)) + "  " + word + "\n");
    }
    session.Terminal().Out(session.Options().Json ? json.dump(2) + "\n"
                           : changes->empty()     ? "the store matches the copy\n"
                                                  : Count(changes->size(), "difference") + "\n");
    return changes->empty() ? ExitDone : ExitDifferent;
}

} // namespace

int TellRestored(Session& session, const std::vector<std::string>& names)
{
    return TellChange(session, Count(names.size(), "file") + " restored", {{"restored", NamesAsJson(names)}});
}

void PutStore(Session& session, const RuleDirectory& source, const std::vector<std::string>& names)
{
    session.BeginChange();
    session.CopyFiles();
    if (std::string failed; !Copies::PutFiles(source, session.Store(), names, failed))
        FailedToPut(failed);
}

int Verify(Session& session, const std::string& against)
{
    RequireDirectory(session.Directory());
    session.TellUnconfirmed();
    if (!against.empty())
        return VerifyAgainst(session, against);
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
        throw Failure(Name(session.Directory()) + " has no rule files");
    if (fs::exists(path, error) && !fs::is_empty(path, error))
        throw Failure(Name(path) + " is not an empty directory");
    HoldInterrupts();
    const bool isNew = fs::create_directories(path, error);
    if (!fs::is_directory(path))
        throw Failure(Name(path) + " cannot be created: " + SystemText(static_cast<uint32_t>(error.value())));
    if (std::string failed; !Copies::CopyFiles(store, StoreAt(path.wstring(), session.Options().Master), names, failed))
    {
        const std::string why = SystemText(::GetLastError());
        if (isNew)
            fs::remove(path, error);
        throw Failure("copying " + NarrowToUtf8(failed) + " to " + Name(path) + ": " + why);
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
    const std::vector<std::string> names = StoreFileNames(source);
    if (names.empty())
        throw Failure(Name(path) + " has no rule files");
    if (IdentityOf(path.wstring()) == IdentityOf(session.Directory()))
        throw Failure(Name(path) + " is the rule directory itself");
    const StoreReport report = CheckStore(source, session.Terminal(), false);
    if (report.IsDamaged())
    {
        PrintReport(session, report);
        throw Failure(Name(path) +
                      " is damaged and is not restored; its undamaged rule set files can be restored one by one");
    }
    // A changed bit need not show as damage. (Without a manifest the files have to be taken as they are.)
    if (const auto changes = Copies::Compare(source, source); !changes || !changes->empty())
        throw Failure(
            Name(path) + " is not restored: " +
            (changes ? NarrowToUtf8(changes->front().Name) + " does not match the manifest" : "it cannot be read"));
    if (names.front() != source.MasterFileName())
        throw Failure(Name(path) + " has no master file; its files can be restored one by one");
    session.Claim();
    PutStore(session, source, names);
    return TellRestored(session, names);
}

int Restore(Session& session, const std::string& source)
{
    const fs::path path = session.ExistingPath(source);
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
    session.Claim(); // a write may be in progress
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
        throw Failure("nothing removed; --yes removes without asking");
    session.BeginChange();
    if (std::any_of(names.begin(), names.end(), RuleFiles::IsRuleSetFileName))
        session.CopyFiles();
    std::vector<std::string> removed;
    std::copy_if(names.begin(), names.end(), std::back_inserter(removed),
                 [&store](const std::string& name) { return store.Remove(name); });
    TellChange(session, Count(removed.size(), "file") + " removed", {{"removed", NamesAsJson(removed)}});
    if (removed.size() < names.size())
        throw Failure(Count(names.size() - removed.size(), "file") + " could not be removed");
    return ExitDone;
}

} // namespace Tool
