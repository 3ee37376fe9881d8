// The encrypted stream on a Win32 file.
#include "persistence/EncryptFile.h"

#include <algorithm>

#include "common/srclib/KxComn_Files.h"

namespace Files = KxCommon::Files;

namespace
{

constexpr DWORD kRetryStep = 20; // milliseconds
constexpr ULONGLONG kRetryTime = 1000;

KxCommon::UniqueFile OpenForReading(const char* path) noexcept
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
            ::SetLastError(error);
            return file;
        }
        ::Sleep(kRetryStep);
    }
}

} // namespace

CEncryptFile::CEncryptFile()
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
        return false;
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
