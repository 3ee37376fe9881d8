// The encrypted stream over bytes in memory, and the ways in which a file can fail.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "persistence/EncryptStream.h"

/// Writing appends to Data; reading starts at its beginning. Rewind switches from writing to reading.
class MemoryStream final : public CEncryptStream
{
public:
    static constexpr size_t kNever = std::numeric_limits<size_t>::max();

    MemoryStream() = default;
    explicit MemoryStream(std::vector<uint8_t> data) : Data(std::move(data)) {}

    std::vector<uint8_t> Data;
    size_t FailAt = kNever;     // the system refuses to pass this byte, reading or writing
    size_t EndAt = kNever;      // reading ends here although more was announced
    size_t MostAtOnce = kNever; // bytes that one call gives at most
    std::vector<size_t> Calls;  // sizes asked of ReadBytes or given to WriteBytes

    void Rewind()
    {
        ResetBuffer();
        m_Position = 0;
        Calls.clear();
    }

protected:
    bool ReadBytes(void* out, uint32_t size, uint32_t* got) override
    {
        Calls.push_back(size);
        const size_t end = std::min(Data.size(), EndAt);
        const size_t part = std::min({size_t{size}, MostAtOnce, end - std::min(m_Position, end)});
        if (m_Position + part > FailAt || m_Position >= FailAt) // the whole call is refused, as the system does
            return false;
        std::copy_n(Data.begin() + static_cast<ptrdiff_t>(m_Position), part, static_cast<uint8_t*>(out));
        m_Position += part;
        *got = static_cast<uint32_t>(part);
        return true;
    }

    bool WriteBytes(const void* in, uint32_t size) override
    {
        Calls.push_back(size);
        const uint8_t* const bytes = static_cast<const uint8_t*>(in);
        const size_t part = std::min<size_t>(size, FailAt - std::min(FailAt, Data.size()));
        Data.insert(Data.end(), bytes, bytes + part);
        return part == size;
    }

    uint64_t RemainingBytes() override { return Data.size() - m_Position; }

private:
    size_t m_Position = 0;
};
