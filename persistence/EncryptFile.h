// CEncryptFile: the encrypted stream on a Win32 file.
#pragma once

#include "common/srclib/KxComn_Handle.h"
#include "persistence/EncryptStream.h"

/// Opened without sharing if possible. The destructor closes the file. Does not trace; its users do.
class CEncryptFile final : public CEncryptStream
{
public:
    explicit CEncryptFile(CStreamBuffer* lent = nullptr);
    ~CEncryptFile() override;

    static constexpr DWORD kPatience = 1000; // milliseconds

    /// False if a file is open already, or if the system refuses; GetLastError has the reason. GENERIC_READ opens an
    /// existing file, any other access creates or truncates. If others have the file open, it is opened in a way that
    /// lets them go on but admits no writer; if that is refused too, up to patience milliseconds are spent trying
    /// again, since a file that a virus scanner has open must not look like a damaged rule set. Reading, here and
    /// later, throws std::bad_alloc if the system lacks memory or handles, which is not damage either.
    [[nodiscard]] bool Open(const char* path, DWORD access, DWORD patience = kPatience);
    /// Opens an existing file to look at it and excludes nobody, not even writers, so that no write fails because of
    /// it: what is read may be half old and half new. Results as for Open.
    [[nodiscard]] bool OpenToLook(const char* path);
    /// False if no file is open or CloseHandle fails; no file is open afterwards. Bytes that Finish has not handed over
    /// are dropped.
    bool Close();
    /// Finish, then FlushFileBuffers: the bytes are on the disk, not only in the system's cache.
    [[nodiscard]] bool FinishAndFlush();
    [[nodiscard]] bool IsOpen() const noexcept { return static_cast<bool>(m_File); }
    /// Of a file opened for reading, in bytes.
    [[nodiscard]] uint64_t Size() const noexcept { return m_Size; }

protected:
    bool ReadBytes(void* out, uint32_t size, uint32_t* got) override;
    bool WriteBytes(const void* in, uint32_t size) override;
    uint64_t RemainingBytes() override;

private:
    bool Take(KxCommon::UniqueFile file, bool isReading);

    KxCommon::UniqueFile m_File;
    uint64_t m_Size = 0;      // while reading; determined once, by Open
    uint64_t m_Remaining = 0; // of it
};
