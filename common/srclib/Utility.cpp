// Paths.
#include "common/srclib/Utility.h"

#include <cstdlib>
#include <cwchar>

#include "common/srclib/KxComn_SecurityAttributes.h"
#include "common/srclib/KxComn_String.h"
#include "common/srclib/KxComn_Trace.h"
#include "common/srclib/KxComn_Windows.h"

namespace KxCommon
{

namespace
{

constexpr DWORD kPathSize = MAX_PATH; // 260, terminator included, in bytes as in units

// The same calls in both widths: the consumer family of systems has only the narrow ones.
DWORD ModuleFile(HMODULE module, char (&path)[kPathSize]) noexcept
{
    return ::GetModuleFileNameA(module, path, kPathSize);
}
DWORD ModuleFile(HMODULE module, wchar_t (&path)[kPathSize]) noexcept
{
    return ::GetModuleFileNameW(module, path, kPathSize);
}
DWORD ShortPath(const char (&path)[kPathSize], char (&shortPath)[kPathSize]) noexcept
{
    return ::GetShortPathNameA(path, shortPath, kPathSize);
}
DWORD ShortPath(const wchar_t (&path)[kPathSize], wchar_t (&shortPath)[kPathSize]) noexcept
{
    return ::GetShortPathNameW(path, shortPath, kPathSize);
}

// Both calls return 0 if they fail, and the buffer's size or more if the path does not fit; not every system sets an
// error for the latter.
DWORD PathError(DWORD length) noexcept
{
    if (length == 0)
        return ::GetLastError();
    return length < kPathSize ? ERROR_SUCCESS : ERROR_INSUFFICIENT_BUFFER;
}

template <class Character>
bool ShortModulePath(HMODULE module, Character (&shortPath)[kPathSize]) noexcept
{
    Character path[kPathSize] = {};
    if (const DWORD error = PathError(ModuleFile(module, path)))
    {
        KX_TRACE(kTraceError, "GetApplicationPath // GetModuleFileName error (%u)", static_cast<unsigned>(error));
        return false;
    }
    if (const DWORD error = PathError(ShortPath(path, shortPath)))
    {
        KX_TRACE(kTraceError, "GetApplicationPath // GetShortPathName error (%u)", static_cast<unsigned>(error));
        return false;
    }
    return true;
}

bool NarrowShortModulePath(HMODULE module, char (&shortPath)[kPathSize]) noexcept
{
    if (IsVersion(VersionClass::Consumer))
        return ShortModulePath(module, shortPath);
    wchar_t wide[kPathSize] = {};
    if (!ShortModulePath(module, wide))
        return false;
    // Substitutes for what the code page cannot express would make it the path of another folder, perhaps an
    // attacker's.
    wchar_t back[kPathSize] = {};
    if (::WideCharToMultiByte(CP_ACP, 0, wide, -1, shortPath, kPathSize, nullptr, nullptr) > 0 &&
        ::MultiByteToWideChar(CP_ACP, 0, shortPath, -1, back, kPathSize) > 0 && std::wcscmp(wide, back) == 0)
        return true;
    KX_TRACE(kTraceError, "GetApplicationPath // the code page has no name for the path");
    return false;
}

template <class View>
bool IsAbsolute(View path) noexcept
{
    const auto isSeparator = [](auto unit) { return unit == '\\' || unit == '/'; };
    const auto isLetter = [](auto unit) { return (unit | 0x20) >= 'a' && (unit | 0x20) <= 'z'; };
    if (path.size() < 3)
        return false;
    return (isLetter(path[0]) && path[1] == ':' && isSeparator(path[2])) ||
           (isSeparator(path[0]) && isSeparator(path[1]));
}

} // namespace

std::string GetApplicationPath(HMODULE module) noexcept
{
    char path[kPathSize] = {};
    if (!NarrowShortModulePath(module, path))
        return {};
    char drive[_MAX_DRIVE] = {};
    char directory[_MAX_DIR] = {};
    if (::_splitpath_s(path, drive, sizeof drive, directory, sizeof directory, nullptr, 0, nullptr, 0) != 0)
        return {};
    try
    {
        return std::string(drive) + directory;
    }
    catch (...)
    {
        return {};
    }
}

void AppendSeparator(std::string& path)
{
    size_t last = 0;
    for (size_t at = 0; at < path.size(); at += ::IsDBCSLeadByte(static_cast<BYTE>(path[at])) != FALSE ? 2 : 1)
        last = at;
    if (!path.empty() && path[last] != '\\')
        path += '\\';
}

void AppendSeparator(std::wstring& path)
{
    if (!path.empty() && path.back() != L'\\')
        path += L'\\';
}

bool IsAbsolutePath(std::string_view path) noexcept
{
    return IsAbsolute(path);
}

bool IsAbsolutePath(std::wstring_view path) noexcept
{
    return IsAbsolute(path);
}

bool IsProcessEnding() noexcept
{
    return ::RtlDllShutdownInProgress() != FALSE;
}

} // namespace KxCommon
