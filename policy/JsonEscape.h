// What the JSON reader and the decoding of its texts share.
#pragma once

#include <string_view>

namespace KxPolicy
{

inline constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

inline bool IsDigit(char c) noexcept
{
    return c >= '0' && c <= '9';
}

/// The value of exactly four hexadecimal digits, or -1.
inline int HexDigits(std::string_view four) noexcept
{
    if (four.size() != 4)
        return -1;
    int value = 0;
    for (const char c : four)
    {
        const int digit = IsDigit(c)             ? c - '0'
                          : c >= 'a' && c <= 'f' ? c - 'a' + 10
                          : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                 : -1;
        if (digit < 0)
            return -1;
        value = value * 16 + digit;
    }
    return value;
}

inline bool IsHighSurrogate(int unit) noexcept
{
    return unit >= 0xD800 && unit < 0xDC00;
}

inline bool IsLowSurrogate(int unit) noexcept
{
    return unit >= 0xDC00 && unit < 0xE000;
}

} // namespace KxPolicy
