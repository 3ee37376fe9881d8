// The code page of the core's tests: ASCII.
#include <algorithm>
#include <cstring>

#include "common/srclib/KxComn_String.h"

namespace
{

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
    for (const char byte : text)
        wide += static_cast<KXWCHAR>(static_cast<unsigned char>(byte) < 128 ? byte : '?');
    return wide;
}

std::string ToNarrow(WideStringView text)
{
    std::string narrow;
    for (const KXWCHAR unit : text)
        narrow += static_cast<char>(unit < 128 ? unit : '?');
    return narrow;
}

bool EqualNoCase(WideStringView a, WideStringView b) noexcept
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](KXWCHAR x, KXWCHAR y) { return Lower(x) == Lower(y); });
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
