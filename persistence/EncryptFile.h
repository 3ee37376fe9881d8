// CEncryptFile: the encrypted stream on a Win32 file.
#pragma once

#include "common/srclib/KxComn_Handle.h"
#include "persistence/EncryptStream.h"

/// Opened without sharing if possible. The destructor closes the file. Traces nothing: its users do.
class CEncryptFile final : public CEncryptStream
{
public:
    explicit CEncryptFile(CStreamBuffer* lent = nullptr);
    ~CEncryptFile() override;

    static constexpr DWORD kPatience = 1000; // milliseconds

    /// False when a file is open already, or the system refuses; GetLastError tells why. GENERIC_READ opens an existing
    /// file, any other access creates or truncates. Where others have the file open, it is opened beside them as long as
    /// no one else may write; where that is refused too, patience milliseconds are waited for it to pass: a virus
    /// scanner's open file must not look like a broken rule set. Reading, here and later, throws std::bad_alloc when the
    /// system says that it lacks memory or handles: that is no damage either.
    [[nodiscard]] bool Open(const char* path, DWORD access, DWORD patience = kPatience);
    /// Opens an existing file to look at it beside everybody, those who write it too, so that no one's next write fails
    /// for it: what is read may be half old and half new. Results as of Open.
    [[nodiscard]] bool OpenToLook(const char* path);
    /// False when no file is open or CloseHandle fails; no file is open afterwards. Bytes not yet handed over by
    /// Finish are dropped.
    bool Close();
    /// Finish, then FlushFileBuffers: on the disk, not only with the system.
    [[nodiscard]] bool FinishAndFlush();
    [[nodiscard]] bool IsOpen() const noexcept { return static_cast<bool>(m_File); }
    /// Of a file opened to be read, in bytes.
    [[nodiscard]] uint64_t Size() const noexcept { return m_Size; }

protected:
    bool ReadBytes(void* out, uint32_t size, uint32_t* got) override;
    bool WriteBytes(const void* in, uint32_t size) override;
    uint64_t RemainingBytes() override;

private:
    bool Take(KxCommon::UniqueFile file, bool isReading);

    KxCommon::UniqueFile m_File;
    uint64_t m_Size = 0;      // while reading; asked once, at Open
    uint64_t m_Remaining = 0; // of it
};
