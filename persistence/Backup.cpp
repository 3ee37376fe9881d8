// Copies of what could not be read, so that nothing is lost by going on without it. docs/recovery.md says where they
// are and how to get rules back from them.
#include <cstdio>
#include <utility>
#include <vector>

#include "common/srclib/KxComn_Windows.h"

#include "common/srclib/KxComn_Trace.h"
#include "persistence/EncryptFile.h"
#include "persistence/Files.h"
#include "persistence/RuleDirectory.h"
#include "persistence/RuleFile.h"
#include "persistence/RuleSetFiles.h"

namespace
{

// The name itself for the first, otherwise with the number appended.
std::string Numbered(const std::string& name, unsigned number)
{
    return number == 1 ? name : name + std::to_string(number);
}

// If it is unknown whether a name is free, it is tried: if not, the copy fails, which is an answer.
std::string FreeName(const std::string& name)
{
    unsigned number = 1;
    while (Files::Attributes(Numbered(name, number).c_str()) != INVALID_FILE_ATTRIBUTES)
        ++number;
    return Numbered(name, number);
}

// Only a damaged copy is certain not to be the last intact one of its file.
bool IsWhole(const std::string& path)
{
    CEncryptFile stream;
    RuleFile file;
    return !stream.Open(path.c_str(), GENERIC_READ) || file.Read(stream, {}, false) == FileDefect::None;
}

std::string DateNow()
{
    SYSTEMTIME now;
    ::GetLocalTime(&now);
    char dated[64];
    std::snprintf(dated, sizeof dated, "\\%02d%02d%02d%02d%02d%02d", now.wYear - 2000, now.wMonth, now.wDay, now.wHour,
                  now.wMinute, now.wSecond);
    return dated;
}

} // namespace

// Creates a dated directory in it too, if a date is given. Returns its name, ending in a backslash.
std::string RuleDirectory::MakeBackupDirectory(const std::string& dated) const
{
    std::string name = FileFormat::kBackupDirectory;
    static_cast<void>(Files::MakeDirectory(PathOf(name).c_str())); // mostly there already
    if (!dated.empty())
        static_cast<void>(Files::MakeDirectory(PathOf(name += dated).c_str())); // a backup in the same second shares it
    return name += '\\';
}

std::string RuleDirectory::CreateBackupDirectoryByDate() const
{
    KX_TRACE_WIDE(KxCommon::kTraceDetail, L"CreateBackupDirectoryByDate [Enter]");
    std::string directory = MakeBackupDirectory(DateNow());
    const std::string shown = ShownPathOf(directory.substr(0, directory.size() - 1));
    KX_TRACE_WIDE(KxCommon::kTraceCall, L"Created backup directory [%S]", shown.c_str());
    return directory;
}

std::string RuleDirectory::NewBackupDirectory() const
{
    static_cast<void>(MakeBackupDirectory({}));
    const std::string dated = FileFormat::kBackupDirectory + DateNow();
    for (unsigned number = 1;; ++number)
    {
        // Always numbered: the library's own backup of the same second must not find files of the same names.
        const std::string name = dated + "-" + std::to_string(number);
        if (Files::MakeDirectory(PathOf(name).c_str()))
            return name + '\\';
        if (::GetLastError() != ERROR_ALREADY_EXISTS)
            return {};
    }
}

void RuleDirectory::BackupAllRules() const
{
    KX_TRACE(KxCommon::kTraceDetail, "BackupAllRules [Enter]");
    const std::string backup = CreateBackupDirectoryByDate();
    // The line comes first: after a crash in between it says where to look.
    const auto move = [&](const wchar_t* line, const std::string& name)
    {
        KX_TRACE_WIDE(KxCommon::kTraceCall, line, ShownPathOf(name).c_str(), ShownPathOf(backup + name).c_str());
        static_cast<void>(Files::Move(PathOf(name).c_str(), PathOf(backup + name).c_str(), false));
    };
    move(L"Move master file : [%S] -> [%S]", m_MasterFileName);
    std::vector<std::string> names;
    static_cast<void>(FindRuleSetFiles(names));
    for (const std::string& name : names)
    {
        if (!IsSameFile(name, m_MacroFileName)) // whose name the pattern may match
            move(L"Move ruleset file : [%S] -> [%S]", name);
    }
    KX_TRACE(KxCommon::kTraceDetail, "BackupAllRules [Leave]");
}

uint32_t RuleDirectory::CopyUnread(RuleSetFiles& files) const
{
    std::vector<std::string> names;
    static_cast<void>(FindRuleSetFiles(names)); // what it misses is copied when it is overwritten
    names.push_back(m_MasterFileName);
    names.push_back(m_MacroFileName);
    std::string backup;
    uint32_t busy = ERROR_SUCCESS;
    for (const std::string& name : names)
    {
        if (!files.HoldsMore(name) || !IsFile(name))
            continue;
        if (backup.empty())
            backup = MakeBackupDirectory(DateNow());
        // A free name: a backup of the same second shares the directory, and both remain.
        const std::string copy = FreeName(PathOf(backup + name)).substr(m_Path.size());
        const uint32_t error = CopyTraced(name, copy, true);
        if (error == ERROR_SUCCESS)
            files.NoteSafe(name);
        else if (Files::IsBusy(error))
            busy = error;
    }
    return busy;
}

// 0, or the system's error.
uint32_t RuleDirectory::CopyTraced(const std::string& from, const std::string& to, bool isTraced) const
{
    if (Files::Copy(PathOf(from).c_str(), PathOf(to).c_str()))
        return ERROR_SUCCESS;
    const DWORD error = ::GetLastError();
    if (isTraced)
        KX_TRACE(KxCommon::kTraceError, "\tCopyFile() failed (%lu): %s -> %s", error, ShownPathOf(from).c_str(),
                 ShownPathOf(to).c_str());
    return error == ERROR_SUCCESS ? ERROR_GEN_FAILURE : error;
}

uint32_t RuleDirectory::CopyBroken(const std::string& fileName, Reason reason) const
{
    if (!IsFile(fileName))
        return ERROR_SUCCESS;
    const std::string copy = MakeBackupDirectory({}) + fileName + FileFormat::kBrokenExtension;
    const std::string free = FreeName(PathOf(copy)).substr(m_Path.size());
    const bool isTraced = reason != Reason::Unopened;
    // A damaged earlier copy may be read-only, as its file was.
    if (reason == Reason::Damaged && free != copy && !IsWhole(PathOf(copy)) &&
        CopyTraced(fileName, copy, false) == ERROR_SUCCESS)
        return ERROR_SUCCESS;
    return CopyTraced(fileName, free, isTraced);
}

uint32_t RuleDirectory::CopyOrRename(const std::string& fileName, Reason reason)
{
    if (CopyBroken(fileName, reason) == ERROR_SUCCESS)
        return ERROR_SUCCESS;
    // Renaming needs neither space nor RuleBackup nor readable sectors. (An access list that always denies the copy may
    // still allow this.)
    std::string aside = FreeName(PathOf(fileName + FileFormat::kBrokenExtension)).substr(m_Path.size());
    if (Files::Move(PathOf(fileName).c_str(), PathOf(aside).c_str(), false))
    {
        m_Aside = std::move(aside);
        return ERROR_SUCCESS;
    }
    const DWORD error = ::GetLastError();
    return error == ERROR_SUCCESS ? ERROR_GEN_FAILURE : error;
}

// Windows before 10 refuses to replace a file that another program has open, however it is shared, but lets it be
// renamed if deleting is shared. (Wine replaces it.) In between no file has the name: a process that ends just then
// leaves the old content under another name, as CopyOrRename does. The copy that would be made instead could leave half
// of either.
bool RuleDirectory::MoveAround(const std::string& fromName, const std::string& fileName) const
{
    const std::string target = PathOf(fileName);
    const std::string aside = FreeName(target + FileFormat::kBrokenExtension);
    if (!Files::Move(target.c_str(), aside.c_str(), false))
        return false;
    if (Files::Move(PathOf(fromName).c_str(), target.c_str(), false))
    {
        static_cast<void>(Files::Delete(aside.c_str())); // deleted when the other program closes it
        return true;
    }
    const DWORD error = ::GetLastError();
    static_cast<void>(Files::Move(aside.c_str(), target.c_str(), false));
    ::SetLastError(error);
    return false;
}
