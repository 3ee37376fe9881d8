// What verify says about the files of a store, and what the library would have in memory.
#include <algorithm>

#include "policy/Lint.h"
#include "policy/ResultCodes.h"
#include "policy/RuleJson.h"
#include "policy/Utf8.h"
#include "policy/Words.h"
#include "tools/kxrule/commands/StoreFiles.h"
#include "tools/kxrule/console/Columns.h"

namespace Tool
{
namespace
{

std::string Stopped(const Surveyed& seen)
{
    return "the library would read no rule set and report " + ResultText(seen.Result);
}

FileReport Good(std::string content)
{
    return {{}, Finding::Good, std::move(content), {}, {}};
}
FileReport Note(std::string content, std::string problem, std::string consequence)
{
    return {{}, Finding::Note, std::move(content), std::move(problem), std::move(consequence)};
}
FileReport Damaged(std::string consequence)
{
    return {{}, Finding::Damaged, {}, {}, std::move(consequence)};
}

FileReport OfMaster(const Surveyed& seen)
{
    const MasterFields& fields = seen.File.Master;
    if (seen.IsWhole())
        return Good(Count(fields.RuleSetFileNames.size(), "rule set") + ", " +
                    std::to_string(fields.ActiveRuleSets.size()) + " active");
    if (seen.Then == Remedy::Stop)
        return Damaged(Stopped(seen));
    if (seen.Then == Remedy::GoOn)
        return seen.IsThere ? Damaged("the library would start empty")
                            : Note({}, ", and so are rule sets", "the library would start empty");
    return Damaged(
        std::string("the library would move the master file and all rule set files into a dated directory below "
                    "RuleBackup") +
        (fields.RuleSetFileNames.empty() ? " and start empty"
                                         : "; rule sets whose names could be read would become rescue sets"));
}

FileReport OfMacros(const Surveyed& seen)
{
    if (seen.IsWhole())
        return Good(Count(seen.File.Macros.size(), "macro"));
    if (seen.Then == Remedy::Stop)
        return Damaged(Stopped(seen));
    return seen.IsThere
               ? Damaged("the library would continue without macros, and copy the file before it writes its own")
               : Note({}, {}, "the library would have no macros");
}

FileReport OfRuleSet(const Surveyed& seen, bool thorough)
{
    const RuleSetFormat::Header& set = seen.File.Set;
    const std::string rules = Count(seen.File.Rules.size(), "rule");
    const std::string summary = std::to_string(set.Index) + " \"" + ToUtf8(set.Name) + "\", " + rules;
    const std::string rescue = seen.HasRescue ? "a rescue set would take its place" : "nothing would take its place";
    if (!seen.IsThere)
        return Damaged(rescue);
    if (seen.IsMoved)
    {
        const std::string moved = "it would be moved with the master file, and " + rescue;
        return seen.IsWhole() ? Note(summary, {}, moved) : Damaged(moved);
    }
    if (seen.IsUnopened())
        return Damaged(rescue + "; the file, which may be whole, would be copied to RuleBackup or renamed first");
    if (!seen.IsWhole())
        return Damaged("the library would copy it to RuleBackup, and " + rescue + ", with the " + rules +
                       " before the damage");
    if (seen.File.Head.Version == FileFormat::kOldVersion)
        return Note(summary + " read", std::to_string(set.RuleCount) + " rules of version 1",
                    "the library does not read them");
    if (seen.IsRepeated)
        return Note(summary, "another file has the same index", "the later one in the master file counts");
    // A changed byte in the middle of a record affects neither length nor padding.
    const auto odd = thorough ? std::count_if(seen.File.Rules.begin(), seen.File.Rules.end(), HasUnexplainedBytes) : 0;
    if (odd > 0)
        return Note(summary, Count(static_cast<size_t>(odd), "rule") + " with bytes that no field accounts for",
                    "the library reads them as they are; \"kxrule dump\" shows them as raw");
    return Good(summary);
}

/// Files that nothing reads: those that are the only copy of something stay, the others may be removed by tidy.
FileReport OfRest(const Surveyed& seen)
{
    const bool isUnlisted = seen.What == Sight::Unlisted;
    const std::string unread = "the library would not read it";
    if (isUnlisted && seen.Then != Remedy::GoOn)
        return Note({}, seen.IsWhole() ? "nothing is wrong with it" : "",
                    seen.IsMoved ? "it would be moved with the master file" : unread);
    FileReport report = Note({}, isUnlisted ? "the master file does not list it" : "an unfinished write",
                             (isUnlisted ? unread : "nothing") + "; \"kxrule tidy\" removes it");
    if (isUnlisted && !seen.IsWhole())
        report.Problem += ", and ";
    report.IsOnlyCopy = seen.IsOnlyCopy;
    if (!seen.IsOnlyCopy)
    {
        report.Leftover = seen.Name;
        return report;
    }
    const FileKind kind = seen.File.Head.Kind;
    report.Problem +=
        std::string("; it is the only whole ") +
        (kind == FileKind::RuleSet ? "copy of rule set " + std::to_string(seen.File.Set.Index) : KindWord(kind));
    if (kind != FileKind::Master)
        report.Consequence = "nothing; \"kxrule restore\" brings it back";
    return report;
}

FileReport Describe(const RuleDirectory& directory, const Surveyed& seen, bool thorough)
{
    const std::string name = NarrowToUtf8(seen.Name);
    FileReport report;
    switch (seen.What)
    {
    case Sight::Master:
        report = OfMaster(seen);
        report.Problem = ProblemText(seen) + report.Problem;
        break;
    case Sight::Macros:
        report = OfMacros(seen);
        report.Problem += ProblemText(seen);
        break;
    case Sight::RuleSet:
        report = OfRuleSet(seen, thorough);
        report.Problem += ProblemText(seen);
        break;
    case Sight::MacroName:
        report = Note({}, "it names a macro file with an unusable name",
                      "the library would use " + NarrowToUtf8(directory.MacroFileName()));
        break;
    case Sight::BadName:
        report =
            Note({}, "it lists a rule set file with an unusable name: \"" + name + "\"", "the library would ignore it");
        break;
    case Sight::Twice:
        report = Note({}, "it lists " + name + " twice", "the library would read it once");
        break;
    case Sight::NoSuchSet:
        report = Note({}, "rule set " + std::to_string(seen.Index) + " is active but does not exist", "nothing");
        break;
    case Sight::Unlisted:
        report = OfRest(seen);
        report.Problem += ProblemText(seen);
        break;
    case Sight::Temporary:
        report = OfRest(seen);
    }
    const bool isOfMaster = seen.What >= Sight::MacroName && seen.What <= Sight::NoSuchSet;
    report.File = isOfMaster ? NarrowToUtf8(directory.MasterFileName()) : name;
    return report;
}

/// Notes rules that name a macro that does not exist: an interrupted write can leave rules of one policy with the
/// macros of another.
void NoteMissingMacros(FileReport& report, const RuleFile& file, const std::vector<MacroRecord>& macros)
{
    std::vector<LintFinding> findings;
    LintRules(file.Set.Index, file.Rules, {&macros}, findings);
    const auto count =
        std::count_if(findings.begin(), findings.end(),
                      [](const LintFinding& finding) { return std::string_view(finding.Code) == "no-such-macro"; });
    if (count == 0)
        return;
    report.What = Finding::Note;
    report.Problem = "rules name " + Count(static_cast<size_t>(count), "macro") + " that the macro file does not have";
    report.Consequence = "the library reads them as they are; \"kxrule lint\" lists them";
}

void Put(Policy& policy, RuleSetRecord&& ruleSet)
{
    const auto place = std::lower_bound(policy.RuleSets.begin(), policy.RuleSets.end(), ruleSet.Index,
                                        [](const RuleSetRecord& a, uint16_t b) { return a.Index < b; });
    if (place != policy.RuleSets.end() && place->Index == ruleSet.Index)
        *place = std::move(ruleSet);
    else
        policy.RuleSets.insert(place, std::move(ruleSet));
}

/// Adds what the library would have of a file in memory. The rules stay in the file's place if nobody takes them.
void Add(Policy& policy, Surveyed& seen, const TakeRuleSet& take)
{
    if (seen.What == Sight::Master)
        policy.Active = seen.File.Master.ActiveRuleSets;
    if (seen.What == Sight::Macros)
        policy.Macros = InMemory(MacrosOf(std::move(seen.File)));
    if (seen.What != Sight::RuleSet || !seen.IsWhole() || seen.IsMoved)
        return;
    RuleSetRecord ruleSet = InMemory(RuleSetOf(std::move(seen.File)));
    if (take)
        Put(policy, {ruleSet.Index, ruleSet.Name, {}});
    take ? take(policy, std::move(ruleSet)) : Put(policy, std::move(ruleSet));
    seen.File.Rules = std::move(ruleSet.Rules); // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
}

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

StoreReport CheckStore(const RuleDirectory& directory, Console& console, bool thorough, Policy* policy,
                       const TakeRuleSet& take)
{
    Progress progress(console, "reading the store");
    StoreReport report;
    std::optional<std::vector<MacroRecord>> macros; // if rules are to be checked against them
    Survey(directory,
           [&](Surveyed& seen)
           {
               progress.Show(seen.Position, seen.Last);
               FileReport& file = report.Files.emplace_back(Describe(directory, seen, thorough));
               if (seen.What == Sight::Macros)
                   report.IsStopped = seen.Then == Remedy::Stop && seen.File.Head.Defect != FileDefect::Busy;
               if (seen.What == Sight::Macros && thorough && file.What != Finding::Damaged)
                   macros = InMemory(MacrosOf(seen.File));
               else if (seen.What == Sight::RuleSet && macros && file.What == Finding::Good)
                   NoteMissingMacros(file, seen.File, *macros);
               if (policy != nullptr)
                   Add(*policy, seen, take);
           });
    return report;
}

} // namespace Tool
