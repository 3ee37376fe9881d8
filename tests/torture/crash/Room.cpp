// The library's file calls on a disk in memory, with the errors that Windows returns.
#include <algorithm>
#include <cstdio>

#include "tests/torture/crash/Disk.h"

// The real file calls under another name, so that the two can be compared.
#define Files RealFiles
#include "persistence/Files.cpp" // NOLINT(bugprone-suspicious-include)
#undef Files

namespace Crash
{

Room g_Room;

std::string Step::Text() const
{
    static const char* const names[] = {"create ", "write ", "flush ", "move ", "delete ", "mkdir ", "try ", "tell "};
    const std::string to = What == Kind::Move ? " -> " + To : "";
    return names[static_cast<int>(What)] + (Path.empty() ? std::to_string(File) : Path) + to;
}

void Disk::Do(const Step& step)
{
    if (step.What <= Step::Kind::Write)
        ++Times[step.File];
    switch (step.What)
    {
    case Step::Kind::Create:
        Names[step.Path] = step.File;
        Files[step.File].clear();
        break;
    case Step::Kind::Write:
        Files[step.File] += step.Data;
        break;
    case Step::Kind::Move:
    {
        const int file = Names.at(step.Path);
        Names.erase(step.Path);
        Names.erase(step.To); // so that the letters' case is the new one
        Names[step.To] = file;
        break;
    }
    case Step::Kind::Delete:
        Names.erase(step.Path);
        break;
    case Step::Kind::MakeDirectory:
        Names[step.Path] = kDirectory;
        break;
    default:
        break;
    }
}

int Disk::NumberFor(const std::string& path) const
{
    const auto found = Names.find(path);
    return found != Names.end() ? found->second : Files.empty() ? 0 : Files.rbegin()->first + 1;
}

void Room::Do(const Step& step)
{
    Now.Do(step);
    Steps.push_back(step);
}

} // namespace Crash

namespace
{

using Crash::Disk;
using Crash::g_Room;
using Kind = Crash::Step::Kind;
namespace Real = RealFiles;

struct Opened
{
    int File = 0;
    size_t Position = 0;
    std::string Path;
};
std::map<HANDLE, Opened> g_Opened; // by numbers that no handle of the system has

std::string Normal(std::string path)
{
    while (path.ends_with('\\'))
        path.pop_back();
    return path;
}

bool IsDirectory(const std::string& path)
{
    return g_Room.Now.Has(path) && g_Room.Now.Names.at(path) == Disk::kDirectory;
}

// The error of a name that does not exist, or none.
DWORD Missing(const std::string& path)
{
    const std::string parent = path.substr(0, path.rfind('\\'));
    if (g_Room.Now.Has(path))
        return ERROR_SUCCESS;
    return parent.find('\\') == std::string::npos || IsDirectory(parent) ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
}

// By somebody who does not let others do what they want to: read, rename and delete, or anything.
bool IsInUse(const std::string& path, DWORD wanted = 0)
{
    const int file = g_Room.Now.NumberFor(path);
    const auto held = g_Room.Held.find(file);
    return (held != g_Room.Held.end() && (held->second & wanted) == 0) ||
           std::any_of(g_Opened.begin(), g_Opened.end(),
                       [&](const auto& opened) { return opened.second.File == file; });
}

// Counts a call of the library. False: it is refused, or there is an error. (For good is not for ever: code that tries
// until it succeeds would never return.)
bool Succeeds(DWORD error = ERROR_SUCCESS)
{
    const bool isRefused = g_Room.Calls.IsFailing() && g_Room.Calls.Calls < Crash::Room::kMostCalls;
    ::SetLastError(isRefused ? g_Room.Calls.Error : error);
    return !isRefused && error == ERROR_SUCCESS;
}

bool Matches(const char* pattern, const char* name)
{
    if (*pattern == '*')
        return Matches(pattern + 1, name) || (*name != 0 && Matches(pattern, name + 1));
    if (*pattern == 0 || *name == 0)
        return *pattern == *name;
    return (*pattern == '?' || ::_strnicmp(pattern, name, 1) == 0) && Matches(pattern + 1, name + 1);
}

} // namespace

size_t Crash::Room::OpenFiles() const
{
    return g_Opened.size();
}

namespace Files
{

using KxCommon::UniqueFile;

UniqueFile Open(const char* path, DWORD access, DWORD disposition, DWORD share) noexcept
{
    if (g_Room.IsReal)
        return Real::Open(path, access, disposition, share);
    const std::string name = Normal(path);
    DWORD error = IsDirectory(name) ? ERROR_ACCESS_DENIED : Missing(name);
    if (error == ERROR_FILE_NOT_FOUND && disposition == CREATE_ALWAYS)
        error = ERROR_SUCCESS;
    if (error == ERROR_SUCCESS && IsInUse(name, access == GENERIC_READ ? share & FILE_SHARE_READ : 0))
        error = ERROR_SHARING_VIOLATION;
    if (!Succeeds(error))
        return UniqueFile();
    const int file = g_Room.Now.NumberFor(name);
    if (disposition == CREATE_ALWAYS)
        g_Room.Do({Kind::Create, name, {}, file});
    static uintptr_t s_Last = 0x40000000;
    UniqueFile handle(reinterpret_cast<HANDLE>(s_Last += 4)); // NOLINT(performance-no-int-to-ptr)
    g_Opened[handle.get()] = {file, 0, name};
    return handle;
}

bool Size(HANDLE file, uint64_t* size) noexcept
{
    if (g_Room.IsReal)
        return Real::Size(file, size);
    *size = g_Room.Now.Files[g_Opened.at(file).File].size();
    return Succeeds();
}

bool Look(HANDLE file, FileStamp* stamp) noexcept
{
    if (g_Room.IsReal)
        return Real::Look(file, stamp);
    const int number = g_Opened.at(file).File;
    *stamp = {number + 1, g_Room.Now.Times[number], 0, g_Room.Now.Files[number].size()};
    return Succeeds();
}

bool Read(HANDLE file, void* buffer, uint32_t size, uint32_t* got) noexcept
{
    if (g_Room.IsReal || !Succeeds())
        return g_Room.IsReal && Real::Read(file, buffer, size, got);
    Opened& opened = g_Opened.at(file);
    *got = static_cast<uint32_t>(g_Room.Now.Files[opened.File].copy(static_cast<char*>(buffer), size, opened.Position));
    opened.Position += *got;
    return true;
}

bool Write(HANDLE file, const void* buffer, uint32_t size) noexcept
{
    if (g_Room.IsReal)
        return Real::Write(file, buffer, size);
    const bool succeeds = Succeeds();
    const Opened& opened = g_Opened.at(file);
    const std::string data(static_cast<const char*>(buffer), succeeds ? size : size / 2);
    g_Room.Do({Kind::Write, opened.Path, {}, opened.File, data});
    return succeeds;
}

bool Flush(HANDLE file) noexcept
{
    if (g_Room.IsReal || !Succeeds())
        return g_Room.IsReal && Real::Flush(file);
    g_Room.Do({Kind::Flush, g_Opened.at(file).Path, {}, g_Opened.at(file).File});
    return true;
}

bool Close(UniqueFile& file) noexcept
{
    const bool closed = file.reset();
    return (g_Room.IsReal || Succeeds()) && closed;
}

std::string TemporaryName(const std::string& directory, const char* prefix)
{
    if (g_Room.IsReal || !Succeeds(Missing(Normal(directory))))
        return g_Room.IsReal ? Real::TemporaryName(directory, prefix) : "";
    char name[32];
    auto number = static_cast<unsigned>(g_Room.Now.NumberFor("")); // no name comes twice
    do
        std::snprintf(name, sizeof name, "\\%s%x.tmp", prefix, number++);
    while (g_Room.Now.Has(Normal(directory) + name));
    const std::string path = Normal(directory) + name;
    g_Room.Do({Kind::Create, path, {}, g_Room.Now.NumberFor(path)});
    return path;
}

DWORD Attributes(const char* path) noexcept
{
    const std::string name = Normal(path);
    if (g_Room.IsReal || !Succeeds(Missing(name)))
        return g_Room.IsReal ? Real::Attributes(path) : INVALID_FILE_ATTRIBUTES;
    return IsDirectory(name) ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_ARCHIVE;
}

bool MayExist(const char* path) noexcept
{
    return Attributes(path) != INVALID_FILE_ATTRIBUTES ||
           (::GetLastError() != ERROR_FILE_NOT_FOUND && ::GetLastError() != ERROR_PATH_NOT_FOUND);
}

bool IsLink(const char*) noexcept
{
    return false;
}

std::string FullPath(const std::string& path)
{
    return Real::FullPath(path);
}

bool Move(const char* from, const char* to, bool isReplacing) noexcept
{
    if (g_Room.IsReal)
        return Real::Move(from, to, isReplacing);
    DWORD error = Missing(from);
    if (error == ERROR_SUCCESS && IsInUse(from, FILE_SHARE_DELETE))
        error = ERROR_SHARING_VIOLATION;
    if (error == ERROR_SUCCESS && Missing(to) == ERROR_PATH_NOT_FOUND)
        error = ERROR_PATH_NOT_FOUND;
    if (error == ERROR_SUCCESS && g_Room.Now.Has(to) && ::_stricmp(from, to) != 0)
        error = !isReplacing                     ? ERROR_ALREADY_EXISTS
                : IsDirectory(to) || IsInUse(to) ? ERROR_ACCESS_DENIED
                                                 : ERROR_SUCCESS;
    if (!Succeeds(error))
        return false;
    g_Room.Do({Kind::Move, from, to, -1, {}, true});
    return true;
}

bool MoveOverOpen(const char* from, const char* to) noexcept
{
    return g_Room.IsReal ? Real::MoveOverOpen(from, to) : Succeeds(ERROR_INVALID_PARAMETER); // of an older Windows
}

bool Copy(const char* from, const char* to) noexcept
{
    if (g_Room.IsReal)
        return Real::Copy(from, to);
    DWORD error = Missing(to) == ERROR_PATH_NOT_FOUND ? ERROR_PATH_NOT_FOUND : Missing(from);
    if (error == ERROR_SUCCESS && (IsDirectory(to) || IsDirectory(from)))
        error = ERROR_ACCESS_DENIED;
    if (error == ERROR_SUCCESS && (IsInUse(to) || IsInUse(from, FILE_SHARE_READ)))
        error = ERROR_SHARING_VIOLATION;
    if (!Succeeds(error))
        return false;
    const std::string bytes = g_Room.Now.Files[g_Room.Now.Names.at(from)];
    const int file = g_Room.Now.NumberFor(to);
    g_Room.Do({Kind::Create, to, {}, file});
    for (const std::string& half : {bytes.substr(0, bytes.size() / 2), bytes.substr(bytes.size() / 2)})
        g_Room.Do({Kind::Write, to, {}, file, half});
    g_Room.Do({Kind::Flush, to, {}, file});
    return true;
}

bool Delete(const char* path) noexcept
{
    if (g_Room.IsReal)
        return Real::Delete(path);
    const DWORD error = IsDirectory(path) ? ERROR_ACCESS_DENIED : Missing(path);
    if (!Succeeds(error == ERROR_SUCCESS && IsInUse(path, FILE_SHARE_DELETE) ? ERROR_SHARING_VIOLATION : error))
        return false;
    g_Room.Do({Kind::Delete, path});
    return true;
}

bool MakeDirectory(const char* path) noexcept
{
    if (g_Room.IsReal)
        return Real::MakeDirectory(path);
    const std::string name = Normal(path);
    const DWORD error = Missing(name);
    if (!Succeeds(error == ERROR_SUCCESS          ? ERROR_ALREADY_EXISTS
                  : error == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS
                                                  : error))
        return false;
    g_Room.Do({Kind::MakeDirectory, name});
    return true;
}

bool FindFiles(const std::string& pattern, std::vector<std::string>& names)
{
    if (g_Room.IsReal || !Succeeds())
        return g_Room.IsReal && Real::FindFiles(pattern, names);
    const size_t end = pattern.rfind('\\') + 1;
    for (const auto& [path, file] : g_Room.Now.Names)
    {
        if (path.rfind('\\') + 1 == end && ::_strnicmp(path.c_str(), pattern.c_str(), end) == 0 &&
            Matches(&pattern[end], &path[end]))
            names.push_back(path.substr(end));
    }
    return true;
}

} // namespace Files

// How handle owners, which do not use these functions, close files: through this import.
static BOOL WINAPI CloseAny(HANDLE handle)
{
    using CloseHandleType = BOOL(WINAPI*)(HANDLE);
    static const CloseHandleType s_Close = reinterpret_cast<CloseHandleType>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleA("kernel32.dll"), "CloseHandle")));
    return g_Opened.erase(handle) != 0 ? TRUE : s_Close(handle);
}
extern "C"
{
    BOOL(WINAPI* __imp_CloseHandle)(HANDLE) = CloseAny;
}
