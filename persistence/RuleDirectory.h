// RuleDirectory: the one rule directory of a store, as it lies on the disk.
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

/// Knows where the directory is and what its files are called, opens them, writes them, and keeps copies of what is about
/// to be replaced. What the files mean, and which of them may be replaced, others know: RuleSetFiles and the master.
/// File names are names in the directory (persistence/RuleFileNames.h). No lock of its own: the master lock guards it.
class RuleDirectory
{
public:
    /// Asked when the new file is complete, right before it takes the place of the named one: 0, or the system's error for
    /// which what the old file holds cannot be kept, so that it must stay.
    using Keeper = std::function<uint32_t(const std::string& fileName)>;

    /// How one of the three writers differs from the others.
    struct WriteJob
    {
        FileKind Kind;
        const std::string& FileName;
        /// Writes everything after the magic. 0, or a result code that has been traced; may throw
        /// CEncryptStream::Exception and std::bad_alloc.
        const std::function<int32_t(CEncryptStream&)>& Encode;
        const Keeper& Keep;
        CStreamBuffer* Lent = nullptr; // what the bytes are gathered in, if somebody has one
    };

    /// Resolves the path, once: a changed current directory must not lead later writes elsewhere. Trace lines go on
    /// showing the path as it was given.
    void Locate(const std::string& given, const std::string& masterFileName);
    /// Makes the directory when it is missing, one level. Whether that worked shows at the writes.
    void MakeIfMissing() const;

    /// Absolute, ending in a backslash.
    [[nodiscard]] const std::string& Path() const noexcept { return m_Path; }
    /// As given, ending in a backslash: for trace lines.
    [[nodiscard]] const std::string& Given() const noexcept { return m_Given; }
    [[nodiscard]] const std::string& MasterFileName() const noexcept { return m_MasterFileName; }
    [[nodiscard]] const std::string& MacroFileName() const noexcept { return m_MacroFileName; }
    /// Takes the name that a master file gives if it can mean nothing but a file of its own in the directory.
    [[nodiscard]] bool TakeMacroFileName(const std::string& name);
    /// Whether a name that a master file lists can be that of a rule set file.
    [[nodiscard]] bool IsUsableRuleSetFileName(const std::string& name) const;

    /// How long a write waits for others to close a file, in milliseconds.
    void SetPatience(uint32_t milliseconds) noexcept { m_Patience = milliseconds; }

    /// Opens a file to read. None, or FileDefect::Missing or Busy. bad_alloc as CEncryptFile.
    [[nodiscard]] FileDefect Open(CEncryptFile& file, const std::string& fileName) const;
    /// The same beside everybody, for those who only look: see CEncryptFile::OpenToLook. *error: the system's number.
    [[nodiscard]] FileDefect OpenToLook(CEncryptFile& file, const std::string& fileName,
                                        uint32_t* error = nullptr) const;
    /// Appends the rule set files, in the system's order. False when the search broke off, so that there may be more.
    [[nodiscard]] bool FindRuleSetFiles(std::vector<std::string>& names) const;
    /// Appends what of master, macro and rule set files is there, in this order, without directories of such a name.
    [[nodiscard]] bool FindFiles(std::vector<std::string>& names) const;
    /// Appends what unfinished writes have left.
    [[nodiscard]] bool FindTemporaryFiles(std::vector<std::string>& names) const;
    [[nodiscard]] bool MayExist(const std::string& fileName) const;
    /// Whether the file is gone.
    bool Remove(const std::string& fileName) const;
    /// Writes a temporary file, flushes it, asks the keeper, and puts it over the real one. A master or macro file that
    /// this object wrote, that nobody has touched or holds, and that would get the bytes it has is left as it is: most
    /// changes change neither, and a flush costs more than all else. On any failure the real file
    /// keeps its content under its name (unless the move was refused and the copy in its place broke off), and the
    /// temporary file stays, whole in that case. Every failure is traced.
    /// @return 0, KXRULE_E_FILE_OPEN (temporary file), KXRULE_E_FILE_WRITE
    [[nodiscard]] int32_t Write(const WriteJob& job);

    /// Copies a file into another directory under the same name, flushed. On failure (GetLastError) a part of it may be
    /// there.
    [[nodiscard]] bool CopyTo(const RuleDirectory& target, const std::string& fileName) const;
    /// Puts a flushed copy of another directory's file over the named one, in one step as a write does. On failure
    /// (GetLastError; traced if it came at the last step) the file is as it was and nothing else is left.
    [[nodiscard]] bool Put(const RuleDirectory& source, const std::string& sourceName,
                           const std::string& fileName) const;

    // ----- Backup.cpp: copies, in RuleBackup; nothing there is ever removed

    /// Makes RuleBackup and a directory in it named by the local time (yyMMddHHmmss); returns its name in the rule
    /// directory, ending in a backslash. That it could not be made is found out by whoever puts something there.
    std::string CreateBackupDirectoryByDate() const;
    /// A dated directory that did not exist before, with a dash and a number; its name as above. Empty on failure
    /// (GetLastError).
    [[nodiscard]] std::string NewBackupDirectory() const;
    /// Moves the master file and every rule set file into a new dated directory. The macro file stays, and so does what
    /// cannot be moved.
    void BackupAllRules() const;
    /// Before the first write into a directory that was not read whole: copies every file that holds more than memory
    /// does into a dated directory, and notes it as kept. What cannot be copied (traced) stays noted as it is. 0, or the
    /// system's error for a file that somebody holds, so that the next try may succeed.
    [[nodiscard]] uint32_t CopyUnread(RuleSetFiles& files) const;
    /// Why a copy is made. Only a damaged file's may take the place of an earlier one, if that is damaged too; every other
    /// gets a number where the name is taken. A file that could not be opened may not be there at all: silent.
    enum class Reason
    {
        Damaged,
        Unopened,
        Replaced
    };
    /// Copies a file to RuleBackup under its name with ".brk" after it; nothing when there is no file. 0, or the system's
    /// error, traced.
    [[nodiscard]] uint32_t CopyBroken(const std::string& fileName, Reason reason) const;
    /// The same for a file that is about to be replaced: where no copy can be made it is renamed beside itself. 0, or the
    /// system's error for a file that is held so that neither is possible.
    [[nodiscard]] uint32_t KeepBroken(const std::string& fileName, Reason reason);
    /// Puts a file into the place of one that may be renamed and not replaced. On failure both bear their names again.
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
    std::string m_Path = ".\\"; // absolute once it is located; ends in a backslash
    std::string m_MasterFileName = FileFormat::kMasterFileName;
    std::string m_MacroFileName = FileFormat::kMacroFileName;
    static constexpr uint32_t kPatience = 330; // a third of a second
    uint32_t m_Patience = kPatience;
    // Of the master and the macro file as they were written, by kind. What is not known to be flushed has none.
    FileStamp m_Written[2];
    std::string m_Aside; // where KeepBroken has renamed a file to since the last write began; mostly empty
};
