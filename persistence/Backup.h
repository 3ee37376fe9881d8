// The backup directory: dated copies of whole rule directories, and ".brk" copies of single broken files. Nothing in it
// is ever removed.
#pragma once

#include <cstdint>
#include <set>
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

/// A copy of master, macro and every rule set file in one dated directory, made in as many tries as it takes. Nothing may
/// be written to the rule directory between the tries.
class SafetyCopy
{
public:
    /// Copies what is not yet copied, leaving it in place; makes the directory when there is something to copy. False
    /// when a file could not be copied (traced) or the search for them broke off: writing over it now would lose it.
    [[nodiscard]] bool Complete(const std::string& ruleDirectory, const std::string& masterFileName,
                                const std::string& macroFileName);

private:
    std::string m_Directory; // with a separator; empty until it is made
    std::set<std::string> m_Copied;
};

/// Copies a rule set file to RuleBackup under its name with ".brk" behind it; nothing when the file does not exist. An
/// earlier copy is written over where mayReplace says so and the system lets it, otherwise "_" is added until the name
/// is free. 0, or the system's error (traced) for a file that exists and could not be copied.
[[nodiscard]] uint32_t KeepBroken(const std::string& ruleDirectory, const std::string& fileName, bool mayReplace);

/// The same by a move, for a file that is about to be replaced and cannot be read: that needs neither its sectors nor
/// room. False when it could not be moved.
[[nodiscard]] bool MoveBroken(const std::string& ruleDirectory, const std::string& fileName);

} // namespace Backup
