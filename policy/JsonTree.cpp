// Values of a JSON tree, places in its text, and JSON strings.
#include "policy/JsonTree.h"

#include <algorithm>

#include "policy/JsonEscape.h"
#include "policy/Utf8.h"

namespace KxPolicy
{

JsonValue JsonTree::Root() const noexcept
{
    return JsonValue(*this, 0);
}

std::string JsonValue::Text() const
{
    const std::string_view raw = Raw().substr(1, Raw().size() - 2);
    std::string out;
    out.reserve(raw.size());
    for (size_t i = 0; i < raw.size(); ++i)
    {
        if (raw[i] != '\\')
        {
            out += raw[i];
            continue;
        }
        static constexpr std::string_view kLetters = "bfnrt";
        static constexpr std::string_view kMeanings = "\b\f\n\r\t";
        const char letter = raw[++i];
        if (letter != 'u')
        {
            const size_t known = kLetters.find(letter);
            out += known == std::string_view::npos ? letter : kMeanings[known];
            continue;
        }
        uint32_t codePoint = static_cast<uint32_t>(HexDigits(raw.substr(i + 1, 4)));
        i += 4;
        if (IsHighSurrogate(static_cast<int>(codePoint)))
        {
            const uint32_t low = static_cast<uint32_t>(HexDigits(raw.substr(i + 3, 4)));
            codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (low - 0xDC00);
            i += 6;
        }
        AppendUtf8(out, codePoint);
    }
    return out;
}

Locator::Locator(std::string_view text) noexcept : m_Text(text)
{
    if (text.substr(0, kByteOrderMark.size()) == kByteOrderMark)
        m_Start = kByteOrderMark.size();
    m_Offset = m_Start;
}

Place Locator::Find(size_t offset) noexcept
{
    if (offset < m_Offset)
    {
        m_Offset = m_Start;
        m_Place = {};
    }
    for (; m_Offset < offset && m_Offset < m_Text.size(); ++m_Offset)
    {
        const unsigned char c = static_cast<unsigned char>(m_Text[m_Offset]);
        if (c == '\n')
        {
            ++m_Place.Line;
            m_Place.Column = 1;
        }
        else if ((c & 0xC0) != 0x80)
        {
            ++m_Place.Column;
        }
    }
    return m_Place;
}

void AppendJsonString(std::string& out, std::string_view text)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    out += '"';
    while (!text.empty())
    {
        const unsigned char c = static_cast<unsigned char>(text.front());
        const size_t size = Utf8CharacterBytes(text);
        if (c == '"' || c == '\\')
        {
            out += '\\';
            out += static_cast<char>(c);
        }
        else if (c == '\n' || c == '\t' || c == '\r')
        {
            out += c == '\n' ? "\\n" : c == '\t' ? "\\t" : "\\r";
        }
        else if (c < 0x20 || c == 0x7F)
        {
            out += "\\u00";
            out += kDigits[c >> 4];
            out += kDigits[c & 15];
        }
        else if (size == 0)
        {
            AppendUtf8(out, 0xFFFD);
        }
        else
        {
            out += text.substr(0, size);
        }
        text.remove_prefix(std::max<size_t>(size, 1));
    }
    out += '"';
}

} // namespace KxPolicy
