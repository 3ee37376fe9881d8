// The files of a rule directory, read without the library and without changing anything.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "persistence/Survey.h"
#include "policy/Policy.h"
#include "tools/kxrule/console/Console.h"

namespace Tool
{

using namespace KxPolicy;

enum class Finding
{
    Good,
    Note,   // nothing is wrong with the file, but it is worth mentioning
    Damaged // the library would not use it as it is
};

/// A file as the library names it: its directory, and its name there, in the active code page. Throws Failure if the
/// code page lacks a character of the path and there is no short name.
struct StoreFile
{
    explicit StoreFile(const std::wstring& path);
    RuleDirectory Directory;
    std::string Name;
};

/// The rule directory of a path, with the macro file that its master file names. An empty name of the master file
/// (UTF-8) stands for the default. Throws Failure.
[[nodiscard]] RuleDirectory StoreAt(const std::wstring& path, const std::string& masterFileName);
/// Master, macro and rule set files that exist in a directory, in this order.
[[nodiscard]] std::vector<std::string> StoreFileNames(const RuleDirectory& directory);

[[nodiscard]] const char* KindWord(FileKind kind) noexcept;
/// What is wrong with a file, as text; empty if nothing is.
[[nodiscard]] std::string ProblemText(const LookedAt& file);
/// The contents of a file as records, unchanged.
[[nodiscard]] std::vector<MacroRecord> MacrosOf(RuleFile file);
[[nodiscard]] RuleSetRecord RuleSetOf(RuleFile file);
/// The same as the library would have it: names cut to their fields, rules normalised and ordered by their indexes, of
/// equal indexes the later one.
[[nodiscard]] std::vector<MacroRecord> InMemory(std::vector<MacroRecord> macros);
[[nodiscard]] RuleSetRecord InMemory(RuleSetRecord ruleSet);

struct FileReport
{
    std::string File; // UTF-8
    Finding What = Finding::Good;
    std::string Content;       // a summary of its contents
    std::string Problem;       // what is wrong
    std::string Consequence;   // what the library would do
    std::string Leftover = {}; // its name for the library, if nothing reads it and it may be removed without loss
    bool IsOnlyCopy = false;   // nothing reads it, and it is the only whole file with its contents
};

struct StoreReport
{
    std::vector<FileReport> Files;
    bool IsStopped = false; // the library could not read beyond the macro file
    [[nodiscard]] bool IsDamaged() const noexcept;
    /// What is wrong with the damaged files, one indented line for each.
    [[nodiscard]] std::string Problems() const;
};

/// Called with every rule set as the library would have it, in the order of the master file: one with the index of an
/// earlier one replaces it. By then the policy has everything that the library has apart from the rule sets.
using TakeRuleSet = std::function<void(const Policy& policy, RuleSetRecord&& ruleSet)>;

/// Checks a rule directory as kxRuleRead would find it, reading each file once. The console shows progress. A thorough
/// check covers the rules as well. The policy, if one is given, becomes what the library would have in memory, without
/// what is damaged (and without the hashes that it would compute); its rule sets have no rules if take receives them.
[[nodiscard]] StoreReport CheckStore(const RuleDirectory& directory, Console& console, bool thorough,
                                     Policy* policy = nullptr, const TakeRuleSet& take = {});

} // namespace Tool
