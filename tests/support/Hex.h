// Expected bytes as they are printed by other tools.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

using Bytes = std::vector<uint8_t>;

/// Pairs of hexadecimal digits; everything else between them is skipped.
inline Bytes FromHex(std::string_view text)
{
    const auto digit = [](char c)
    {
        return c >= '0' && c <= '9'   ? c - '0'
               : c >= 'a' && c <= 'f' ? c - 'a' + 10
               : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                      : -1;
    };
    Bytes bytes;
    for (size_t i = 0; i + 1 < text.size(); ++i)
    {
        if (digit(text[i]) < 0)
            continue;
        bytes.push_back(static_cast<uint8_t>(digit(text[i]) << 4 | digit(text[i + 1])));
        ++i;
    }
    return bytes;
}

/// A checksum for what is too long to be written out (FNV-1a, 64 bits).
inline uint64_t Checksum(const Bytes& bytes)
{
    uint64_t sum = 0xcbf29ce484222325;
    for (const uint8_t byte : bytes)
        sum = (sum ^ byte) * 0x100000001b3;
    return sum;
}

/// size bytes that repeat only after 256: 1, 8, 15, ...
inline Bytes Ramp(size_t size)
{
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<uint8_t>(i * 7 + 1);
    return bytes;
}
