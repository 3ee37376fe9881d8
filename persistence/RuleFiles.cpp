// The files of a rule directory: how they are found, and how each of them is written. docs/format.md, "How a file is written",
// tells why through a temporary file and why moved.
#include "persistence/RuleFiles.h"

#include <new>

#include "common/srclib/KxComn_Windows.h"

#include "api/include/KxPfwRule.h"
#include "common/srclib/KxComn_Files.h"
#include "common/srclib/KxComn_Trace.h"
#include "persistence/EncryptFile.h"
#include "persistence/FileFormat.h"
#include "persistence/RuleFileNames.h"

namespace RuleFiles
{

namespace
{

namespace Files = KxCommon::Files;

// Somebody who reads the real file holds it briefly: a second process of ours, a virus scanner. Together about 0.3 s.
constexpr int kReplaceAttempts = 10;
constexpr DWORD kReplacePause = 30; // milliseconds

// A target with one of these is never moved over. A copy is refused for read-only, hidden and system files and for
// directories, and goes through a link to what it means; a move would do something else, or replace the link.
constexpr DWORD kOddAttributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM |
                                 FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;

// Writes and closes the temporary file.
int32_t WriteTemporary(const WriteJob& job, const std::string& temporary)
{
    CEncryptFile file(job.Lent);
    if (!file.Open(temporary.c_str(), GENERIC_WRITE))
    {
        if (job.TraceTemporaryName)
            KX_TRACE(KxCommon::kTraceError, "\tFile open error (%s)", temporary.c_str());
        else
            KX_TRACE(KxCommon::kTraceError, "\tFile open error");
        return KXRULE_E_FILE_OPEN;
    }
    if (!file.Write(job.Magic, FileFormat::kMagicBytes, false))
    {
        KX_TRACE(KxCommon::kTraceError, "\tFile write error");
        return KXRULE_E_FILE_WRITE;
    }
    try
    {
        const int32_t result = job.Encode(file);
        if (result != KXRULE_OK)
            return result;
    }
    catch (CEncryptStream::Exception)
    {
        KX_TRACE(KxCommon::kTraceError, "\tCEncryptFile exception occurs");
        return KXRULE_E_FILE_WRITE;
    }
    if (!file.FinishAndFlush() || !file.Close())
    {
        KX_TRACE(KxCommon::kTraceError, "\tFile write error");
        return KXRULE_E_FILE_WRITE;
    }
    return KXRULE_OK;
}

// Calls attempt until it succeeds or fails for good. *error is that of the last attempt.
template <class Attempt>
bool Retry(const Attempt& attempt, DWORD* error) noexcept
{
    for (int number = 1;; ++number)
    {
        if (attempt())
            return true;
        *error = ::GetLastError();
        const bool mayPass = *error == ERROR_SHARING_VIOLATION || *error == ERROR_ACCESS_DENIED;
        if (!mayPass || number == kReplaceAttempts)
            return false;
        ::Sleep(kReplacePause);
    }
}

// Puts the complete temporary file over the real one. A move replaces it in one step; a copy writes into it, so that a
// crash in mid-copy leaves half a file, and is what remains where nothing can be moved.
int32_t Replace(const std::string& temporary, const std::string& target) noexcept
{
    DWORD error = ERROR_SUCCESS;
    const DWORD attributes = Files::Attributes(target.c_str());
    const bool isOdd = attributes != INVALID_FILE_ATTRIBUTES && (attributes & kOddAttributes) != 0;
    const auto move = [&]
    { return Files::Move(temporary.c_str(), target.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH); };
    if (!isOdd && Retry(move, &error))
        return KXRULE_OK;

    if (!Files::Copy(temporary.c_str(), target.c_str()))
    {
        error = ::GetLastError();
        KX_TRACE(KxCommon::kTraceError, "\tCopyFile() failed %lu (%s -> %s)", error, temporary.c_str(), target.c_str());
        return KXRULE_E_FILE_WRITE;
    }
    if (!Files::Delete(temporary.c_str()))
    {
        error = ::GetLastError();
        KX_TRACE(KxCommon::kTraceError, "\tDeleteFile() failed %lu (%s)", error, temporary.c_str());
    }
    return KXRULE_OK;
}

} // namespace

std::vector<std::string> FindRuleSetFiles(const std::string& directory, bool* isComplete)
{
    std::vector<std::string> names;
    const bool isWhole =
        Files::FindFiles(directory + FileFormat::kRuleSetPrefix + "????" + FileFormat::kRuleSetExtension, names);
    if (isComplete != nullptr)
        *isComplete = isWhole;
    std::erase_if(names, [](const std::string& name) { return !IsRuleSetFileName(name); });
    return names;
}

int32_t Write(const WriteJob& job)
{
    try
    {
        // Without a name the open fails, and that is what is reported.
        const std::string temporary = Files::TemporaryName(job.Directory, job.TemporaryPrefix);
        const std::string target = job.Directory + job.FileName;
        const int32_t result = WriteTemporary(job, temporary);
        return result == KXRULE_OK ? Replace(temporary, target) : result;
    }
    catch (const std::bad_alloc&)
    {
        KX_TRACE(KxCommon::kTraceError, "\tOut of memory while writing a file");
        return KXRULE_E_FILE_WRITE;
    }
}

} // namespace RuleFiles
