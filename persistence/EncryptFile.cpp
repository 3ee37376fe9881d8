// The encrypted stream on a Win32 file.
#include "persistence/EncryptFile.h"

#include <algorithm>
#include <new>
#include <utility>

#include "persistence/Files.h"

namespace
{

// Lack of system resources must not look like a missing or damaged file.
void ThrowIfExhausted(DWORD error)
{
    switch (error)
    {
    case ERROR_TOO_MANY_OPEN_FILES:
    case ERROR_NOT_ENOUGH_MEMORY:
    case ERROR_OUTOFMEMORY:
    case ERROR_NO_SYSTEM_RESOURCES:
    case ERROR_COMMITMENT_LIMIT:
    case ERROR_NOT_ENOUGH_QUOTA:
    case ERROR_NONPAGED_SYSTEM_RESOURCES:
    case ERROR_PAGED_SYSTEM_RESOURCES:
    case ERROR_WORKING_SET_QUOTA:
    case ERROR_PAGEFILE_QUOTA:
        throw std::bad_alloc();
    default:
        break;
    }
}

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// Without sharing; if another program has the file open, so that it can go on and no writer is admitted. (Existing
// handles must allow ours in turn, which excludes writers but not readers.)
KxCommon::UniqueFile OpenPatiently(const char* path, DWORD access, DWORD disposition, DWORD patience)
{
    KxCommon::UniqueFile file;
    const auto attempt = [&]
    {
        file = Files::Open(path, access, disposition);
        if (!file && Files::IsBusy(::GetLastError()))
            file = Files::Open(path, access, disposition, FILE_SHARE_READ | FILE_SHARE_DELETE);
        return static_cast<bool>(file);
    };
    Files::Persist(patience, attempt, Files::IsBusy);
    return file;
}

} // namespace

CEncryptFile::CEncryptFile(CStreamBuffer* lent) : CEncryptStream(lent)
{
    ResetBuffer(false);
}

CEncryptFile::~CEncryptFile()
{
    Close();
}

bool CEncryptFile::Open(const char* path, DWORD access, DWORD patience)
{
    if (m_File)
        return false;
    const bool isReading = access == GENERIC_READ;
    return Take(OpenPatiently(path, access, isReading ? OPEN_EXISTING : CREATE_ALWAYS, patience), isReading);
}

bool CEncryptFile::OpenToLook(const char* path)
{
    if (m_File)
        return false;
    KxCommon::UniqueFile file;
    const auto attempt = [&]
    {
        file = Files::Open(path, GENERIC_READ, OPEN_EXISTING, kShareAll);
        return static_cast<bool>(file);
    };
    Files::Persist(kPatience, attempt, Files::IsBusy);
    return Take(std::move(file), true);
}

bool CEncryptFile::Take(KxCommon::UniqueFile file, bool isReading)
{
    m_File = std::move(file);
    m_Size = 0;
    if (!m_File || (isReading && !Files::Size(m_File.get(), &m_Size)))
    {
        const DWORD error = ::GetLastError();
        m_File.reset();
        if (isReading)
            ThrowIfExhausted(error);
        ::SetLastError(error);
        return false;
    }
    m_Remaining = m_Size;
    ResetBuffer();
    return true;
}

bool CEncryptFile::Close()
{
    ResetBuffer(false);
    return m_File && Files::Close(m_File);
}

bool CEncryptFile::FinishAndFlush()
{
    return Finish() && Files::Flush(m_File.get());
}

bool CEncryptFile::ReadBytes(void* out, uint32_t size, uint32_t* got)
{
    if (!Files::Read(m_File.get(), out, size, got))
    {
        ThrowIfExhausted(::GetLastError());
        return false;
    }
    m_Remaining -= std::min<uint64_t>(m_Remaining, *got);
    return true;
}

bool CEncryptFile::WriteBytes(const void* in, uint32_t size)
{
    return Files::Write(m_File.get(), in, size);
}

uint64_t CEncryptFile::RemainingBytes()
{
    return m_Remaining;
}
