// Files by the system's own call, which knows three things that CreateFile does not: names relative to an open folder,
// paths of any length, and opening without waiting for whoever holds an oplock.
#pragma once

#include <string>
#include <string_view>

#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_Windows.h"

#include <winternl.h>

namespace KxCompanions
{

inline constexpr DWORD kOplocked = 802; // ERROR_CANNOT_BREAK_OPLOCK, which not all headers have

/// The path made absolute and tidy, as the other file functions would; empty when the system does not tell.
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

/// Where an open folder lies, links followed, in the form of FullPath and with a backslash; the backslash alone when the
/// system does not tell.
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
/// @param folder       what a bare name counts from; null for a name of NtPath
/// @param disposition  FILE_OPEN and its like; options likewise
/// @param security     the descriptor of what is created, null for the folder's
/// @return 0, or a Windows error; kOplocked when somebody holds an oplock: he has been asked to let
///         go, so that another attempt may succeed
[[nodiscard]] inline DWORD Open(KxCommon::UniqueFile& file, HANDLE folder, std::wstring_view name, ACCESS_MASK access,
                                ULONG disposition, ULONG options, void* security = nullptr,
                                ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE)
{
    constexpr NTSTATUS kOplockBreakInProgress = 0x108; // a success of which the next operation would wait
    file.reset();
    if (name.size() > 32766)
        return ERROR_FILENAME_EXCED_RANGE;
    UNICODE_STRING text;
    text.Buffer = const_cast<wchar_t*>(name.data());
    text.Length = text.MaximumLength = static_cast<USHORT>(name.size() * sizeof(wchar_t));
    // Should a link lead to a pipe, its server gets to know who we are but not to act as us.
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
