// The log file: appending, rollover, and what several processes must agree on; docs/settings.md describes the outcome.
#include "companions/trace/LogFile.h"

#include <algorithm>
#include <utility>
#include <vector>

#include <sddl.h>

#include "companions/LongPath.h"

namespace KxTrace
{

namespace
{

constexpr uint64_t kRetryInterval = 1000; // milliseconds
constexpr DWORD kPatience = 3000;         // also in milliseconds; for a turn, where they are taken

// Who holds it may roll the log over. One mutex for each path, for processes of all sessions and accounts: they may
// wait for it and release it, nothing more. Null when the system refuses.
KxCommon::UniqueKernelObject MakeMutex(const std::wstring& path)
{
    std::wstring folded(path.size(), L'\0');
    const int length = static_cast<int>(path.size());
    ::LCMapStringW(LOCALE_INVARIANT, LCMAP_UPPERCASE, path.data(), length, folded.data(), length);
    uint64_t hash = 14695981039346656037u; // FNV-1a
    for (const wchar_t unit : folded)
        hash = (hash ^ unit) * 1099511628211u;
    const std::wstring name = L"Global\\KxVqrDbg-" + std::to_wstring(hash);

    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:(A;;0x100001;;;WD)S:(ML;;NW;;;LW)", SDDL_REVISION_1,
                                                           &descriptor, nullptr);
    const KxCommon::UniqueLocalMemory owner(descriptor);
    SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor, FALSE};
    return KxCommon::UniqueKernelObject(
        ::CreateMutexExW(&attributes, name.c_str(), 0, SYNCHRONIZE | MUTEX_MODIFY_STATE));
}

class [[nodiscard]] MutexGuard
{
public:
    explicit MutexGuard(HANDLE mutex, DWORD patience = 0) noexcept : m_Mutex(mutex)
    {
        // Abandoned: a process died in the middle. Each step leaves the files in order.
        const DWORD result = mutex == nullptr ? WAIT_FAILED : ::WaitForSingleObject(mutex, patience);
        m_Held = result == WAIT_OBJECT_0 || result == WAIT_ABANDONED;
    }
    ~MutexGuard()
    {
        if (m_Held)
            ::ReleaseMutex(m_Mutex);
    }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

    [[nodiscard]] bool IsHeld() const noexcept { return m_Held; }

private:
    HANDLE m_Mutex;
    bool m_Held = false;
};

// With access to append alone, Windows finds the end and writes there in one step, whoever else does. Wine takes two
// steps, so that two processes may write to the same place; there they take turns.
bool AppendsInOneStep() noexcept
{
    return ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") == nullptr;
}

KxCommon::UniqueFile OpenToAppend(const std::wstring& path)
{
    // Append access without write access: the system puts every write at the end, whoever wrote before. A link in the
    // place of the log is opened as itself, to be refused; a pipe's server may not act as us.
    return KxCommon::UniqueFile(::CreateFileW(
        path.c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
        FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION,
        nullptr));
}

// A service's log may lie in a folder where anybody can put links to files that only the service may write.
bool IsPlainFile(HANDLE file) noexcept
{
    BY_HANDLE_FILE_INFORMATION info;
    return ::GetFileType(file) == FILE_TYPE_DISK && ::GetFileInformationByHandle(file, &info) &&
           (info.dwFileAttributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY)) == 0 &&
           info.nNumberOfLinks < 2;
}

void MakeFolders(const std::wstring& path)
{
    for (size_t end = path.find(L'\\', 3); end != std::wstring::npos; end = path.find(L'\\', end + 1))
        ::CreateDirectoryW(path.substr(0, end).c_str(), nullptr); // what matters shows when the file is opened
}

} // namespace

DWORD LogFile::Append(const std::wstring& path, uint64_t limit, bool flush, std::string_view line)
{
    const uint64_t now = ::GetTickCount64();
    if (path != m_Path)
    {
        Close();
        m_Path = path;
        m_Mutex = MakeMutex(path);
        m_Patience = kPatience;
        m_RollOverAt = 0;
    }
    // Opened anew from time to time: the file may have been deleted, renamed or replaced under our handle.
    if (now >= m_OpenAt)
    {
        m_OpenAt = now + kRetryInterval;
        m_Error = Open();
    }
    if (!m_File)
        return m_Error;

    DWORD error = ERROR_SUCCESS;
    {
        const MutexGuard turn(AppendsInOneStep() ? nullptr : m_Mutex.get(), m_Patience);
        m_Patience = turn.IsHeld() ? kPatience : 0; // somebody sits on the mutex: the next lines do not wait as well
        error = MakeRoom(limit);
        DWORD written = 0;
        if (error == ERROR_SUCCESS &&
            !::WriteFile(m_File.get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr))
            error = ::GetLastError();
    }
    if (error == ERROR_SUCCESS && flush && !::FlushFileBuffers(m_File.get()))
        error = ::GetLastError();
    return error;
}

void LogFile::Close() noexcept
{
    m_File.reset();
    m_OpenAt = 0;
}

DWORD LogFile::Open()
{
    m_File.reset(); // before, not after: a file that was deleted keeps its name while we hold it
    const std::wstring path = KxCompanions::LongPath(m_Path);
    m_File = OpenToAppend(path);
    if (!m_File && ::GetLastError() == ERROR_PATH_NOT_FOUND)
    {
        MakeFolders(path);
        m_File = OpenToAppend(path);
    }
    if (!m_File)
        return ::GetLastError();
    if (IsPlainFile(m_File.get()))
        return ERROR_SUCCESS;
    m_File.reset();
    return ERROR_ACCESS_DENIED;
}

bool LogFile::HasRoom(uint64_t limit) const noexcept
{
    LARGE_INTEGER size;
    return ::GetFileSizeEx(m_File.get(), &size) && static_cast<uint64_t>(size.QuadPart) < limit;
}

// A full file stays full, also under its new name. That is how every process learns that another one rolled over.
DWORD LogFile::MakeRoom(uint64_t limit)
{
    if (HasRoom(limit))
        return ERROR_SUCCESS;
    const uint64_t now = ::GetTickCount64();
    if (now >= m_RollOverAt)
    {
        const MutexGuard guard(m_Mutex.get());
        m_Error = Open(); // perhaps somebody has rolled over already
        if (m_Error != ERROR_SUCCESS || HasRoom(limit))
            return m_Error;
        // Two at once would cost the predecessor, no line to come. So nobody can stop the log by sitting on the mutex.
        if (guard.IsHeld() || !m_Mutex || !HasRoom(2 * limit))
        {
            m_File.reset();
            if (!RollOver())
                m_RollOverAt = now + kRetryInterval;
            m_Error = Open();
            if (m_Error != ERROR_SUCCESS)
                return m_Error;
        }
    }
    return HasRoom(2 * limit) ? ERROR_SUCCESS : ERROR_FILE_TOO_LARGE;
}

bool LogFile::RollOver() const
{
    const std::wstring path = KxCompanions::LongPath(m_Path);
    const std::wstring old = path + L".old";
    if (::MoveFileExW(path.c_str(), old.c_str(), MOVEFILE_REPLACE_EXISTING))
        return true;

    // A process that has written nothing since the last time still holds the predecessor, and an open file cannot be
    // replaced. It can be renamed and deleted; deleting alone would leave the name taken until that process lets go.
    const std::wstring aside =
        old + L"." + std::to_wstring(::GetCurrentProcessId()) + L"." + std::to_wstring(::GetTickCount64());
    if (!::MoveFileExW(old.c_str(), aside.c_str(), 0))
        return false;
    ::DeleteFileW(aside.c_str());
    return ::MoveFileExW(path.c_str(), old.c_str(), MOVEFILE_REPLACE_EXISTING) != FALSE;
}

void RemoveOldLogs(const LogName& name)
{
    constexpr size_t kKept = 20;
    if (name.Process.empty())
        return;

    const auto isLogOfAnother = [&name](std::wstring_view found)
    {
        const std::wstring start = name.Stem + L"_p", own = name.Stem + name.Process + name.Extension;
        if (!found.starts_with(start) || found == own || found == own + L".old")
            return false;
        found.remove_prefix(start.size());
        const size_t digits = std::min(found.find_first_not_of(L"0123456789"), found.size());
        found.remove_prefix(digits);
        return digits != 0 && (found == name.Extension || found == name.Extension + L".old");
    };

    std::vector<std::pair<uint64_t, std::wstring>> logs; // time of the last write, path
    WIN32_FIND_DATAW found;
    const std::wstring pattern = KxCompanions::LongPath(name.Folder + name.Stem + L"_p*");
    const KxCommon::UniqueFind find(::FindFirstFileW(pattern.c_str(), &found));
    for (BOOL more = static_cast<bool>(find); more; more = ::FindNextFileW(find.get(), &found))
    {
        const FILETIME time = found.ftLastWriteTime;
        if (isLogOfAnother(found.cFileName))
            logs.emplace_back(static_cast<uint64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime,
                              KxCompanions::LongPath(name.Folder + found.cFileName));
    }
    std::sort(logs.begin(), logs.end());
    for (size_t i = 0; i + kKept < logs.size(); ++i)
    {
        // Without sharing: a log that a living process has open stays.
        const KxCommon::UniqueFile doomed(::CreateFileW(logs[i].second.c_str(), DELETE, 0, nullptr, OPEN_EXISTING,
                                                        FILE_FLAG_DELETE_ON_CLOSE | FILE_FLAG_OPEN_REPARSE_POINT,
                                                        nullptr));
    }
}

} // namespace KxTrace
