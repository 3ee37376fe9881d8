// The encrypted stream on a file that others may go on using.
#pragma once

#include <filesystem>

#include "common/srclib/KxComn_Handle.h"
#include "persistence/EncryptStream.h"

namespace Tool
{

/// Read-only and with every share mode: a look at a file must not make the product's next write fail.
class FileStream final : public CEncryptStream
{
public:
    /// IsOpen tells whether it worked, Error why not.
    explicit FileStream(const std::filesystem::path& path);

    [[nodiscard]] bool IsOpen() const noexcept { return static_cast<bool>(m_File); }
    [[nodiscard]] DWORD Error() const noexcept { return m_Error; }
    [[nodiscard]] uint64_t Size() const noexcept { return m_Size; }

protected:
    bool ReadBytes(void* out, uint32_t size, uint32_t* got) override;
    bool WriteBytes(const void* in, uint32_t size) override;
    uint64_t RemainingBytes() override { return m_Remaining; }

private:
    KxCommon::UniqueFile m_File;
    uint64_t m_Size = 0;
    uint64_t m_Remaining = 0;
    DWORD m_Error = 0;
};

} // namespace Tool
