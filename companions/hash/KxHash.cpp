// KxHash.dll: SHA-1 of a file through the system's own cryptography. KxHash.h documents it.
#include "companions/hash/KxHash.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "common/srclib/KxComn_ErrorMode.h"
#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_Identity.h"
#include "common/srclib/KxComn_Names.h"
#include "common/srclib/KxComn_Windows.h"

#include <bcrypt.h>

#include "companions/NtFile.h"
#include "companions/hash/HashCache.h"

namespace
{

constexpr DWORD kHashSize = HashCache::kHashSize;
constexpr DWORD kPieceSize = 64 * 1024;

HashCache g_Cache;

struct Sha1
{
    Sha1() = default;
    ~Sha1()
    {
        ::BCryptDestroyHash(Hash); // before the algorithm it belongs to; both calls accept null
        ::BCryptCloseAlgorithmProvider(Algorithm, 0);
    }
    Sha1(const Sha1&) = delete;
    Sha1& operator=(const Sha1&) = delete;

    BCRYPT_ALG_HANDLE Algorithm = nullptr;
    BCRYPT_HASH_HANDLE Hash = nullptr;
};

enum class Place
{
    Local,
    Network,
    Device
};

// Decided by the path alone: even opening a remote file may take as long as its server likes.
Place PlaceOf(std::wstring full)
{
    const auto starts = [&full](const wchar_t* with, int length)
    {
        return ::CompareStringOrdinal(full.c_str(), std::min<int>(length, static_cast<int>(full.size())), with, length,
                                      TRUE) == CSTR_EQUAL;
    };
    const bool isPrefixed = full.starts_with(L"\\\\?\\") || full.starts_with(L"\\\\.\\");
    if (!isPrefixed && full.starts_with(L"\\\\"))
        return Place::Network;
    if (isPrefixed)
        full.erase(0, 4);
    if (starts(L"UNC\\", 4))
        return Place::Network;
    if (full.size() > 2 && full[1] == L':' && full[2] == L'\\')
        return ::GetDriveTypeW(full.substr(0, 3).c_str()) == DRIVE_REMOTE ? Place::Network : Place::Local;
    return starts(L"Volume{", 7) ? Place::Local : Place::Device;
}

// A link may have led to a server, and a file's bytes may have been moved to another medium or to a cloud.
bool IsElsewhere(HANDLE file, const BY_HANDLE_FILE_INFORMATION& info)
{
    constexpr DWORD kRecalled = FILE_ATTRIBUTE_OFFLINE | 0x00040000 | 0x00400000; // on opening, on reading
    FILE_REMOTE_PROTOCOL_INFO remote;
    return (info.dwFileAttributes & kRecalled) != 0 ||
           ::GetFileInformationByHandleEx(file, FileRemoteProtocolInfo, &remote, sizeof remote) != FALSE;
}

bool MayUseNetwork()
{
    DWORD value = 0, size = sizeof value;
    return ::RegGetValueW(HKEY_LOCAL_MACHINE, KxCommon::Names::kRegistryKey, KxCommon::Names::kHashNetworkFilesValue,
                          RRF_RT_REG_DWORD, nullptr, &value, &size) == ERROR_SUCCESS &&
           value != 0;
}

[[nodiscard]] DWORD OpenToRead(KxCommon::UniqueFile& file, const std::wstring& full)
{
    DWORD error = KxCompanions::kOplocked;
    for (int attempt = 0; attempt < 5 && error == KxCompanions::kOplocked; ++attempt)
    {
        if (attempt != 0)
            ::Sleep(20); // well-behaved holders, such as the file server, release it within that time
        error = KxCompanions::Open(file, nullptr, KxCompanions::NtPath(full), FILE_GENERIC_READ, FILE_OPEN,
                                   FILE_NON_DIRECTORY_FILE | FILE_SEQUENTIAL_ONLY);
    }
    return error;
}

// The state of a file to which nobody can be writing: while somebody does, its times may lag behind its bytes.
[[nodiscard]] bool GetQuietState(const std::wstring& full, FileState& state)
{
    KxCommon::UniqueFile file;
    return KxCompanions::Open(file, nullptr, KxCompanions::NtPath(full), FILE_READ_DATA | FILE_READ_ATTRIBUTES,
                              FILE_OPEN, FILE_NON_DIRECTORY_FILE, nullptr,
                              FILE_SHARE_READ | FILE_SHARE_DELETE) == ERROR_SUCCESS &&
           GetFileState(file.get(), state);
}

// SHA-1 of the first `size` bytes.
[[nodiscard]] DWORD HashBytes(HANDLE file, DWORD size, uint8_t* hash20)
{
    Sha1 sha1;
    NTSTATUS status = ::BCryptOpenAlgorithmProvider(&sha1.Algorithm, BCRYPT_SHA1_ALGORITHM, nullptr, 0);
    if (status >= 0)
        status = ::BCryptCreateHash(sha1.Algorithm, &sha1.Hash, nullptr, 0, nullptr, 0, 0);
    const std::unique_ptr<uint8_t[]> piece = std::make_unique<uint8_t[]>(kPieceSize);
    for (DWORD got = 0; status >= 0 && size != 0; size -= got)
    {
        if (!::ReadFile(file, piece.get(), std::min(size, kPieceSize), &got, nullptr))
            return ::GetLastError();
        if (got == 0)
            return ERROR_RETRY; // the file has become shorter
        status = ::BCryptHashData(sha1.Hash, piece.get(), got, 0);
    }
    if (status >= 0)
        status = ::BCryptFinishHash(sha1.Hash, hash20, kHashSize, 0);
    return status < 0 ? ::RtlNtStatusToDosError(status) : ERROR_SUCCESS;
}

[[nodiscard]] DWORD HashFile(const wchar_t* path, uint8_t* hash20)
{
    const KxCommon::OwnIdentity identity;
    if (!identity)
        return ERROR_ACCESS_DENIED;
    const KxCommon::QuietErrors quiet; // the path may name a drive without a medium
    const std::wstring full = KxCompanions::FullPath(path);
    const Place place = PlaceOf(full);
    if (place == Place::Network && !MayUseNetwork())
        return ERROR_NETWORK_ACCESS_DENIED;
    FileState known, hashed, left;
    const bool isQuiet = place == Place::Local && GetQuietState(full, known);
    if (isQuiet && g_Cache.Find(known, hash20))
        return ERROR_SUCCESS;
    KxCommon::UniqueFile file;
    // Reading a pipe or a console could wait for ever, and reading a whole disk nearly so.
    if (const DWORD error = place == Place::Device ? ERROR_BAD_FILE_TYPE : OpenToRead(file, full))
        return error;
    BY_HANDLE_FILE_INFORMATION before, after;
    if (::GetFileType(file.get()) != FILE_TYPE_DISK || !::GetFileInformationByHandle(file.get(), &before))
        return ERROR_BAD_FILE_TYPE;
    const bool isElsewhere = IsElsewhere(file.get(), before);
    if (isElsewhere && !MayUseNetwork())
        return ERROR_NETWORK_ACCESS_DENIED;
    if (before.nFileSizeHigh != 0)
        return ERROR_FILE_TOO_LARGE; // not a program: the system runs none of that size

    uint8_t hash[kHashSize];
    if (const DWORD error = HashBytes(file.get(), before.nFileSizeLow, hash))
        return error;
    if (!::GetFileInformationByHandle(file.get(), &after))
        return ::GetLastError();
    if (after.nFileSizeHigh != 0 || after.nFileSizeLow != before.nFileSizeLow ||
        ::CompareFileTime(&after.ftLastWriteTime, &before.ftLastWriteTime) != 0)
        return ERROR_RETRY;
    std::memcpy(hash20, hash, kHashSize);
    if (isQuiet && !isElsewhere && GetFileState(file.get(), hashed) && hashed == known && GetQuietState(full, left) &&
        left == known)
        g_Cache.Add(known, hash);
    return ERROR_SUCCESS;
}

} // namespace

extern "C" int32_t kxCfwGetHashValue(const wchar_t* path, uint8_t* hash20)
{
    if (path == nullptr || hash20 == nullptr)
        return ERROR_INVALID_PARAMETER;
    try
    {
        return static_cast<int32_t>(HashFile(path, hash20));
    }
    catch (const std::bad_alloc&)
    {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    catch (...)
    {
        return ERROR_GEN_FAILURE;
    }
}
