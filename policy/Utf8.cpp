// Conversions between UTF-8, UTF-16 and the active code page.
#include "policy/Utf8.h"

#include <algorithm>
#include <iterator>

#include <utf8.h>

namespace KxPolicy
{
namespace
{

constexpr uint32_t kReplacement = 0xFFFD;

bool IsAscii(std::string_view text) noexcept
{
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

constexpr bool IsLeadSurrogate(uint32_t unit) noexcept
{
    return unit >= 0xD800 && unit < 0xDC00;
}

constexpr bool IsTrailSurrogate(uint32_t unit) noexcept
{
    return unit >= 0xDC00 && unit < 0xE000;
}

} // namespace

std::string ToUtf8(KxCommon::WideStringView text)
{
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i)
    {
        uint32_t codePoint = text[i];
        const uint32_t next = i + 1 < text.size() ? static_cast<uint32_t>(text[i + 1]) : 0;
        if (IsLeadSurrogate(codePoint) && IsTrailSurrogate(next))
        {
            codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (next - 0xDC00);
            ++i;
        }
        else if (IsLeadSurrogate(codePoint) || IsTrailSurrogate(codePoint))
        {
            codePoint = kReplacement;
        }
        utf8::append(codePoint, std::back_inserter(out));
    }
    return out;
}

KxCommon::WideString FromUtf8(std::string_view text)
{
    std::string valid; // (without an explicit character, the default would be a guarded static)
    utf8::replace_invalid(text.begin(), text.end(), std::back_inserter(valid), kReplacement);
    KxCommon::WideString out;
    out.reserve(valid.size());
    utf8::utf8to16(valid.begin(), valid.end(), std::back_inserter(out));
    return out;
}

std::string NarrowToUtf8(std::string_view narrow)
{
    return IsAscii(narrow) ? std::string(narrow) : ToUtf8(KxCommon::String::ToWide(narrow));
}

std::string NarrowToReturnableUtf8(std::string_view narrow)
{
    std::string text = NarrowToUtf8(narrow);
    if (IsAscii(text) || Utf8ToNarrow(text))
        return text;
    // The system's own substitutes survive the round trip.
    text = NarrowToUtf8(KxCommon::String::ToNarrow(FromUtf8(text)));
    if (!Utf8ToNarrow(text))
        text.clear();
    return text;
}

std::optional<std::string> Utf8ToNarrow(std::string_view text)
{
    if (IsAscii(text))
        return std::string(text);
    const KxCommon::WideString wide = FromUtf8(text);
    std::string narrow = KxCommon::String::ToNarrow(wide);
    // A character without a counterpart becomes a similar one or a question mark, which only converting back reveals.
    if (KxCommon::String::ToWide(narrow) != wide)
        return std::nullopt;
    return narrow;
}

} // namespace KxPolicy
