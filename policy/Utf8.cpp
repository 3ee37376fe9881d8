// UTF-8 against UTF-16 and the active code page.
#include "policy/Utf8.h"

#include <algorithm>

namespace KxPolicy
{
namespace
{

constexpr uint32_t kReplacement = 0xFFFD;

bool IsAscii(std::string_view text) noexcept
{
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

uint32_t CodePoint(std::string_view character) noexcept
{
    static constexpr unsigned char kLeadBits[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
    uint32_t value = static_cast<unsigned char>(character[0]) & kLeadBits[character.size()];
    for (size_t i = 1; i < character.size(); ++i)
        value = value << 6 | (static_cast<unsigned char>(character[i]) & 0x3Fu);
    return value;
}

} // namespace

size_t Utf8CharacterBytes(std::string_view text) noexcept
{
    if (text.empty())
        return 0;
    const auto byte = [&text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80)
        return 1;
    const size_t size = lead >= 0xC2 && lead < 0xE0   ? 2
                        : (lead & 0xF0) == 0xE0       ? 3
                        : lead >= 0xF0 && lead < 0xF5 ? 4
                                                      : 0;
    if (size == 0 || text.size() < size)
        return 0;
    for (size_t i = 1; i < size; ++i)
    {
        if ((byte(i) & 0xC0) != 0x80)
            return 0;
    }
    const uint32_t codePoint = CodePoint(text.substr(0, size));
    const bool overlong = (size == 3 && codePoint < 0x800) || (size == 4 && codePoint < 0x10000);
    const bool surrogate = codePoint >= 0xD800 && codePoint < 0xE000;
    return overlong || surrogate || codePoint > 0x10FFFF ? 0 : size;
}

void AppendUtf8(std::string& out, uint32_t codePoint)
{
    if (codePoint < 0x80)
    {
        out += static_cast<char>(codePoint);
        return;
    }
    const int tail = codePoint < 0x800 ? 1 : codePoint < 0x10000 ? 2 : 3;
    static constexpr unsigned char kLead[] = {0, 0xC0, 0xE0, 0xF0};
    out += static_cast<char>(kLead[tail] | codePoint >> (6 * tail));
    for (int i = tail - 1; i >= 0; --i)
        out += static_cast<char>(0x80 | ((codePoint >> (6 * i)) & 0x3F));
}

std::string ToUtf8(KxCommon::WideStringView text)
{
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i)
    {
        const uint32_t unit = text[i];
        const uint32_t next = i + 1 < text.size() ? static_cast<uint32_t>(text[i + 1]) : 0;
        if (unit >= 0xD800 && unit < 0xDC00 && next >= 0xDC00 && next < 0xE000)
        {
            AppendUtf8(out, 0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00));
            ++i;
        }
        else
        {
            AppendUtf8(out, unit >= 0xD800 && unit < 0xE000 ? kReplacement : unit);
        }
    }
    return out;
}

KxCommon::WideString FromUtf8(std::string_view text)
{
    KxCommon::WideString out;
    out.reserve(text.size());
    while (!text.empty())
    {
        const size_t size = Utf8CharacterBytes(text);
        const uint32_t codePoint = size == 0 ? kReplacement : CodePoint(text.substr(0, size));
        text.remove_prefix(std::max<size_t>(size, 1));
        if (codePoint < 0x10000)
        {
            out += static_cast<KXWCHAR>(codePoint);
        }
        else
        {
            out += static_cast<KXWCHAR>(0xD800 + ((codePoint - 0x10000) >> 10));
            out += static_cast<KXWCHAR>(0xDC00 + ((codePoint - 0x10000) & 0x3FF));
        }
    }
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
    // The system's own substitutes survive the way there and back.
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
    // A character without a counterpart becomes a similar one or a question mark: only the way back tells.
    if (KxCommon::String::ToWide(narrow) != wide)
        return std::nullopt;
    return narrow;
}

} // namespace KxPolicy
