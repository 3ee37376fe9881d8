// Copies of what could not be read, so that nothing is lost by going on without it. docs/recovery.md tells where what
// lies and how to get rules back from it.
#include <cstdio>

#include "common/srclib/KxComn_Windows.h"

#include "common/srclib/KxComn_Files.h"
#include "common/srclib/KxComn_Trace.h"
#include "persistence/EncryptFile.h"
#include "persistence/RuleDirectory.h"
#include "persistence/RuleSetFiles.h"
#include "persistence/RuleSetFormat.h"

namespace Files = KxCommon::Files;

namespace
{

// The first name of its kind, or that one with a number after it.
std::string Numbered(const std::string& name, unsigned number)
{
    return number == 1 ? name : name + std::to_string(number);
}

std::string FreeName(const std::string& name)
{
    unsigned number = 1;
    while (Files::MayExist(Numbered(name, number).c_str()))
        ++number;
    return Numbered(name, number);
}

// Only of a damaged copy is it certain that it is not the last whole one of a rule set.
bool MayWriteOver(const std::string& copy)
{
    if (!Files::MayExist(copy.c_str()))
        return true;
    CEncryptFile file;
    return file.Open(copy.c_str(), GENERIC_READ) && !RuleSetFormat::IsWhole(file);
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

// With a dated directory in it, if a date is given. Its name, ending in a backslash.
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

bool RuleDirectory::BackupAllRules() const
{
    KX_TRACE(KxCommon::kTraceDetail, "BackupAllRules [Enter]");
    const std::string backup = CreateBackupDirectoryByDate();
    // The line comes first: after a crash in between it tells where to look.
    const auto move = [&](const wchar_t* line, const std::string& name)
    {
        KX_TRACE_WIDE(KxCommon::kTraceCall, line, ShownPathOf(name).c_str(), ShownPathOf(backup + name).c_str());
        return Files::Move(PathOf(name).c_str(), PathOf(backup + name).c_str(), false) || !MayExist(name);
    };
    bool isComplete = move(L"Move master file : [%S] -> [%S]", m_MasterFileName);
    std::vector<std::string> names;
    isComplete = FindRuleSetFiles(names) && isComplete;
    for (const std::string& name : names)
        isComplete = move(L"Move ruleset file : [%S] -> [%S]", name) && isComplete;
    KX_TRACE(KxCommon::kTraceDetail, "BackupAllRules [Leave]");
    return isComplete;
}

void RuleDirectory::CopyUnread(RuleSetFiles& files) const
{
    std::vector<std::string> names;
    static_cast<void>(FindRuleSetFiles(names)); // what it misses is copied when it is written over
    names.push_back(m_MasterFileName);
    names.push_back(m_MacroFileName);
    std::string backup;
    for (const std::string& name : names)
    {
        if (!files.HoldsMore(name) || !IsFile(name))
            continue;
        if (backup.empty())
            backup = MakeBackupDirectory(DateNow());
        // A free name: a backup of the same second shares the directory, and both stay.
        const std::string copy = FreeName(PathOf(backup + name)).substr(m_Path.size());
        if (CopyTraced(name, copy, true) == ERROR_SUCCESS)
            files.NoteKept(name);
    }
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

uint32_t RuleDirectory::CopyBroken(const std::string& fileName, bool isTraced) const
{
    if (!IsFile(fileName))
        return ERROR_SUCCESS;
    const std::string copy = MakeBackupDirectory({}) + fileName + FileFormat::kBrokenExtension;
    unsigned number = 1;
    while (!MayWriteOver(PathOf(Numbered(copy, number))))
        ++number;
    const uint32_t error = CopyTraced(fileName, Numbered(copy, number), isTraced);
    // A damaged earlier copy may be read-only, as its file was.
    if (error != ERROR_ACCESS_DENIED || !Files::MayExist(PathOf(Numbered(copy, number)).c_str()))
        return error;
    return CopyTraced(fileName, FreeName(PathOf(copy)).substr(m_Path.size()), isTraced);
}

uint32_t RuleDirectory::KeepBroken(const std::string& fileName, bool isTraced) const
{
    if (CopyBroken(fileName, isTraced) == ERROR_SUCCESS)
        return ERROR_SUCCESS;
    // Beside itself it needs neither room nor RuleBackup nor sectors that can be read.
    for (unsigned number = 1;; ++number)
    {
        const std::string aside = Numbered(fileName + FileFormat::kBrokenExtension, number);
        if (Files::Move(PathOf(fileName).c_str(), PathOf(aside).c_str(), false))
            return ERROR_SUCCESS;
        const DWORD error = ::GetLastError();
        if (error != ERROR_ALREADY_EXISTS && error != ERROR_FILE_EXISTS)
            return error == ERROR_SUCCESS ? ERROR_GEN_FAILURE : error;
    }
}
