// The encrypted stream on a file that others may go on using.
#include "tools/kxrule/commands/FileStream.h"

#include <algorithm>

namespace Tool
{

FileStream::FileStream(const std::filesystem::path& path)
{
    constexpr int kAttempts = 20;
    constexpr DWORD kPause = 50; // milliseconds; the library waits about a second for a busy file, too
    for (int attempt = 0; attempt < kAttempts && !m_File; ++attempt)
    {
        if (attempt > 0)
            ::Sleep(kPause);
        m_File = KxCommon::UniqueFile(::CreateFileW(path.c_str(), GENERIC_READ,
                                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!m_File && ::GetLastError() != ERROR_SHARING_VIOLATION && ::GetLastError() != ERROR_LOCK_VIOLATION)
            break;
    }
    LARGE_INTEGER size{};
    if (!m_File || ::GetFileSizeEx(m_File.get(), &size) == FALSE)
    {
        m_Error = ::GetLastError();
        m_File.reset();
        return;
    }
    m_Size = m_Remaining = static_cast<uint64_t>(size.QuadPart);
}

bool FileStream::ReadBytes(void* out, uint32_t size, uint32_t* got)
{
    DWORD read = 0;
    if (::ReadFile(m_File.get(), out, size, &read, nullptr) == FALSE)
        return false;
    m_Remaining -= std::min<uint64_t>(m_Remaining, read);
    *got = read;
    return true;
}

bool FileStream::WriteBytes(const void*, uint32_t)
{
    return false;
}

} // namespace Tool
