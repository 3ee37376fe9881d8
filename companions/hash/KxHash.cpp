// KxHash.dll: SHA-1 of a file through the system's own cryptography. KxHash.h is the contract.
#include "companions/hash/KxHash.h"

#include <cstring>
#include <memory>
#include <new>

#include "common/srclib/KxComn_ErrorMode.h"
#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_Windows.h"

#include <bcrypt.h>
#include <ntsecapi.h>

#include "companions/LongPath.h"

namespace
{

constexpr DWORD kHashSize = 20;
constexpr DWORD kPieceSize = 64 * 1024;

struct AlgorithmPolicy
{
    using pointer = BCRYPT_ALG_HANDLE;
    static pointer invalid() noexcept { return nullptr; }
    static bool close(pointer algorithm) noexcept { return ::BCryptCloseAlgorithmProvider(algorithm, 0) >= 0; }
};

struct HashPolicy
{
    using pointer = BCRYPT_HASH_HANDLE;
    static pointer invalid() noexcept { return nullptr; }
    static bool close(pointer hash) noexcept { return ::BCryptDestroyHash(hash) >= 0; }
};

using UniqueAlgorithm = KxCommon::UniqueHandle<AlgorithmPolicy>;
using UniqueHash = KxCommon::UniqueHandle<HashPolicy>;

// SHA-1 step by step. Each step returns 0 or a Windows error.
class Sha1
{
public:
    [[nodiscard]] DWORD Start()
    {
        BCRYPT_ALG_HANDLE algorithm = nullptr;
        NTSTATUS status = ::BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_SHA1_ALGORITHM, nullptr, 0);
        if (status < 0)
            return ::LsaNtStatusToWinError(status);
        m_Algorithm.reset(algorithm);

        BCRYPT_HASH_HANDLE hash = nullptr;
        status = ::BCryptCreateHash(algorithm, &hash, nullptr, 0, nullptr, 0, 0);
        if (status < 0)
            return ::LsaNtStatusToWinError(status);
        m_Hash.reset(hash);
        return ERROR_SUCCESS;
    }

    [[nodiscard]] DWORD Add(uint8_t* piece, DWORD size)
    {
        const NTSTATUS status = ::BCryptHashData(m_Hash.get(), piece, size, 0);
        return status < 0 ? ::LsaNtStatusToWinError(status) : ERROR_SUCCESS;
    }

    [[nodiscard]] DWORD Finish(uint8_t* hash)
    {
        const NTSTATUS status = ::BCryptFinishHash(m_Hash.get(), hash, kHashSize, 0);
        return status < 0 ? ::LsaNtStatusToWinError(status) : ERROR_SUCCESS;
    }

private:
    UniqueAlgorithm m_Algorithm; // outlives the hash made with it
    UniqueHash m_Hash;
};

[[nodiscard]] DWORD HashFile(const wchar_t* path, uint8_t* hash20)
{
    const KxCommon::QuietErrors quiet; // the path may name a drive without a disk
    const std::wstring longPath = KxCompanions::LongPath(path);
    // The path comes out of a rule: should it name a pipe, its server gets to know who we are but not to act as us.
    const KxCommon::UniqueFile file(::CreateFileW(
        longPath.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
        FILE_FLAG_SEQUENTIAL_SCAN | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
    if (!file)
        return ::GetLastError();
    // Reading a pipe or a console could wait for ever, reading a whole disk nearly so. A volume or a disk is of the
    // type of a file; what it has not is a file's information.
    BY_HANDLE_FILE_INFORMATION info;
    if (::GetFileType(file.get()) != FILE_TYPE_DISK || ::GetFileInformationByHandle(file.get(), &info) == FALSE)
        return ERROR_BAD_FILE_TYPE;

    Sha1 sha1;
    DWORD error = sha1.Start();
    const std::unique_ptr<uint8_t[]> piece = std::make_unique<uint8_t[]>(kPieceSize);
    DWORD got = 1;
    while (error == ERROR_SUCCESS && got != 0)
    {
        if (!::ReadFile(file.get(), piece.get(), kPieceSize, &got, nullptr))
            return ::GetLastError();
        error = sha1.Add(piece.get(), got);
    }

    uint8_t hash[kHashSize];
    if (error == ERROR_SUCCESS)
        error = sha1.Finish(hash);
    if (error == ERROR_SUCCESS)
        std::memcpy(hash20, hash, kHashSize);
    return error;
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
