// Copies of whole stores: into a directory that somebody names, or below RuleBackup, and back.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "persistence/RuleDirectory.h"

namespace Copies
{

// Those that return false leave the system's error in GetLastError, and in failed the name of the file that it is
// about.

/// Copies files to a directory that holds none of them, flushed, with a manifest: a line for each with its SHA-256,
/// size and name. On failure nothing of the copies is left.
[[nodiscard]] bool CopyFiles(const RuleDirectory& from, const RuleDirectory& to, const std::vector<std::string>& names,
                             std::string& failed);
/// The same into a new dated directory below RuleBackup, whose name in the rule directory is given, without a backslash
/// at its end. On failure it is gone, too.
[[nodiscard]] bool CopyToBackup(const RuleDirectory& directory, const std::vector<std::string>& names,
                                std::string& backup, std::string& failed);
/// Makes the target hold what of the source is named, and no other rule files. The master file comes last: until it is
/// there, the old one lists the old files. On failure some files are new, some old.
[[nodiscard]] bool PutFiles(const RuleDirectory& source, const RuleDirectory& target,
                            const std::vector<std::string>& names, std::string& failed);

/// A dated directory below RuleBackup.
struct Dated
{
    std::string Name;    // in the rule directory
    std::string Digits;  // year to second, two digits each, local time
    unsigned Number = 0; // 0: made by the library, for what it found damaged
};
/// The newest first.
[[nodiscard]] std::vector<Dated> FindBackups(const RuleDirectory& directory);
/// Removes of those with a number what is older than the newest ones, whose count is given. Only what a manifest names
/// is removed, and a directory that is empty then.
void RemoveOldest(const RuleDirectory& directory, size_t keep);

enum class Change
{
    Altered,
    Missing,
    Added
};
struct Changed
{
    std::string Name;
    Change What;
};
/// What of a directory's rule files is not as the manifest of a backup says; without a manifest, as the backup's files
/// are. Nothing when the backup has neither, or a file cannot be read.
[[nodiscard]] std::optional<std::vector<Changed>> Compare(const RuleDirectory& directory, const RuleDirectory& backup);
/// Whether there is a manifest.
[[nodiscard]] bool HasManifest(const RuleDirectory& backup);

} // namespace Copies
