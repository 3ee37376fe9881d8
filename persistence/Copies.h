// Copies of whole stores: to a given directory or below RuleBackup, and back.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "persistence/RuleDirectory.h"

namespace Copies
{

// On failure, functions that return false leave the system's error in GetLastError and the name of the file that it
// concerns in failed.

/// Copies files to a directory that has none of them, flushes them and writes a manifest: a line for each with its
/// SHA-256, size and name. On failure no copies are left.
[[nodiscard]] bool CopyFiles(const RuleDirectory& from, const RuleDirectory& to, const std::vector<std::string>& names,
                             std::string& failed);
/// The same to a new dated directory below RuleBackup; backup receives its name in the rule directory, without a
/// trailing backslash. On failure the directory is removed as well.
[[nodiscard]] bool CopyToBackup(const RuleDirectory& directory, const std::vector<std::string>& names,
                                std::string& backup, std::string& failed);
/// Makes the target hold the named files of the source, and no other rule files. The master file is put last: until
/// then the old one lists the old files. On failure some files are new and some are old.
[[nodiscard]] bool PutFiles(const RuleDirectory& source, const RuleDirectory& target,
                            const std::vector<std::string>& names, std::string& failed);

/// A dated directory below RuleBackup.
struct Dated
{
    std::string Name;    // in the rule directory
    std::string Digits;  // year to second, two digits each, local time
    unsigned Number = 0; // 0: made by the library, of what it found damaged
};
/// Newest first.
[[nodiscard]] std::vector<Dated> FindBackups(const RuleDirectory& directory);
/// Removes all numbered copies except the one of that name, which was just made, and the newest others, so that as many
/// as given remain. Only files that a manifest names are removed, and directories that are empty afterwards.
void RemoveOldest(const RuleDirectory& directory, size_t keep, const std::string& made);

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
/// How a directory's rule files differ from the manifest of a backup or, if it has none, from the backup's files.
/// Nothing if the backup has neither, or a file cannot be read.
[[nodiscard]] std::optional<std::vector<Changed>> Compare(const RuleDirectory& directory, const RuleDirectory& backup);
/// Whether there is a manifest.
[[nodiscard]] bool HasManifest(const RuleDirectory& backup);

} // namespace Copies
