// The encrypted stream on a Win32 file.
#include "persistence/EncryptFile.h"

#include <algorithm>
#include <new>

#include "common/srclib/KxComn_Files.h"

namespace Files = KxCommon::Files;

namespace
{

constexpr DWORD kRetryStep = 20; // milliseconds
constexpr ULONGLONG kRetryTime = 1000;

// Lack of the machine's resources must not look like a missing or broken file.
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

KxCommon::UniqueFile OpenForReading(const char* path)
{
    const ULONGLONG start = ::GetTickCount64();
    for (;;)
    {
        KxCommon::UniqueFile file = Files::Open(path, GENERIC_READ, OPEN_EXISTING);
        if (file)
            return file;
        const DWORD error = ::GetLastError();
        const bool mayPass = error == ERROR_SHARING_VIOLATION || error == ERROR_LOCK_VIOLATION;
        if (!mayPass || ::GetTickCount64() - start >= kRetryTime)
        {
            ThrowIfExhausted(error);
            ::SetLastError(error);
            return file;
        }
        ::Sleep(kRetryStep);
    }
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

bool CEncryptFile::Open(const char* path, DWORD access)
{
    if (m_File)
        return false;
    const bool reading = access == GENERIC_READ;
    m_File = reading ? OpenForReading(path) : Files::Open(path, access, CREATE_ALWAYS);
    if (!m_File)
        return false;
    m_Remaining = 0;
    if (reading && !Files::Size(m_File.get(), &m_Remaining))
    {
        const DWORD error = ::GetLastError();
        m_File.reset();
        ThrowIfExhausted(error);
        ::SetLastError(error);
        return false;
    }
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
