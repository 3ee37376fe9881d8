// Texts to and from the fields of records.
#include "policy/RecordText.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "common/srclib/KxComn_Record.h"
#include "policy/Utf8.h"

namespace KxPolicy
{

bool IsZero(const void* from, size_t size) noexcept
{
    const unsigned char* const bytes = static_cast<const unsigned char*>(from);
    return std::all_of(bytes, bytes + size, [](unsigned char byte) { return byte == 0; });
}

std::string HexText(const void* from, size_t size)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    const unsigned char* const bytes = static_cast<const unsigned char*>(from);
    std::string text;
    text.reserve(2 * size);
    for (size_t i = 0; i < size; ++i)
        text.append({kDigits[bytes[i] >> 4], kDigits[bytes[i] & 15]});
    return text;
}

bool ParseHex(std::string_view text, std::string& bytes)
{
    const auto digit = [](char c)
    {
        const char lower = static_cast<char>(c >= 'A' && c <= 'F' ? c + 32 : c);
        return lower >= '0' && lower <= '9' ? lower - '0' : lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
    };
    bytes.clear();
    for (size_t i = 0; i < text.size(); ++i)
    {
        if (text[i] == ' ')
            continue;
        const int high = digit(text[i]);
        const int low = ++i < text.size() ? digit(text[i]) : -1;
        if (high < 0 || low < 0)
            return false;
        bytes += static_cast<char>(high * 16 + low);
    }
    return true;
}

bool PutNarrow(void* field, size_t room, std::string_view text, std::string& why)
{
    const std::optional<std::string> narrow = Utf8ToNarrow(text);
    why.clear();
    if (!narrow)
        why = "a character has no counterpart in the active code page";
    else if (narrow->find('\0') != std::string::npos)
        why = "the text must not contain a NUL";
    else if (narrow->size() >= room)
        why = "at most " + std::to_string(room - 1) + " bytes fit, the text has " + std::to_string(narrow->size());
    if (!why.empty())
        return false;
    std::memset(field, 0, room);
    std::memcpy(field, narrow->data(), narrow->size());
    return true;
}

bool PutWide(void* field, size_t room, std::string_view text, std::string& why)
{
    const KxCommon::WideString wide = FromUtf8(text);
    why.clear();
    if (wide.find(KXWCHAR{}) != KxCommon::WideString::npos)
        why = "the text must not contain a NUL";
    else if (wide.size() >= room)
        why = "at most " + std::to_string(room - 1) + " UTF-16 units fit, the text has " + std::to_string(wide.size());
    if (!why.empty())
        return false;
    std::memset(field, 0, room * sizeof(KXWCHAR));
    std::memcpy(field, wide.data(), wide.size() * sizeof(KXWCHAR));
    return true;
}

std::string NarrowFieldText(const void* field, size_t room)
{
    std::string text = NarrowToReturnableUtf8(KxCommon::Record::Text(field, room - 1));
    // A double-byte code page may substitute two bytes for an invalid one, and the end of the field may cut a character
    // in half: what no longer fits is left to "raw".
    std::optional<std::string> narrow = Utf8ToNarrow(text);
    while (!text.empty() && (!narrow || narrow->size() >= room))
    {
        size_t last = text.size() - 1;
        while (last > 0 && (static_cast<unsigned char>(text[last]) & 0xC0) == 0x80)
            --last;
        text.resize(last);
        narrow = Utf8ToNarrow(text);
    }
    return text;
}

std::string WideFieldText(const void* field, size_t room)
{
    return ToUtf8(KxCommon::Record::WideText(field, room - 1));
}

} // namespace KxPolicy
