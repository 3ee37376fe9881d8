// RuleDirectory: the rule directory of a store on the disk.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "persistence/EncryptStream.h"
#include "persistence/FileFormat.h"
#include "persistence/FileHead.h"
#include "persistence/Files.h"

class CEncryptFile;
class RuleSetFiles;

/// Knows where the directory is and what its files are called, opens and writes them, and makes copies of what is about
/// to be replaced. It does not know what the files mean or which of them may be replaced; RuleSetFiles and the master
/// do. File names are names in the directory (persistence/RuleFileNames.h). No lock of its own: the master lock guards
/// it.
class RuleDirectory
{
public:
    /// Copies the named file if necessary. Called when the new file is complete, right before it replaces the old one:
    /// 0, or the system's error if the old file could not be copied, so that it must stay.
    using Copier = std::function<uint32_t(const std::string& fileName)>;

    /// What distinguishes the three writers.
    struct WriteJob
    {
        FileKind Kind;
        const std::string& FileName;
        /// Writes everything after the magic number. 0, or a result code that has been traced; may throw
        /// CEncryptStream::Exception and std::bad_alloc.
        const std::function<int32_t(CEncryptStream&)>& Encode;
        const Copier& Copy;
        CStreamBuffer* Lent = nullptr; // a buffer to gather the bytes in, if the caller has one
    };

    /// Resolves the path once, so that a change of the current directory does not redirect later writes. Trace lines
    /// still show the path as it was given.
    void Locate(const std::string& given, const std::string& masterFileName);
    /// Creates the directory if it is missing, one level only. A failure shows in later writes.
    void MakeIfMissing() const;

    /// Absolute, ending in a backslash.
    [[nodiscard]] const std::string& Path() const noexcept { return m_Path; }
    /// As given, ending in a backslash: for trace lines.
    [[nodiscard]] const std::string& Given() const noexcept { return m_Given; }
    [[nodiscard]] const std::string& MasterFileName() const noexcept { return m_MasterFileName; }
    [[nodiscard]] const std::string& MacroFileName() const noexcept { return m_MacroFileName; }
    /// Accepts the name in a master file if it cannot denote anything but a separate file in the directory.
    [[nodiscard]] bool TakeMacroFileName(const std::string& name);
    /// Whether a name that a master file lists can be that of a rule set file.
    [[nodiscard]] bool IsUsableRuleSetFileName(const std::string& name) const;

    /// How long a write waits for others to close a file, in milliseconds.
    void SetPatience(uint32_t milliseconds) noexcept { m_Patience = milliseconds; }

    /// Opens a file for reading. None, or FileDefect::Missing or Busy. May throw bad_alloc like CEncryptFile.
    [[nodiscard]] FileDefect Open(CEncryptFile& file, const std::string& fileName) const;
    /// The same without excluding anybody, for code that only looks: see CEncryptFile::OpenToLook. *error: the system's
    /// error.
    [[nodiscard]] FileDefect OpenToLook(CEncryptFile& file, const std::string& fileName,
                                        uint32_t* error = nullptr) const;
    /// Appends the rule set files in the system's order. False if the search broke off, so that there may be more.
    [[nodiscard]] bool FindRuleSetFiles(std::vector<std::string>& names) const;
    /// Appends the existing master, macro and rule set files, in this order, but no directories of such a name.
    [[nodiscard]] bool FindFiles(std::vector<std::string>& names) const;
    /// Appends the files that unfinished writes have left.
    [[nodiscard]] bool FindTemporaryFiles(std::vector<std::string>& names) const;
    [[nodiscard]] bool MayExist(const std::string& fileName) const;
    /// True if the file is gone.
    bool Remove(const std::string& fileName) const;
    /// Writes a temporary file, flushes it, has the old file copied, and moves it over the real one. A master or macro
    /// file that this object wrote, that nobody has touched since or has open, and that would get the same bytes again
    /// is left as it is: most changes alter neither, and a flush costs more than everything else. On any failure the
    /// real file still has its content under its name (unless the move was refused and the copy that replaces it broke
    /// off), and the temporary file stays, complete in that case. Every failure is traced.
    /// @return 0, KXRULE_E_FILE_OPEN (temporary file), KXRULE_E_FILE_WRITE
    [[nodiscard]] int32_t Write(const WriteJob& job);

    /// Copies a file into another directory under the same name, flushed. On failure (GetLastError) a part of it may
    /// remain.
    [[nodiscard]] bool CopyTo(const RuleDirectory& target, const std::string& fileName) const;
    /// Moves a flushed copy of another directory's file over the named one, in one step as a write does. On failure
    /// (GetLastError; traced if the last step failed) the file is as it was and nothing else is left.
    [[nodiscard]] bool Put(const RuleDirectory& source, const std::string& sourceName,
                           const std::string& fileName) const;

    // ----- Backup.cpp: copies, in RuleBackup; nothing there is ever removed

    /// Makes RuleBackup and a directory in it named by the local time (yyMMddHHmmss); returns its name in the rule
    /// directory, ending in a backslash. A failure shows when something is put there.
    std::string CreateBackupDirectoryByDate() const;
    /// A dated directory that did not exist before, with a dash and a number; its name as above. Empty on failure
    /// (GetLastError).
    [[nodiscard]] std::string NewBackupDirectory() const;
    /// Moves the master file and every rule set file into a new dated directory. The macro file stays, and so does what
    /// cannot be moved.
    void BackupAllRules() const;
    /// Called before the first write into a directory that was not read completely: copies every file that holds more
    /// than memory does into a dated directory, and notes it as safe. A file that cannot be copied (traced) is not. 0,
    /// or the system's error for a file that another program has open, so that the next try may succeed.
    [[nodiscard]] uint32_t CopyUnread(RuleSetFiles& files) const;
    /// Why a copy is made. Only the copy of a damaged file may replace an earlier copy, if that is damaged too; every
    /// other gets a number if the name is taken. Unopened: the file may not exist at all, so failures are not traced.
    enum class Reason
    {
        Damaged,
        Unopened,
        Replaced
    };
    /// Copies a file to RuleBackup under its name with ".brk" after it; nothing if there is no file. 0, or the system's
    /// error, traced.
    [[nodiscard]] uint32_t CopyBroken(const std::string& fileName, Reason reason) const;
    /// The same for a file that is about to be replaced: if no copy can be made, it is renamed in the same directory.
    /// 0, or the system's error if neither is possible.
    [[nodiscard]] uint32_t CopyOrRename(const std::string& fileName, Reason reason);
    /// Puts a file into the place of one that may be renamed but not replaced. On failure both have their names again.
    [[nodiscard]] bool MoveAround(const std::string& fromName, const std::string& fileName) const;

private:
    [[nodiscard]] bool Find(const std::string& pattern, bool (*isMeant)(std::string_view),
                            std::vector<std::string>& names) const;
    [[nodiscard]] std::string PathOf(const std::string& name) const { return m_Path + name; }
    [[nodiscard]] std::string ShownPathOf(const std::string& name) const { return m_Given + name; }
    [[nodiscard]] static bool IsSameFile(const std::string& a, const std::string& b);
    [[nodiscard]] bool IsFile(const std::string& name) const;
    [[nodiscard]] bool IsWritten(const WriteJob& job) const;
    void NoteWritten(const WriteJob& job);
    [[nodiscard]] int32_t WriteTemporary(const WriteJob& job, const std::string& name) const;
    [[nodiscard]] int32_t Replace(const std::string& temporaryName, const std::string& fileName) const;
    std::string MakeBackupDirectory(const std::string& dated) const;
    [[nodiscard]] uint32_t CopyTraced(const std::string& from, const std::string& to, bool isTraced) const;

    std::string m_Given = ".\\";
    std::string m_Path = ".\\"; // absolute after Locate; ends in a backslash
    std::string m_MasterFileName = FileFormat::kMasterFileName;
    std::string m_MacroFileName = FileFormat::kMacroFileName;
    static constexpr uint32_t kPatience = 330; // a third of a second
    uint32_t m_Patience = kPatience;
    // Of the master and the macro file as they were written, by kind. Empty if not known to be flushed.
    FileStamp m_Written[2];
    std::string m_Aside; // the name that CopyOrRename gave a file since the last write began; usually empty
};
