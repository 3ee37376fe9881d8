// Read anew on every call. Not through Storage::Registry, which is narrow and throws for a missing value.
#include "common/srclib/KxComn_Settings.h"

#include <algorithm>
#include <cwchar>

#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_Names.h"
#include "common/srclib/KxComn_Windows.h"

namespace KxCommon::Settings
{

namespace
{

constexpr uint32_t kDefaultWriteInterval = 30 * 60 * 1000;
constexpr uint32_t kShortestWriteInterval = 60 * 1000;

UniqueRegKey OpenProductKey() noexcept
{
    HKEY key = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, Names::kRegistryKey, 0, KEY_READ, &key) != ERROR_SUCCESS)
        return UniqueRegKey();
    return UniqueRegKey(key);
}

} // namespace

uint32_t WriteInterval() noexcept
{
    const UniqueRegKey key = OpenProductKey();
    DWORD type = REG_NONE;
    DWORD value = 0;
    DWORD size = sizeof value;
    if (!key ||
        ::RegQueryValueExA(key.get(), Names::kWriteIntervalValue, nullptr, &type, reinterpret_cast<BYTE*>(&value),
                           &size) != ERROR_SUCCESS ||
        type != REG_DWORD || size != sizeof value)
        return kDefaultWriteInterval;
    return std::max<uint32_t>(value, kShortestWriteInterval);
}

std::wstring InstallPath()
{
    const UniqueRegKey key = OpenProductKey();
    DWORD type = REG_NONE;
    DWORD size = 0;
    if (!key ||
        ::RegQueryValueExW(key.get(), Names::kInstallPathValue, nullptr, &type, nullptr, &size) != ERROR_SUCCESS ||
        type != REG_SZ)
        return {};
    std::wstring path(size / sizeof(wchar_t) + 1, L'\0'); // stored texts may lack their terminator
    size = static_cast<DWORD>((path.size() - 1) * sizeof(wchar_t));
    if (::RegQueryValueExW(key.get(), Names::kInstallPathValue, nullptr, &type, reinterpret_cast<BYTE*>(path.data()),
                           &size) != ERROR_SUCCESS ||
        type != REG_SZ)
        return {};
    path.resize(std::wcslen(path.c_str()));
    return path;
}

} // namespace KxCommon::Settings
