// The files of a rule directory, looked at without the library and without changing anything.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "persistence/MasterFormat.h"
#include "policy/Policy.h"
#include "tools/kxrule/console/Console.h"

namespace Tool
{

using namespace KxPolicy;

enum class FileKind
{
    Master,
    Macros,
    RuleSet
};

enum class Finding
{
    Good,
    Note,   // nothing is wrong with the file, but it is worth a word
    Damaged // the library would not take it as it is
};

/// What is in one file of the three kinds. After damage the fields hold what lay in front of it.
struct FileContent
{
    FileKind Kind = FileKind::RuleSet;
    bool Known = false;  // the magic is one of the three
    std::string Problem; // empty: everything could be read
    int32_t Result = 0;  // the library's code for the problem
    uint32_t Version = 0;
    uint64_t Bytes = 0;
    MasterFields Master;
    std::vector<MacroRecord> Macros;
    RuleSetRecord RuleSet;  // rules in the order of the file
    uint32_t RuleCount = 0; // as the file's head gives it
};

/// Reads any of the three; the magic decides which.
[[nodiscard]] FileContent ReadStoreFile(const std::filesystem::path& file);

struct FileReport
{
    std::filesystem::path File;
    Finding What = Finding::Good;
    std::string Content;     // what is in it, in a few words
    std::string Problem;     // what is wrong
    std::string Consequence; // what the library would do
};

struct StoreReport
{
    std::vector<FileReport> Files;
    [[nodiscard]] bool IsDamaged() const noexcept;
};

/// Checks a rule directory as kxRuleRead would find it. The console shows progress. A thorough check
/// looks into the rules, too.
[[nodiscard]] StoreReport CheckStore(const std::filesystem::path& directory, const std::string& masterFileName,
                                     Console& console, bool thorough);

/// Master, macro and rule set files that exist in a directory, as bare names.
[[nodiscard]] std::vector<std::filesystem::path> StoreFileNames(const std::filesystem::path& directory,
                                                                const std::string& masterFileName);
/// The macro file that the library uses with this master file: the one it names unless the name is refused.
[[nodiscard]] std::filesystem::path UsedMacroFileName(const MasterFields& fields, const std::filesystem::path& master);
/// Leftovers of writes that did not come to their end.
[[nodiscard]] std::vector<std::filesystem::path> TemporaryFileNames(const std::filesystem::path& directory);
/// Whether the library takes a name for that of a rule set file.
[[nodiscard]] bool IsRuleSetFileName(const std::filesystem::path& name);

/// Copies files from one directory to another, which is made when it is missing. Throws Failure.
void CopyFiles(const std::filesystem::path& from, const std::filesystem::path& to,
               const std::vector<std::filesystem::path>& names);
/// A new directory below RuleBackup, named by the local time. Throws Failure.
[[nodiscard]] std::filesystem::path NewBackupDirectory(const std::filesystem::path& ruleDirectory);

} // namespace Tool
