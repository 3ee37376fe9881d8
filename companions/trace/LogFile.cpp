// The log file: appending, rollover, and what several processes must agree on; docs/settings.md describes the outcome.
#include "companions/trace/LogFile.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "common/srclib/KxComn_Identity.h"

#include <sddl.h>

#include "companions/NtFile.h"

namespace KxTrace
{

namespace
{

using KxCommon::UniqueFile;

// When to retry an attempt that began at that tick: a second later at least; a server that does not answer may take a
// tenth of our time.
uint64_t NextAttempt(uint64_t begin) noexcept
{
    const uint64_t end = ::GetTickCount64();
    return end + std::max<uint64_t>(1000, 10 * (end - begin));
}

// Whether an open folder is where its path says, and not where a link in the path leads.
bool IsAt(HANDLE folder, std::wstring_view path)
{
    const std::wstring found = KxCompanions::FinalPath(folder);
    return ::CompareStringOrdinal(found.data(), static_cast<int>(found.size()), path.data(),
                                  static_cast<int>(path.size()), TRUE) == CSTR_EQUAL;
}

// Opens a folder, creating missing parts of it in folders that were verified first.
DWORD OpenFolder(UniqueFile& folder, const std::wstring& path, void* security)
{
    constexpr ACCESS_MASK kAccess = FILE_LIST_DIRECTORY | FILE_TRAVERSE | FILE_READ_ATTRIBUTES;
    DWORD error =
        KxCompanions::Open(folder, nullptr, KxCompanions::NtPath(path), kAccess, FILE_OPEN, FILE_DIRECTORY_FILE);
    const size_t name = path.rfind(L'\\', path.size() - 2) + 1;
    if ((error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) && name > 2)
    {
        UniqueFile parent;
        error = OpenFolder(parent, path.substr(0, name), security);
        if (error == ERROR_SUCCESS)
            error =
                KxCompanions::Open(folder, parent.get(), std::wstring_view(path).substr(name, path.size() - name - 1),
                                   kAccess, FILE_OPEN_IF, FILE_DIRECTORY_FILE, security);
    }
    if (error == ERROR_SUCCESS && !IsAt(folder.get(), path))
    {
        folder.reset();
        error = ERROR_ACCESS_DENIED;
    }
    return error;
}

// Not a link, under whatever name, to a file that only a service may write, and not deleted.
bool IsPlainFile(HANDLE file) noexcept
{
    BY_HANDLE_FILE_INFORMATION info;
    return ::GetFileType(file) == FILE_TYPE_DISK && ::GetFileInformationByHandle(file, &info) &&
           (info.dwFileAttributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY)) == 0 &&
           info.nNumberOfLinks == 1;
}

bool IsSameFile(HANDLE a, HANDLE b) noexcept
{
    BY_HANDLE_FILE_INFORMATION first, second;
    return ::GetFileInformationByHandle(a, &first) && ::GetFileInformationByHandle(b, &second) &&
           first.dwVolumeSerialNumber == second.dwVolumeSerialNumber && first.nFileIndexHigh == second.nFileIndexHigh &&
           first.nFileIndexLow == second.nFileIndexLow;
}

// Time of the last write, number (which orders files with equal times), and name.
using OldLog = std::tuple<int64_t, uint64_t, std::wstring>;

// Oldest first: the predecessors of the log and, if each process has one, the logs of all other processes.
std::vector<OldLog> ListOldLogs(HANDLE folder, const LogName& log)
{
    std::vector<OldLog> logs;
    std::vector<int64_t> buffer(8192); // aligned like the records
    FILE_INFO_BY_HANDLE_CLASS kind = FileIdBothDirectoryRestartInfo;
    while (::GetFileInformationByHandleEx(folder, kind, buffer.data(), static_cast<DWORD>(buffer.size() * 8)))
    {
        kind = FileIdBothDirectoryInfo;
        const char* at = reinterpret_cast<const char*>(buffer.data());
        for (DWORD step = 1; step != 0; at += step)
        {
            const auto* const found = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(at);
            std::wstring name(found->FileName, found->FileNameLength / sizeof(wchar_t));
            uint64_t number = 0;
            if (log.IsOld(name, number))
                logs.emplace_back(found->LastWriteTime.QuadPart, number, std::move(name));
            step = found->NextEntryOffset;
        }
    }
    std::sort(logs.begin(), logs.end());
    return logs;
}

DWORD Rename(HANDLE file, HANDLE folder, const std::wstring& name)
{
    const size_t size = name.size() * sizeof(wchar_t);
    std::vector<int64_t> buffer((sizeof(FILE_RENAME_INFORMATION) + size) / 8 + 1);
    auto* const rename = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer.data()); // nothing is replaced
    rename->RootDirectory = folder;
    rename->FileNameLength = static_cast<ULONG>(size);
    std::memcpy(rename->FileName, name.data(), size);
    IO_STATUS_BLOCK result;
    return ::RtlNtStatusToDosError(
        ::NtSetInformationFile(file, &result, rename, static_cast<ULONG>(buffer.size() * 8), FileRenameInformation));
}

// Renames the file that has the log's name to a number, if it is the one that was opened. If two processes do so at
// once, they rename the same file, so the second number counts and no new log is touched. False if another program
// prevents it.
bool PutAside(HANDLE folder, const LogName& log, HANDLE opened)
{
    UniqueFile file;
    if (const DWORD error = KxCompanions::Open(file, folder, log.Name(), DELETE | FILE_READ_ATTRIBUTES, FILE_OPEN,
                                               FILE_OPEN_REPARSE_POINT))
        return error == ERROR_FILE_NOT_FOUND;
    if (!IsSameFile(file.get(), opened))
        return true; // another process was faster
    DWORD error = ERROR_ALREADY_EXISTS;
    for (int attempt = 0; attempt < 10 && error == ERROR_ALREADY_EXISTS; ++attempt)
    {
        uint64_t last = 0;
        for (const auto& [written, number, name] : ListOldLogs(folder, log))
            last = std::max(last, number);
        error = Rename(file.get(), folder, log.OldName(last + 1));
    }
    return error == ERROR_SUCCESS;
}

void RemoveOldLogs(HANDLE folder, const LogName& log)
{
    const std::vector<OldLog> logs = ListOldLogs(folder, log);
    for (size_t i = 0; i + log.Kept() < logs.size(); ++i)
    {
        const auto& [written, number, name] = logs[i];
        // Nobody writes to a predecessor any more; a file without a number may be the log of a running process and is
        // deleted only if nobody has it open.
        const ULONG share = number != 0 ? FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE : 0;
        UniqueFile doomed;
        FILE_DISPOSITION_INFO deletion = {TRUE};
        if (KxCompanions::Open(doomed, folder, name, DELETE, FILE_OPEN, FILE_OPEN_REPARSE_POINT, nullptr, share) ==
            ERROR_SUCCESS)
            ::SetFileInformationByHandle(doomed.get(), FileDispositionInfo, &deletion, sizeof deletion);
    }
}

// A file whose size is unknown counts as full.
uint64_t SizeOf(HANDLE file) noexcept
{
    LARGE_INTEGER size;
    return ::GetFileSizeEx(file, &size) ? static_cast<uint64_t>(size.QuadPart) : UINT64_MAX;
}

} // namespace

void LogFile::Use(LogName name)
{
    if (name == m_Name)
        return;
    Close();
    m_Name = std::move(name);
}

void LogFile::Close() noexcept
{
    m_File.reset();
    m_OpenAt = 0;
}

DWORD LogFile::Append(uint64_t limit, bool flush, std::string_view line)
{
    // Reopened from time to time: the file may have been deleted, renamed or replaced while we have it open. A full log
    // stays full under its new name, which is how every process learns that another one rolled over.
    if (const uint64_t begin = ::GetTickCount64(); begin >= m_OpenAt || (m_HadRoom && SizeOf(m_File.get()) >= limit))
    {
        m_Error = Open(limit);
        m_OpenAt = NextAttempt(begin);
        m_HadRoom = m_File && SizeOf(m_File.get()) < limit;
    }
    if (!m_File)
        return m_Error;
    if (!m_HadRoom && SizeOf(m_File.get()) >= 2 * limit)
        return ERROR_FILE_TOO_LARGE;
    DWORD written = 0;
    if (!::WriteFile(m_File.get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr))
        return ::GetLastError();
    // The right to append is enough for this, whatever the page of FlushFileBuffers asks for: NtFlushBuffersFileEx.
    return flush && !::FlushFileBuffers(m_File.get()) ? ::GetLastError() : ERROR_SUCCESS;
}

// The new handle is opened before the old one is closed, since in between a program could take an oplock and make us
// wait. If that fails, the old one remains in use.
DWORD LogFile::Open(uint64_t limit)
{
    const std::wstring name = m_Name.Name();
    if (name.find_first_of(L"\\/:") != std::wstring::npos)
        return ERROR_INVALID_NAME;
    const KxCommon::OwnIdentity identity;
    if (!identity)
        return ERROR_ACCESS_DENIED;
    PSECURITY_DESCRIPTOR descriptor = nullptr; // for the system and the administrators only
    if (m_Name.IsProtected && !::ConvertStringSecurityDescriptorToSecurityDescriptorW(
                                  L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)", SDDL_REVISION_1, &descriptor, nullptr))
        return ::GetLastError();
    const KxCommon::UniqueLocalMemory owner(descriptor);

    UniqueFile folder, file;
    // Append access without write access: the system finds the end and writes there in one step, no matter who else
    // writes.
    const auto open = [&]
    {
        return KxCompanions::Open(file, folder.get(), name, FILE_APPEND_DATA | FILE_READ_ATTRIBUTES, FILE_OPEN_IF,
                                  FILE_OPEN_REPARSE_POINT);
    };
    bool isNew = !m_File;
    for (int attempt = 0;; ++attempt)
    {
        DWORD error = OpenFolder(folder, m_Name.Folder, descriptor); // each time: a listing may stay with its handle
        if (error == ERROR_SUCCESS)
            error = open();
        if (error == ERROR_ACCESS_DENIED && folder && m_File && !IsPlainFile(m_File.get()))
        {
            m_File.reset(); // before Windows 10 a deleted file keeps its name while it is open
            error = open();
        }
        if (error != ERROR_SUCCESS)
            return error;
        const bool isPlain = IsPlainFile(file.get());
        if ((isPlain && SizeOf(file.get()) < limit) || attempt == 2 || !PutAside(folder.get(), m_Name, file.get()))
        {
            if (!isPlain)
                return ERROR_ACCESS_DENIED;
            break;
        }
        isNew = true;
    }
    if (isNew)
        RemoveOldLogs(folder.get(), m_Name);
    m_File = std::move(file);
    return ERROR_SUCCESS;
}

} // namespace KxTrace
