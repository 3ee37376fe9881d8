// The backup directory: dated copies of whole rule directories, and ".brk" copies of single broken files. Nothing in it
// is ever removed.
#pragma once

#include <string>

namespace Backup
{

/// "RuleBackup" in the rule directory (with backslash), without a separator at its end.
[[nodiscard]] std::string Directory(const std::string& ruleDirectory);

/// Makes RuleBackup and a directory in it named by the local time (yyMMddHHmmss); returns its path. That it could not
/// be made is found out by whoever puts something there.
[[nodiscard]] std::string CreateBackupDirectoryByDate(const std::string& ruleDirectory);

/// Moves the master file and every rule set file into a new dated directory. The macro file stays. What cannot be moved
/// stays where it is, and the result is false: writing over it now would lose it.
[[nodiscard]] bool BackupAllRules(const std::string& ruleDirectory, const std::string& masterFileName);

/// Copies master, macro and every rule set file into a new dated directory, leaving them in place. False when one of
/// them could not be copied (traced): writing over it now would lose it.
[[nodiscard]] bool CopyAllRules(const std::string& ruleDirectory, const std::string& masterFileName,
                                const std::string& macroFileName);

/// Copies a rule set file to RuleBackup under its name with ".brk" behind it, over an earlier one; nothing when the
/// file does not exist. False when it exists and could not be copied (traced).
[[nodiscard]] bool KeepBroken(const std::string& ruleDirectory, const std::string& fileName);

} // namespace Backup
