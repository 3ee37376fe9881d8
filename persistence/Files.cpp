// The file system calls of the library.
#include "persistence/Files.h"

#include <atomic>
#include <cstring>

#include "common/srclib/KxComn_String.h"

namespace Files
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

// False if the active code page cannot express the name: the system's narrow calls would then return a question mark,
// or the similar name of another file.
bool ToNarrowExactly(const wchar_t* name, std::string& narrow)
{
    char text[MAX_PATH * 3];
    BOOL isReplaced = FALSE;
    const bool isUtf8 = ::GetACP() == CP_UTF8; // expresses everything, and supports neither the flag nor the question
    const int bytes = ::WideCharToMultiByte(CP_ACP, isUtf8 ? WC_ERR_INVALID_CHARS : WC_NO_BEST_FIT_CHARS, name, -1,
                                            text, sizeof text, nullptr, isUtf8 ? nullptr : &isReplaced);
    if (bytes <= 1 || isReplaced != FALSE)
        return false;
    narrow.assign(text, static_cast<size_t>(bytes) - 1);
    return true;
}

} // namespace

void SetFaultHook(FaultHook hook) noexcept
{
    g_FaultHook.store(hook, std::memory_order_release);
}

UniqueFile Open(const char* path, DWORD access, DWORD disposition, DWORD share) noexcept
{
    if (Refused(Operation::Open))
        return UniqueFile();
    return UniqueFile(::CreateFileA(path, access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
}

bool Size(HANDLE file, uint64_t* size) noexcept
{
    LARGE_INTEGER result;
    if (Refused(Operation::Size) || ::GetFileSizeEx(file, &result) == FALSE)
        return false;
    *size = static_cast<uint64_t>(result.QuadPart);
    return true;
}

bool Look(HANDLE file, FileStamp* stamp) noexcept
{
    FILE_BASIC_INFO info;
    if (!Size(file, &stamp->Bytes) || ::GetFileInformationByHandleEx(file, FileBasicInfo, &info, sizeof info) == FALSE)
        return false;
    stamp->CreationTime = info.CreationTime.QuadPart;
    stamp->WriteTime = info.LastWriteTime.QuadPart;
    stamp->ChangeTime = info.ChangeTime.QuadPart;
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
    // Some network redirectors do not support flushing: what was written to them is as safe as it gets.
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

std::string FullPath(const std::string& path)
{
    std::string full(MAX_PATH, '\0');
    DWORD length = ::GetFullPathNameA(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    if (length >= full.size())
    {
        full.resize(length);
        length = ::GetFullPathNameA(path.c_str(), length, full.data(), nullptr);
    }
    if (length == 0 || length >= full.size())
        return path;
    full.resize(length);
    return full;
}

DWORD Attributes(const char* path) noexcept
{
    return Refused(Operation::Attributes) ? INVALID_FILE_ATTRIBUTES : ::GetFileAttributesA(path);
}

bool MayExist(const char* path) noexcept
{
    return Attributes(path) != INVALID_FILE_ATTRIBUTES || IsUnknown(::GetLastError());
}

bool IsLink(const char* path) noexcept
{
    WIN32_FIND_DATAA found;
    const KxCommon::UniqueFind search(::FindFirstFileA(path, &found));
    return search && (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
           IsReparseTagNameSurrogate(found.dwReserved0);
}

bool Move(const char* from, const char* to, bool isReplacing) noexcept
{
    const DWORD flags = MOVEFILE_WRITE_THROUGH | (isReplacing ? MOVEFILE_REPLACE_EXISTING : 0);
    return !Refused(Operation::Move) && ::MoveFileExA(from, to, flags) != FALSE;
}

// FileRenameInfoEx and its flags are not in every header, and before Windows 10 1607 the system refuses the class.
bool MoveOverOpen(const char* from, const char* to) noexcept
{
    struct RenameInfo // FILE_RENAME_INFO with its union as flags
    {
        DWORD Flags;
        HANDLE Root;
        DWORD Bytes;
        WCHAR Name[MAX_PATH];
    } info{};
    constexpr FILE_INFO_BY_HANDLE_CLASS kRenameInfoEx = static_cast<FILE_INFO_BY_HANDLE_CLASS>(22);
    constexpr DWORD kReplaceIfExists = 1;
    constexpr DWORD kPosixSemantics = 2;
    const UniqueFile file(::CreateFileA(from, DELETE | SYNCHRONIZE,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                        FILE_ATTRIBUTE_NORMAL | FILE_FLAG_WRITE_THROUGH, nullptr));
    const int units = ::MultiByteToWideChar(CP_ACP, 0, to, -1, info.Name, MAX_PATH);
    if (!file || units <= 1 || Refused(Operation::Move))
        return false;
    info.Flags = kReplaceIfExists | kPosixSemantics;
    info.Bytes = static_cast<DWORD>(units - 1) * sizeof(WCHAR);
    return ::SetFileInformationByHandle(file.get(), kRenameInfoEx, &info, sizeof info) != FALSE;
}

bool Copy(const char* from, const char* to) noexcept
{
    constexpr DWORD kPatience = 1000; // milliseconds; scanners open new files
    if (Refused(Operation::Copy) || ::CopyFileA(from, to, FALSE) == FALSE)
        return false;
    UniqueFile copy;
    const auto open = [&]
    {
        copy.reset(::CreateFileA(to, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                 OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        return static_cast<bool>(copy);
    };
    // A read-only copy cannot be opened for flushing; it is as safe as it gets.
    return Persist(kPatience, open, IsBusy) ? Flush(copy.get()) : !IsBusy(::GetLastError());
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
    WIN32_FIND_DATAW found;
    const KxCommon::UniqueFind search(::FindFirstFileW(KxCommon::String::ToWide(pattern).c_str(), &found));
    if (!search)
        return ::GetLastError() == ERROR_FILE_NOT_FOUND || ::GetLastError() == ERROR_PATH_NOT_FOUND;
    do
    {
        std::string name;
        if (ToNarrowExactly(found.cFileName, name))
            names.push_back(std::move(name));
    } while (::FindNextFileW(search.get(), &found) != FALSE);
    return ::GetLastError() == ERROR_NO_MORE_FILES;
}

} // namespace Files
