// The file system calls of the library.
#include "common/srclib/KxComn_Files.h"

#include <atomic>

namespace KxCommon::Files
{
namespace
{

std::atomic<FaultHook> g_FaultHook{nullptr};

bool Refused(Operation operation) noexcept
{
    const FaultHook hook = g_FaultHook.load(std::memory_order_acquire);
    const DWORD error = hook == nullptr ? ERROR_SUCCESS : hook(operation);
    if (error == ERROR_SUCCESS)
        return false;
    ::SetLastError(error);
    return true;
}

} // namespace

void SetFaultHook(FaultHook hook) noexcept
{
    g_FaultHook.store(hook, std::memory_order_release);
}

UniqueFile Open(const char* path, DWORD access, DWORD disposition) noexcept
{
    if (Refused(Operation::Open))
        return UniqueFile();
    return UniqueFile(::CreateFileA(path, access, 0, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
}

bool Size(HANDLE file, uint64_t* size) noexcept
{
    LARGE_INTEGER result;
    if (Refused(Operation::Size) || ::GetFileSizeEx(file, &result) == FALSE)
        return false;
    *size = static_cast<uint64_t>(result.QuadPart);
    return true;
}

bool Read(HANDLE file, void* buffer, uint32_t size, uint32_t* got) noexcept
{
    DWORD count = 0;
    if (Refused(Operation::Read) || ::ReadFile(file, buffer, size, &count, nullptr) == FALSE)
        return false;
    *got = count;
    return true;
}

bool Write(HANDLE file, const void* buffer, uint32_t size) noexcept
{
    DWORD count = 0;
    if (Refused(Operation::Write))
    {
        const DWORD error = ::GetLastError();
        ::WriteFile(file, buffer, size / 2, &count, nullptr);
        ::SetLastError(error);
        return false;
    }
    if (::WriteFile(file, buffer, size, &count, nullptr) == FALSE)
        return false;
    if (count != size)
        ::SetLastError(ERROR_DISK_FULL);
    return count == size;
}

bool Flush(HANDLE file) noexcept
{
    if (!Refused(Operation::Flush) && ::FlushFileBuffers(file) != FALSE)
        return true;
    // Some network redirectors know no flushing: what they were given is as safe as it gets.
    return ::GetLastError() == ERROR_INVALID_FUNCTION || ::GetLastError() == ERROR_NOT_SUPPORTED;
}

bool Close(UniqueFile& file) noexcept
{
    const bool closed = file.reset();
    return !Refused(Operation::Close) && closed;
}

std::string TemporaryName(const std::string& directory, const char* prefix)
{
    char path[MAX_PATH + 1] = "";
    if (Refused(Operation::TemporaryName) || ::GetTempFileNameA(directory.c_str(), prefix, 0, path) == 0)
        return {};
    return path;
}

DWORD Attributes(const char* path) noexcept
{
    return Refused(Operation::Attributes) ? INVALID_FILE_ATTRIBUTES : ::GetFileAttributesA(path);
}

bool Move(const char* from, const char* to, DWORD flags) noexcept
{
    if (Refused(Operation::Move))
        return false;
    return (flags == 0 ? ::MoveFileA(from, to) : ::MoveFileExA(from, to, flags)) != FALSE;
}

bool Copy(const char* from, const char* to) noexcept
{
    if (Refused(Operation::Copy) || ::CopyFileA(from, to, FALSE) == FALSE)
        return false;
    const UniqueFile copy(::CreateFileA(to, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                        nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    return !copy || Flush(copy.get()); // a read-only copy cannot be opened; it is as safe as it gets
}

bool Delete(const char* path) noexcept
{
    return !Refused(Operation::Delete) && ::DeleteFileA(path) != FALSE;
}

bool MakeDirectory(const char* path) noexcept
{
    return !Refused(Operation::MakeDirectory) && ::CreateDirectoryA(path, nullptr) != FALSE;
}

bool FindFiles(const std::string& pattern, std::vector<std::string>& names)
{
    if (Refused(Operation::Find))
        return false;
    WIN32_FIND_DATAA found;
    const UniqueFind search(::FindFirstFileA(pattern.c_str(), &found));
    if (!search)
        return ::GetLastError() == ERROR_FILE_NOT_FOUND || ::GetLastError() == ERROR_PATH_NOT_FOUND;
    do
    {
        names.emplace_back(found.cFileName);
    } while (::FindNextFileA(search.get(), &found) != FALSE);
    return ::GetLastError() == ERROR_NO_MORE_FILES;
}

} // namespace KxCommon::Files
