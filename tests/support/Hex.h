// Bytes for tests: as other tools print them, and simply many.
#pragma once

#include <cctype>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

using Bytes = std::vector<uint8_t>;

/// Pairs of hexadecimal digits, with blanks between pairs or not.
inline Bytes FromHex(std::string_view text)
{
    Bytes bytes;
    for (size_t i = 0; i + 1 < text.size(); ++i)
    {
        if (std::isxdigit(static_cast<unsigned char>(text[i])) != 0)
            bytes.push_back(static_cast<uint8_t>(std::stoul(std::string(text.substr(i++, 2)), nullptr, 16)));
    }
    return bytes;
}

/// 1, 8, 15, ...: repeats only after 256 bytes.
inline Bytes Ramp(size_t size)
{
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<uint8_t>(i * 7 + 1);
    return bytes;
}
