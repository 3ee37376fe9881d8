// Shared by the fuzz targets: promises that must hold for every input, parsing of inputs, and a bound on memory.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

/// Throws if a promise is broken, which ends a fuzzer's run and saves the input.
#define KX_REQUIRE(condition) ((condition) ? static_cast<void>(0) : Fuzz::Fail(#condition, __FILE__, __LINE__))

namespace Fuzz
{

[[noreturn]] void Fail(const char* what, const char* file, int line);

/// While it exists, at most `most` bytes may be allocated at a time beyond those at its beginning. One at a time.
class MemoryBound
{
public:
    explicit MemoryBound(size_t most) noexcept;
    ~MemoryBound();
    MemoryBound(const MemoryBound&) = delete;
    MemoryBound& operator=(const MemoryBound&) = delete;
};

/// The bytes of an input, front to back. After its end everything is zero.
class Input
{
public:
    Input(const uint8_t* data, size_t size) noexcept : m_Data(data), m_Left(size) {}

    [[nodiscard]] size_t Left() const noexcept { return m_Left; }
    template <class Number>
    [[nodiscard]] Number Take() noexcept
    {
        Number number = 0;
        TakeInto(&number, sizeof number);
        return number;
    }
    [[nodiscard]] std::vector<uint8_t> TakeBytes(size_t size)
    {
        std::vector<uint8_t> bytes(size);
        TakeInto(bytes.data(), size);
        return bytes;
    }
    void TakeInto(void* out, size_t size) noexcept
    {
        const size_t part = std::min(size, m_Left);
        if (part == 0)
            return;
        std::memcpy(out, m_Data, part);
        m_Data += part;
        m_Left -= part;
    }

private:
    const uint8_t* m_Data;
    size_t m_Left;
};

} // namespace Fuzz
