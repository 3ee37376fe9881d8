// Every system call that the library makes on a rule file or its directory, and nothing else: one place to count them,
// and one place where a test can make the k-th of them fail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/srclib/KxComn_Handle.h"

/// Tells a file from another one of the same name, and from itself before somebody wrote to it, renamed it or changed
/// its attributes. The time of the change also tells copies that have their original's other times.
struct FileStamp
{
    int64_t CreationTime = 0;
    int64_t WriteTime = 0;
    int64_t ChangeTime = 0;
    uint64_t Bytes = 0;
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

/// Called before each call if a test has set it: a Windows error number makes the call fail with that number (Write:
/// after half of the bytes were written), 0 lets it proceed. Null in the product.
using FaultHook = DWORD (*)(Operation operation);
void SetFaultHook(FaultHook hook) noexcept;

// Each returns what the underlying call returns and leaves GetLastError as that call left it. Paths are narrow (active
// code page). None throws, except that those that return or fill strings may run out of memory.

/// Another program has the file open in a way that excludes ours: the file exists, and the call may succeed a moment
/// later.
[[nodiscard]] constexpr bool IsBusy(DWORD error) noexcept
{
    return error == ERROR_SHARING_VIOLATION || error == ERROR_LOCK_VIOLATION;
}
/// Nothing is known about the file: unlike one that was not found, it may exist.
[[nodiscard]] constexpr bool IsUnknown(DWORD error) noexcept
{
    return error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND;
}
/// The only way to wait for programs that hold a file for a moment: a scanner, an indexer, a second process. Calls
/// attempt until it succeeds, fails with an error for which mayPass is false, or the time is up and it was called a few
/// times: where a machine is too busy for its threads, or was suspended, time passes without the other program.
/// GetLastError is the last attempt's.
template <class Attempt, class MayPass>
bool Persist(DWORD milliseconds, const Attempt& attempt, const MayPass& mayPass)
{
    constexpr DWORD kPause = 20;
    const ULONGLONG start = ::GetTickCount64();
    for (int left = 5;; --left)
    {
        if (attempt())
            return true;
        const DWORD error = ::GetLastError();
        if (!mayPass(error) || (left <= 0 && ::GetTickCount64() - start >= milliseconds))
        {
            ::SetLastError(error);
            return false;
        }
        ::Sleep(kPause);
    }
}

/// CreateFileA with FILE_ATTRIBUTE_NORMAL.
[[nodiscard]] UniqueFile Open(const char* path, DWORD access, DWORD disposition, DWORD share = 0) noexcept;
/// False if the size cannot be determined.
[[nodiscard]] bool Size(HANDLE file, uint64_t* size) noexcept;
/// GetFileInformationByHandleEx and GetFileSizeEx.
[[nodiscard]] bool Look(HANDLE file, FileStamp* stamp) noexcept;
/// ReadFile and its count; the end of the file is success with a smaller count.
[[nodiscard]] bool Read(HANDLE file, void* buffer, uint32_t size, uint32_t* got) noexcept;
/// WriteFile; a short count is a failure (ERROR_DISK_FULL).
[[nodiscard]] bool Write(HANDLE file, const void* buffer, uint32_t size) noexcept;
/// FlushFileBuffers; also true where the volume does not support flushing (ERROR_INVALID_FUNCTION, NOT_SUPPORTED).
[[nodiscard]] bool Flush(HANDLE file) noexcept;
/// CloseHandle; the owner is empty afterwards even if it fails.
bool Close(UniqueFile& file) noexcept;
/// GetTempFileNameA with unique number 0: creates an empty file in the directory. Empty on failure.
[[nodiscard]] std::string TemporaryName(const std::string& directory, const char* prefix);
/// The absolute path according to GetFullPathNameA, or the path itself if that fails.
[[nodiscard]] std::string FullPath(const std::string& path);
/// GetFileAttributesA; INVALID_FILE_ATTRIBUTES on failure.
[[nodiscard]] DWORD Attributes(const char* path) noexcept;
/// False only if it is certain that nothing has that name: what cannot be examined may still exist.
[[nodiscard]] bool MayExist(const char* path) noexcept;
/// Whether it is a reparse point that stands for another file. (Deduplicated files and those of cloud stores are
/// reparse points as well, but stand for themselves.)
[[nodiscard]] bool IsLink(const char* path) noexcept;
/// MoveFileExA, written through; replaces an existing file of the new name only if isReplacing.
[[nodiscard]] bool Move(const char* from, const char* to, bool isReplacing) noexcept;
/// Moves a file over one that others have open with delete sharing, in one step. Windows 10 can do that; false
/// elsewhere.
[[nodiscard]] bool MoveOverOpen(const char* from, const char* to) noexcept;
/// CopyFileA, overwriting. The copy is flushed as far as the system permits, since the source may be removed next.
[[nodiscard]] bool Copy(const char* from, const char* to) noexcept;
[[nodiscard]] bool Delete(const char* path) noexcept;
/// CreateDirectoryA, default security.
[[nodiscard]] bool MakeDirectory(const char* path) noexcept;
/// The names (not paths) that the system finds for a pattern, including directories, except names that the active code
/// page cannot express: as narrow names they would denote nothing, or another file. False if the search failed or broke
/// off, so that there may be more; finding none is success.
[[nodiscard]] bool FindFiles(const std::string& pattern, std::vector<std::string>& names);

} // namespace Files
