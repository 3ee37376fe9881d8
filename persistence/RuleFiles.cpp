// The files of a rule directory: their names, and how each of them is written. docs/format.md, "How a file is written",
// tells why through a temporary file and why moved.
#include "persistence/RuleFiles.h"

#include <algorithm>
#include <cstdio>
#include <new>

#include "common/srclib/KxComn_Windows.h"

#include "api/KxPfwRule.h"
#include "common/srclib/KxComn_Files.h"
#include "common/srclib/KxComn_Trace.h"
#include "persistence/EncryptFile.h"
#include "persistence/FileFormat.h"

namespace RuleFiles
{

namespace
{

namespace Files = KxCommon::Files;

constexpr size_t kLongestName = 200; // leaves room for the directory within the system's 260

// Somebody who reads the real file holds it briefly: a second process of ours, a virus scanner. Together about 0.3 s.
constexpr int kReplaceAttempts = 10;
constexpr DWORD kReplacePause = 30; // milliseconds

// A target with one of these is never moved over. A copy is refused for read-only, hidden and system files and for
// directories, and goes through a link to what it means; a move would do something else, or replace the link.
constexpr DWORD kOddAttributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM |
                                 FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;

// ASCII only: file names of the library and of devices have no other letters.
constexpr char ToUpper(char character) noexcept
{
    return character >= 'a' && character <= 'z' ? static_cast<char>(character - 'a' + 'A') : character;
}

bool EqualNoCase(std::string_view a, std::string_view b) noexcept
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return ToUpper(x) == ToUpper(y); });
}

// The system takes these for devices in every directory, whatever extension follows.
bool IsDeviceName(std::string_view name) noexcept
{
    std::string_view stem = name.substr(0, name.find('.'));
    while (stem.ends_with(' '))
        stem.remove_suffix(1);
    for (const std::string_view device : {"CON", "PRN", "AUX", "NUL", "CLOCK$", "CONIN$", "CONOUT$"})
        if (EqualNoCase(stem, device))
            return true;
    // Superscript digits count as well; where they are in the code page is not looked up.
    return stem.size() == 4 && (EqualNoCase(stem.substr(0, 3), "COM") || EqualNoCase(stem.substr(0, 3), "LPT")) &&
           ((stem[3] >= '0' && stem[3] <= '9') || static_cast<unsigned char>(stem[3]) >= 128);
}

// Writes and closes the temporary file.
int32_t WriteTemporary(const WriteJob& job, const std::string& temporary)
{
    CEncryptFile file;
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

std::string RuleSetFileName(uint16_t index)
{
    char name[sizeof FileFormat::kRuleSetPrefix + 4 + sizeof FileFormat::kRuleSetExtension];
    std::snprintf(name, sizeof name, "%s%04X%s", FileFormat::kRuleSetPrefix, static_cast<unsigned>(index),
                  FileFormat::kRuleSetExtension);
    return name;
}

bool IsBareName(std::string_view name) noexcept
{
    if (name.empty() || name.size() > kLongestName)
        return false;
    for (const char character : name)
        if (static_cast<unsigned char>(character) < 32 ||
            std::string_view("\\/:*?\"<>|").find(character) != std::string_view::npos)
            return false;
    for (const char end : {name.front(), name.back()})
        if (end == '.' || end == ' ')
            return false;
    return !IsDeviceName(name);
}

bool IsRuleSetFileName(std::string_view name) noexcept
{
    const std::string_view prefix = FileFormat::kRuleSetPrefix;
    const std::string_view extension = FileFormat::kRuleSetExtension;
    if (name.size() < prefix.size() + extension.size() || name.size() > prefix.size() + 4 + extension.size())
        return false;
    const size_t stem = name.size() - extension.size();
    return EqualNoCase(name.substr(0, prefix.size()), prefix) && EqualNoCase(name.substr(stem), extension) &&
           name.substr(0, stem).find('.') == std::string_view::npos;
}

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
