// Files by the system's own call, which can do three things that CreateFile cannot: names relative to an open folder,
// paths of any length, and opening without waiting for the holder of an oplock.
#pragma once

#include <string>
#include <string_view>

#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_Windows.h"

#include <winternl.h>

namespace KxCompanions
{

inline constexpr DWORD kOplocked = 802; // ERROR_CANNOT_BREAK_OPLOCK, missing in some headers

/// The path made absolute and normalised, as the other file functions do it; empty if the system refuses.
[[nodiscard]] inline std::wstring FullPath(const std::wstring& path)
{
    std::wstring full(::GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');
    const DWORD length = ::GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    full.resize(length < full.size() ? length : 0);
    return full;
}

/// A path of FullPath in the form that Open takes.
[[nodiscard]] inline std::wstring NtPath(const std::wstring& full)
{
    if (full.starts_with(L"\\\\?\\") || full.starts_with(L"\\\\.\\"))
        return L"\\??\\" + full.substr(4);
    return full.starts_with(L"\\\\") ? L"\\??\\UNC\\" + full.substr(2) : L"\\??\\" + full;
}

/// Where an open folder is, with links resolved, in the form of FullPath with a trailing backslash; only the backslash
/// if the system refuses.
[[nodiscard]] inline std::wstring FinalPath(HANDLE folder)
{
    std::wstring path(32768, L'\0');
    path.resize(::GetFinalPathNameByHandleW(folder, path.data(), static_cast<DWORD>(path.size()), FILE_NAME_OPENED));
    if (path.starts_with(L"\\\\?\\UNC\\"))
        path.replace(0, 7, L"\\");
    else if (path.starts_with(L"\\\\?\\"))
        path.erase(0, 4);
    return path.ends_with(L'\\') ? path : path + L'\\';
}

/// Opens or creates a file or folder for synchronous use; others may read, write, rename and delete it meanwhile.
/// @param folder       what a bare name is relative to; null for a name of NtPath
/// @param disposition  FILE_OPEN etc.; options likewise
/// @param security     the descriptor of a created file, null for the folder's
/// @return 0, or a Windows error; kOplocked if another program holds an oplock: it has been asked to release it, so
///         another attempt may succeed
[[nodiscard]] inline DWORD Open(KxCommon::UniqueFile& file, HANDLE folder, std::wstring_view name, ACCESS_MASK access,
                                ULONG disposition, ULONG options, void* security = nullptr,
                                ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE)
{
    constexpr NTSTATUS kOplockBreakInProgress = 0x108; // a success after which the next operation would wait
    file.reset();
    if (name.size() > 32766)
        return ERROR_FILENAME_EXCED_RANGE;
    UNICODE_STRING text;
    text.Buffer = const_cast<wchar_t*>(name.data());
    text.Length = text.MaximumLength = static_cast<USHORT>(name.size() * sizeof(wchar_t));
    // If a link leads to a pipe, its server learns who we are but cannot impersonate us.
    SECURITY_QUALITY_OF_SERVICE quality = {sizeof quality, SecurityIdentification, SECURITY_STATIC_TRACKING, TRUE};
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, folder, security);
    attributes.SecurityQualityOfService = &quality;
    IO_STATUS_BLOCK result = {};
    HANDLE handle = nullptr;
    const NTSTATUS status =
        ::NtCreateFile(&handle, access | SYNCHRONIZE, &attributes, &result, nullptr, FILE_ATTRIBUTE_NORMAL, share,
                       disposition, options | FILE_SYNCHRONOUS_IO_NONALERT | FILE_COMPLETE_IF_OPLOCKED, nullptr, 0);
    if (status < 0)
        return ::RtlNtStatusToDosError(status);
    file.reset(handle);
    if (status != kOplockBreakInProgress)
        return ERROR_SUCCESS;
    file.reset();
    return kOplocked;
}

} // namespace KxCompanions
