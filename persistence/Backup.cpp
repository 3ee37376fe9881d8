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

// 0, or the system's error.
DWORD CopyTraced(const std::string& from, const std::string& to) noexcept
{
    if (Files::Copy(from.c_str(), to.c_str()))
        return ERROR_SUCCESS;
    const DWORD error = ::GetLastError();
    KX_TRACE(KxCommon::kTraceError, "\tCopyFile() failed (%lu): %s -> %s", error, from.c_str(), to.c_str());
    return error == ERROR_SUCCESS ? ERROR_GEN_FAILURE : error;
}

// Lengthens a name until nothing bears it.
std::string FreeName(std::string path)
{
    while (Files::Attributes(path.c_str()) != INVALID_FILE_ATTRIBUTES)
        path += '_';
    return path;
}

// Where the broken file of that name is kept; makes the directory for it.
std::string BrokenName(const std::string& ruleDirectory, const std::string& fileName)
{
    const std::string directory = Directory(ruleDirectory);
    static_cast<void>(Files::MakeDirectory(directory.c_str())); // mostly there already
    return directory + '\\' + fileName + FileFormat::kBrokenExtension;
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

bool SafetyCopy::Complete(const std::string& ruleDirectory, const std::string& masterFileName,
                          const std::string& macroFileName)
{
    bool complete = true;
    std::vector<std::string> names = RuleFiles::FindRuleSetFiles(ruleDirectory, &complete);
    names.push_back(masterFileName);
    names.push_back(macroFileName);
    for (const std::string& name : names)
    {
        const std::string file = ruleDirectory + name;
        const DWORD attributes = Files::Attributes(file.c_str());
        const bool isDirectory = attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        if (isDirectory || m_Copied.count(name) != 0 || !MayExist(file))
            continue;
        if (m_Directory.empty() || Files::Attributes(m_Directory.c_str()) == INVALID_FILE_ATTRIBUTES)
        {
            m_Directory = CreateBackupDirectoryByDate(ruleDirectory) + '\\';
            m_Copied.clear();
        }
        // A free name: a backup of the same second shares the directory, and both are kept.
        if (CopyTraced(file, FreeName(m_Directory + name)) == ERROR_SUCCESS)
            m_Copied.insert(name);
        else
            complete = false;
    }
    return complete;
}

uint32_t KeepBroken(const std::string& ruleDirectory, const std::string& fileName, bool mayReplace)
{
    const std::string file = ruleDirectory + fileName;
    if (!MayExist(file))
        return ERROR_SUCCESS;
    const std::string kept = BrokenName(ruleDirectory, fileName);
    const std::string free = FreeName(kept);
    if (free == kept || !mayReplace)
        return CopyTraced(file, free);
    // An earlier copy may be read-only, as its file was.
    return CopyTraced(file, kept) == ERROR_SUCCESS ? ERROR_SUCCESS : CopyTraced(file, free);
}

bool MoveBroken(const std::string& ruleDirectory, const std::string& fileName)
{
    const std::string file = ruleDirectory + fileName;
    return Files::Move(file.c_str(), FreeName(BrokenName(ruleDirectory, fileName)).c_str(), 0);
}

} // namespace Backup
