// Paths beyond the classic limit of the file functions.
#pragma once

#include <string>
#include <string_view>

#include "common/srclib/KxComn_Windows.h"

namespace KxCompanions
{

/// The path in a form that the file functions take at any length. Short paths and those that already have a prefix
/// come back as they are; the others made absolute and tidy, since the system does not look into a prefixed path.
[[nodiscard]] inline std::wstring LongPath(std::wstring_view path)
{
    constexpr size_t kLimit = MAX_PATH - 12; // CreateDirectoryW leaves room for a file name of 8.3
    std::wstring result(path);
    if (path.size() < kLimit || path.starts_with(L"\\\\?\\") || path.starts_with(L"\\\\.\\"))
        return result;

    const DWORD needed = ::GetFullPathNameW(result.c_str(), 0, nullptr, nullptr);
    std::wstring full(needed, L'\0');
    full.resize(::GetFullPathNameW(result.c_str(), needed, full.data(), nullptr));
    if (full.empty() || full.size() >= needed)
        return result;
    return full.starts_with(L"\\\\") ? L"\\\\?\\UNC\\" + full.substr(2) : L"\\\\?\\" + full;
}

} // namespace KxCompanions
