// The commands. Each returns an exit code or throws Failure.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "policy/Lint.h"
#include "policy/PolicyDiff.h"
#include "policy/RuleJson.h"
#include "tools/kxrule/commands/Session.h"

namespace Tool
{

using namespace KxPolicy;

// ------------------------------------------------------------------------------------------------- look (LookCommands)
/// What a list is limited to; all conditions must be met.
struct Filter
{
    bool Active = false; // rule sets that are
    bool Off = false;    // rules that are
    std::string Action;
    std::string Application; // a part of the path

    /// Whether it may pass some rules of a rule set and not others.
    [[nodiscard]] bool IsOfRules() const noexcept { return Off || !Action.empty() || !Application.empty(); }
};
int List(Session& session, const Filter& filter);
int Show(Session& session, std::optional<uint16_t> ruleSetIndex, std::optional<uint16_t> ruleIndex,
         const Filter& filter);
int Macros(Session& session);
int FindCommand(Session& session, const std::string& query, bool withAny);
/// Traffic as the user writes it; empty means any.
struct ExplainOptions
{
    std::string Protocol;
    std::string From;
    std::string To;
    std::string Application;
};
int Explain(Session& session, const ExplainOptions& options); // ExplainCommand
int Active(Session& session);
int Report(Session& session, const std::string& file); // ReportCommand

// ------------------------------------------------------------------------------------------ policies (PolicyCommands)
struct ImportOptions
{
    std::string File;   // "-": standard input
    bool Merge = false; // the default
    bool Replace = false;
    bool Check = false;
    bool AllowEmpty = false;
    bool Strict = false;
    uint32_t Confirm = 0; // seconds after which it is taken back; 0: it stays
};
int Import(Session& session, const ImportOptions& options);
/// Reports a change, in words or as JSON, and where what was there before is; then, in words, what follows. Returns
/// ExitDone.
int TellChange(Session& session, const std::string& text, Json json, const std::string& after = {});
int ImportMacros(Session& session, const ImportOptions& options);

/// What is probably not intended, in the store or, if one is given, in a file.
int LintCommand(Session& session, const std::string& file); // LintCommand

/// Everything, or only the given rule sets, without macros and active list.
int Export(Session& session, const std::vector<uint16_t>& ruleSetIndexes, const std::string& file, bool asText);

// ------------------------------------------------------------------------------------------------- edit (EditCommand)
struct EditOptions
{
    std::string Editor; // empty: the one in the environment
    bool Yes = false;
};
int Edit(Session& session, std::optional<uint16_t> ruleSetIndex, const EditOptions& options);
/// What differs between two stores, backups or files; one alone is compared with the store.
int Diff(Session& session, const std::vector<std::string>& paths);

// --------------------------------------------------------------------------------------------- change (ChangeCommands)
int AddRuleSet(Session& session, const std::string& name, std::optional<uint16_t> index);
int DeleteRuleSets(Session& session, const std::vector<uint16_t>& indexes, bool all);
/// Where a rule goes: to an index, next to another rule, or after all of them.
struct RulePlace
{
    std::optional<uint16_t> Index;
    std::optional<uint16_t> Before;
    std::optional<uint16_t> After;
};
/// The rule is JSON, a line of text, or the name of a file with either.
int AddRule(Session& session, uint16_t ruleSetIndex, const std::string& rule, bool replace, const RulePlace& place);
int DeleteRules(Session& session, uint16_t ruleSetIndex, const std::vector<uint16_t>& indexes, bool all);
int Activate(Session& session, const std::vector<uint16_t>& indexes);
int ClearMacros(Session& session);

// --------------------------------------------------------------------------------------- small changes (RuleCommands)
int Switch(Session& session, uint16_t ruleSetIndex, const std::vector<uint16_t>& indexes, bool on);
/// Assignments are members of the JSON form, as in a line of text.
int SetFields(Session& session, uint16_t ruleSetIndex, uint16_t ruleIndex, const std::vector<std::string>& assignments);
int RenameSet(Session& session, uint16_t ruleSetIndex, const std::string& name);
struct CopyTarget
{
    bool Move = false;
    std::optional<uint16_t> RuleSet; // nothing: the same
    RulePlace Place;
};
int CopyRule(Session& session, uint16_t ruleSetIndex, uint16_t ruleIndex, const CopyTarget& target);
int Renumber(Session& session, uint16_t ruleSetIndex, uint16_t step);
struct ActiveEdit
{
    bool Add = false;
    bool Remove = false;
    std::optional<uint16_t> Before;
};
/// Adds to the active list, or removes from it; a set that is already in it moves.
int EditActive(Session& session, const std::vector<uint16_t>& indexes, const ActiveEdit& edit);
int RefreshHashes(Session& session, const std::string& application);

// ------------------------------------------------------------------------------------------------- care (CareCommands)
/// With a backup: whether the store matches the backup.
int Verify(Session& session, const std::string& against);
int Backup(Session& session, const std::string& directory);
int Restore(Session& session, const std::string& source);
int RestoreDirectory(Session& session, const std::filesystem::path& path);
int Backups(Session& session); // BackupCommands
/// Restores the newest copy that this tool made; if told so, only takes back an import that waits for its confirmation.
int Undo(Session& session, bool isOnlyUnconfirmed);
int Tidy(Session& session, bool yes);
int Dump(Session& session, const std::string& file);

// ---------------------------------------------------------------------------------------------------------- helpers --
/// Makes the store match the wanted policy and prints what changed. Of the options only the confirmation counts here.
/// The store's rules are freed as soon as they are no longer needed.
int ApplyPolicy(Session& session, Policy& store, const Policy& wanted, MergeMode mode,
                const ImportOptions& options = {});
/// Changes a copy of the store's policy, then makes the store match it as above.
int Change(Session& session, const std::function<void(Policy& wanted)>& change);
/// Makes the store's files the named ones of a directory, and copies what they replace.
void PutStore(Session& session, const RuleDirectory& source, const std::vector<std::string>& names);
int TellRestored(Session& session, const std::vector<std::string>& names);
/// For Session::Look, if the rules are not wanted.
void LeaveOut(const Policy& policy, const RuleSetRecord& ruleSet);
/// A rule's line, and below it what the line omits.
void PrintRule(Session& session, const PFW_RULE& rule);
/// Fails unless the store has it.
[[nodiscard]] const RuleSetRecord& FindRuleSet(const Policy& policy, uint16_t index);
[[nodiscard]] RuleSetRecord& FindRuleSet(Policy& policy, uint16_t index);
[[nodiscard]] std::vector<PFW_RULE>::iterator FindRule(RuleSetRecord& ruleSet, uint16_t index);
/// Inserts a rule in its place. Fails if the index is in use, or none is left.
void InsertRule(RuleSetRecord& ruleSet, PFW_RULE rule, const RulePlace& place);
/// Fails if the name is too long for its field.
[[nodiscard]] KxCommon::WideString RuleSetName(const std::string& name);
[[nodiscard]] Json DiffAsJson(const PolicyDiff& diff, bool isCheck);
/// A whole file as UTF-8, "-" for standard input.
[[nodiscard]] std::string ReadTextFile(const Session& session, const std::string& path);
/// False if something is wrong with the file, which has then been printed.
[[nodiscard]] bool ReadPolicyFile(Session& session, const std::string& file, Policy& policy);
[[nodiscard]] Json FindingsAsJson(const std::vector<LintFinding>& findings);
/// Writes text to a file, completely or not at all; "-" or an empty path: standard output.
void WriteTextFile(Session& session, const std::string& path, std::string_view text);
/// Reports in JSON which file that was.
void TellWritten(Session& session, const std::string& path);
/// Prints the diagnostics of a file, one line each: FILE:LINE:COLUMN: where: what.
/// @return ExitFailed
int TellDiagnostics(Session& session, const std::string& path, const std::vector<Diagnostic>& diagnostics);

} // namespace Tool
