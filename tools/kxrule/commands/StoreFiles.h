// The files of a rule directory, looked at without the library and without changing anything.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "persistence/FileHead.h"
#include "persistence/MasterFormat.h"
#include "persistence/RuleDirectory.h"
#include "policy/Policy.h"
#include "tools/kxrule/console/Console.h"

namespace Tool
{

using namespace KxPolicy;

enum class Finding
{
    Good,
    Note,   // nothing is wrong with the file, but it is worth a word
    Damaged // the library would not take it as it is
};

/// What is in one file of the three kinds. After a defect the fields hold what lay before it.
struct FileContent
{
    FileKind Kind = FileKind::RuleSet;
    bool IsKnown = false; // it begins as a rule file does
    FileDefect Defect = FileDefect::None;
    std::string Problem; // the defect in words; empty: everything could be read
    uint32_t Version = 0;
    uint64_t Bytes = 0;
    MasterFields Master;
    std::vector<MacroRecord> Macros;
    RuleSetRecord RuleSet;  // rules in the order of the file
    uint32_t RuleCount = 0; // as the file's head gives it
};

/// A file as the library names it: its directory, and its name there in the active code page. Throws Failure when the
/// code page lacks a character of the path and there is no short name.
struct StoreFile
{
    explicit StoreFile(const std::wstring& path);
    RuleDirectory Directory;
    std::string Name;
};

/// A path in the active code page, by its short name where the long one has no counterpart. Throws Failure.
[[nodiscard]] std::string NarrowPath(const std::wstring& path);
/// The rule directory of a path, with the macro file that its master file names. An empty name of the master file
/// (UTF-8) stands for the default. Throws Failure.
[[nodiscard]] RuleDirectory StoreAt(const std::wstring& path, const std::string& masterFileName);

/// Reads any of the three kinds; the magic decides which.
[[nodiscard]] FileContent ReadStoreFile(const RuleDirectory& directory, const std::string& fileName);
/// The same for a file that is to be of a kind: another one is a defect.
[[nodiscard]] FileContent ReadStoreFile(const RuleDirectory& directory, const std::string& fileName, FileKind kind);

struct FileReport
{
    std::string File; // UTF-8
    Finding What = Finding::Good;
    std::string Content;     // what is in it, in a few words
    std::string Problem;     // what is wrong
    std::string Consequence; // what the library would do
    std::string Leftover;    // its name for the library, if nothing reads it and nothing is lost with it
    bool IsOnlyCopy = false; // nothing reads it, and it is the only whole file of what it holds
};

struct StoreReport
{
    std::vector<FileReport> Files;
    bool IsStopped = false; // the library could not read on past the macro file
    [[nodiscard]] bool IsDamaged() const noexcept;
    /// What is wrong with the damaged ones, a line each, indented.
    [[nodiscard]] std::string Problems() const;
};

/// Checks a rule directory as kxRuleRead would find it. The console shows progress. A thorough check looks into the
/// rules, too. The policy, if one is given, becomes what the library would have in memory, without what is damaged (and
/// without the hashes that it would compute).
[[nodiscard]] StoreReport CheckStore(const RuleDirectory& directory, Console& console, bool thorough,
                                     Policy* policy = nullptr);

/// Master, macro and rule set files that exist in a directory, in this order.
[[nodiscard]] std::vector<std::string> StoreFileNames(const RuleDirectory& directory);

/// Copies files to a directory that holds none of them, flushed. Throws Failure; nothing of the copies is left then.
void CopyFiles(const RuleDirectory& from, const RuleDirectory& to, const std::vector<std::string>& names);
/// Copies files into a new dated directory below RuleBackup and returns it; without files nothing. Throws Failure.
std::filesystem::path CopyToBackup(const RuleDirectory& directory, const std::vector<std::string>& names);

} // namespace Tool
