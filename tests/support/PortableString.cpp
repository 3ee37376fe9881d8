// The code page of the core's tests: ASCII, and above it two bytes per character as in the code pages of East Asia.
// Invalid bytes become a character of two bytes on the way to UTF-16, and 255 one that becomes a question mark on the
// way back.
#include <algorithm>
#include <cstring>

#include "common/srclib/KxComn_String.h"

namespace
{

constexpr KXWCHAR kSubstitute = 0x8145;
constexpr KXWCHAR kWithoutReturn = 0xF8F3;

bool IsLead(unsigned byte) noexcept
{
    return byte >= 0x80 && byte < 0xA0;
}

bool IsTrail(unsigned byte) noexcept
{
    return byte >= 0x40;
}

char16_t Lower(KXWCHAR unit)
{
    return static_cast<char16_t>(unit >= 'A' && unit <= 'Z' ? unit + ('a' - 'A') : unit);
}

} // namespace

namespace KxCommon::String
{

WideString ToWide(std::string_view text)
{
    WideString wide;
    for (size_t i = 0; i < text.size(); ++i)
    {
        const unsigned byte = static_cast<unsigned char>(text[i]);
        const unsigned next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
        const bool isPair = IsLead(byte) && IsTrail(next);
        wide += byte < 0x80    ? static_cast<KXWCHAR>(byte)
                : isPair       ? static_cast<KXWCHAR>(byte << 8 | next)
                : byte == 0xFF ? kWithoutReturn
                               : kSubstitute;
        i += isPair ? 1 : 0;
    }
    return wide;
}

std::string ToNarrow(WideStringView text)
{
    std::string narrow;
    for (const unsigned unit : text)
    {
        if (IsLead(unit >> 8) && IsTrail(unit & 0xFF))
            narrow += {static_cast<char>(unit >> 8), static_cast<char>(unit & 0xFF)};
        else
            narrow += unit < 0x80 ? static_cast<char>(unit) : '?';
    }
    return narrow;
}

int CompareNoCase(WideStringView a, WideStringView b) noexcept
{
    const auto isLess = [](KXWCHAR x, KXWCHAR y) { return Lower(x) < Lower(y); };
    const bool isBefore = std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), isLess);
    return isBefore ? -1 : std::lexicographical_compare(b.begin(), b.end(), a.begin(), a.end(), isLess) ? 1 : 0;
}

void CopyBounded(char* out, int size, std::string_view text) noexcept
{
    if (out == nullptr || size < 1)
        return;
    const size_t room = static_cast<size_t>(size);
    const size_t length = std::min(room, text.size());
    std::memcpy(out, text.data(), length);
    std::memset(out + length, 0, room - length);
}

} // namespace KxCommon::String
