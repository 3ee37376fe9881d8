// Every system call that the library makes on a file or a directory of rules, and nothing else: one place to count
// them and one place where a test can make the k-th of them fail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/srclib/KxComn_Handle.h"

/// Tells a file from another one of the same name, and from itself before somebody wrote to it.
struct FileStamp
{
    uint64_t Index = 0; // within the volume
    uint64_t WriteTime = 0;
    uint64_t Bytes = 0;
    uint32_t Volume = 0;
    bool operator==(const FileStamp&) const = default;
};

namespace Files
{

using KxCommon::UniqueFile;

enum class Operation
{
    Open,
    Size,
    Read,
    Write,
    Flush,
    Close,
    TemporaryName,
    Attributes,
    Move,
    Copy,
    Delete,
    MakeDirectory,
    Find
};

/// Asked before each call when a test has set it: a Windows error number makes the call fail with that number (for
/// Write: after half of the bytes went out), 0 lets it pass. Null in the product.
using FaultHook = DWORD (*)(Operation operation);
void SetFaultHook(FaultHook hook) noexcept;

// Each returns what the call under it returns, with GetLastError as that call left it. Paths are narrow (active code
// page). None throws but for those that return or fill strings, which may run out of memory.

/// Somebody has the file open in a way that excludes ours: it is there, and the call may succeed a moment later.
[[nodiscard]] constexpr bool IsBusy(DWORD error) noexcept
{
    return error == ERROR_SHARING_VIOLATION || error == ERROR_LOCK_VIOLATION;
}
/// Nothing can be said of the file: unlike one that is not there, it may be.
[[nodiscard]] constexpr bool IsUnknown(DWORD error) noexcept
{
    return error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND;
}
/// The one way to wait for others, who hold a file for a moment: a scanner, an indexer, a second process. Calls attempt
/// until it succeeds, fails with an error that mayPass denies, or the time is over. GetLastError is the last attempt's.
template <class Attempt, class MayPass>
bool Persist(DWORD milliseconds, const Attempt& attempt, const MayPass& mayPass)
{
    constexpr DWORD kPause = 20;
    for (const ULONGLONG start = ::GetTickCount64();;)
    {
        if (attempt())
            return true;
        const DWORD error = ::GetLastError();
        if (!mayPass(error) || ::GetTickCount64() - start >= milliseconds)
        {
            ::SetLastError(error);
            return false;
        }
        ::Sleep(kPause);
    }
}

/// CreateFileA with FILE_ATTRIBUTE_NORMAL.
[[nodiscard]] UniqueFile Open(const char* path, DWORD access, DWORD disposition, DWORD share = 0) noexcept;
/// False when the size cannot be told.
[[nodiscard]] bool Size(HANDLE file, uint64_t* size) noexcept;
/// GetFileInformationByHandle.
[[nodiscard]] bool Look(HANDLE file, FileStamp* stamp) noexcept;
/// ReadFile and its count; the end of the file is success with a smaller count.
[[nodiscard]] bool Read(HANDLE file, void* buffer, uint32_t size, uint32_t* got) noexcept;
/// WriteFile; a short count is a failure (ERROR_DISK_FULL).
[[nodiscard]] bool Write(HANDLE file, const void* buffer, uint32_t size) noexcept;
/// FlushFileBuffers; true as well where the volume does not know flushing (ERROR_INVALID_FUNCTION, NOT_SUPPORTED).
[[nodiscard]] bool Flush(HANDLE file) noexcept;
/// CloseHandle; the owner is empty afterwards in either case.
bool Close(UniqueFile& file) noexcept;
/// GetTempFileNameA with unique number 0: creates an empty file in the directory. Empty on failure.
[[nodiscard]] std::string TemporaryName(const std::string& directory, const char* prefix);
/// The absolute path that GetFullPathNameA makes of a path; the path itself where that fails.
[[nodiscard]] std::string FullPath(const std::string& path);
/// GetFileAttributesA; INVALID_FILE_ATTRIBUTES on failure.
[[nodiscard]] DWORD Attributes(const char* path) noexcept;
/// False only when it is certain that there is nothing of that name: what cannot be looked at may still be there.
[[nodiscard]] bool MayExist(const char* path) noexcept;
/// Whether a reparse point stands for another file. (Deduplicated files and those of cloud stores are reparse points
/// as well, and are the files themselves.)
[[nodiscard]] bool IsLink(const char* path) noexcept;
/// MoveFileExA, written through; replaces a file that bears the new name only where isReplacing says so.
[[nodiscard]] bool Move(const char* from, const char* to, bool isReplacing) noexcept;
/// Puts a file over one that others have open with delete sharing, in one step. Windows 10 knows how; false elsewhere.
[[nodiscard]] bool MoveOverOpen(const char* from, const char* to) noexcept;
/// CopyFileA, overwriting. What was copied is flushed as far as the system lets it: somebody removes the source next.
[[nodiscard]] bool Copy(const char* from, const char* to) noexcept;
[[nodiscard]] bool Delete(const char* path) noexcept;
/// CreateDirectoryA, default security.
[[nodiscard]] bool MakeDirectory(const char* path) noexcept;
/// The names (not paths) that the system finds for a pattern, directories too, but for those that the active code page
/// has no letters for: as narrow names they mean nothing, or another file. False when the search failed or broke off,
/// so that there may be more of them; finding none is success.
[[nodiscard]] bool FindFiles(const std::string& pattern, std::vector<std::string>& names);

} // namespace Files
