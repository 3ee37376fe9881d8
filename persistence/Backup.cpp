// Copies of what could not be read, so that nothing is lost by going on without it. docs/recovery.md tells where what
// lies and how to get rules back from it.
#include "persistence/Backup.h"

#include <cstdio>

#include "common/srclib/KxComn_Windows.h"

#include "common/srclib/KxComn_Files.h"
#include "common/srclib/KxComn_Trace.h"
#include "persistence/FileFormat.h"
#include "persistence/RuleFiles.h"

namespace Backup
{

namespace
{

namespace Files = KxCommon::Files;

// False only when it is certain that there is nothing: a file that cannot be looked at may still be one to keep.
bool MayExist(const std::string& path) noexcept
{
    if (Files::Attributes(path.c_str()) != INVALID_FILE_ATTRIBUTES)
        return true;
    const DWORD error = ::GetLastError();
    return error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND;
}

bool CopyTraced(const std::string& from, const std::string& to) noexcept
{
    if (Files::Copy(from.c_str(), to.c_str()))
        return true;
    const DWORD error = ::GetLastError();
    KX_TRACE(KxCommon::kTraceError, "\tCopyFile() failed (%lu): %s -> %s", error, from.c_str(), to.c_str());
    return false;
}

} // namespace

std::string Directory(const std::string& ruleDirectory)
{
    return ruleDirectory + FileFormat::kBackupDirectory;
}

std::string CreateBackupDirectoryByDate(const std::string& ruleDirectory)
{
    KX_TRACE_WIDE(KxCommon::kTraceDetail, L"CreateBackupDirectoryByDate [Enter]");
    std::string directory = Directory(ruleDirectory);
    static_cast<void>(Files::MakeDirectory(directory.c_str())); // mostly there already

    SYSTEMTIME now;
    ::GetLocalTime(&now);
    char dated[64];
    std::snprintf(dated, sizeof dated, "\\%02d%02d%02d%02d%02d%02d", now.wYear - 2000, now.wMonth, now.wDay, now.wHour,
                  now.wMinute, now.wSecond);
    directory += dated;
    static_cast<void>(Files::MakeDirectory(directory.c_str())); // a backup in the same second shares it
    KX_TRACE_WIDE(KxCommon::kTraceCall, L"Created backup directory [%S]", directory.c_str());
    return directory;
}

bool BackupAllRules(const std::string& ruleDirectory, const std::string& masterFileName)
{
    KX_TRACE(KxCommon::kTraceDetail, "BackupAllRules [Enter]");
    const std::string backup = CreateBackupDirectoryByDate(ruleDirectory) + '\\';
    // The lines come first: after a crash in between they tell where to look.
    const std::string master = ruleDirectory + masterFileName;
    const std::string keptMaster = backup + masterFileName;
    KX_TRACE_WIDE(KxCommon::kTraceCall, L"Move master file : [%S] -> [%S]", master.c_str(), keptMaster.c_str());
    bool isComplete = true;
    const std::vector<std::string> names = RuleFiles::FindRuleSetFiles(ruleDirectory, &isComplete);
    isComplete = (Files::Move(master.c_str(), keptMaster.c_str(), 0) || !MayExist(master)) && isComplete;
    for (const std::string& name : names)
    {
        const std::string file = ruleDirectory + name;
        const std::string kept = backup + name;
        KX_TRACE_WIDE(KxCommon::kTraceCall, L"Move ruleset file : [%S] -> [%S]", file.c_str(), kept.c_str());
        isComplete = (Files::Move(file.c_str(), kept.c_str(), 0) || !MayExist(file)) && isComplete;
    }
    KX_TRACE(KxCommon::kTraceDetail, "BackupAllRules [Leave]");
    return isComplete;
}

bool CopyAllRules(const std::string& ruleDirectory, const std::string& masterFileName, const std::string& macroFileName)
{
    const std::string backup = CreateBackupDirectoryByDate(ruleDirectory) + '\\';
    bool complete = true;
    std::vector<std::string> names = RuleFiles::FindRuleSetFiles(ruleDirectory, &complete);
    names.push_back(masterFileName);
    names.push_back(macroFileName);
    for (const std::string& name : names)
    {
        const std::string file = ruleDirectory + name;
        const DWORD attributes = Files::Attributes(file.c_str());
        const bool isDirectory = attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        if (isDirectory || !MayExist(file))
            continue;
        std::string kept = backup + name;
        while (Files::Attributes(kept.c_str()) != INVALID_FILE_ATTRIBUTES)
            kept += '_'; // a backup of the same second: both are kept
        complete = CopyTraced(file, kept) && complete;
    }
    return complete;
}

bool KeepBroken(const std::string& ruleDirectory, const std::string& fileName)
{
    const std::string file = ruleDirectory + fileName;
    if (!MayExist(file))
        return true;
    const std::string directory = Directory(ruleDirectory);
    static_cast<void>(Files::MakeDirectory(directory.c_str())); // mostly there already
    return CopyTraced(file, directory + '\\' + fileName + FileFormat::kBrokenExtension);
}

} // namespace Backup
