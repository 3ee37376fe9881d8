// nlohmann's parser builds the tree; its events do not include the places in the text, which are found here.
#include "policy/JsonTree.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace KxPolicy
{
namespace
{

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr size_t kMostBytes = size_t{1} << 30;
constexpr uint32_t kMostNodes = (1U << 29) - 1;
constexpr size_t kMostSmall = 1 << 16; // values that any text may have
constexpr size_t kLeastBytes = 7;      // per two values of a larger text; {"port":1}, has three values
static_assert(2 * kMostBytes / kLeastBytes < kMostNodes);
constexpr size_t kMostNesting = 64;

bool StartsWith(std::string_view text, std::string_view start) noexcept
{
    return text.substr(0, start.size()) == start;
}

} // namespace

/// Takes the parser's events. They come in the order of the text, so the next value begins after the blanks and
/// separators that follow the previous one.
class JsonTree::Builder
{
public:
    explicit Builder(JsonTree& tree) : m_Tree(tree), m_Text(tree.m_Text)
    {
        if (StartsWith(m_Text, kByteOrderMark))
            m_At = kByteOrderMark.size();
    }

    bool null() { return Add(Kind::Null, Begin() + 4); }
    bool boolean(bool value) { return value ? Add(Kind::True, Begin() + 4) : Add(Kind::False, Begin() + 5); }
    bool number_integer(int64_t) { return Number(); }
    bool number_unsigned(uint64_t) { return Number(); }
    bool number_float(double, const std::string&) { return Number(); }
    bool key(const std::string&) { return String(); }
    bool string(const std::string&) { return String(); }
    bool binary(const nlohmann::json::binary_t&) { return false; }
    bool start_object(size_t) { return Open(Kind::Object); }
    bool start_array(size_t) { return Open(Kind::Array); }
    bool end_object() { return Close(); }
    bool end_array() { return Close(); }

    bool parse_error(size_t position, const std::string& token, const nlohmann::json::exception& error)
    {
        std::string text = error.what();
        // Omits the place, which counts bytes, and what was read, which may be the whole text.
        const size_t place = text.find("column ");
        text.erase(0, place == std::string::npos ? text.find("] ") + 2 : text.find(": ", place) + 2);
        const std::string read = "; last read: '" + token + "'";
        if (const size_t at = text.find(read); at != std::string::npos)
            text.erase(at, read.size());
        const bool isInString =
            text.find("invalid string") != std::string::npos && text.find("missing closing quote") == std::string::npos;
        const bool isBracket = text.find("unexpected '") != std::string::npos;
        // Words that are not values are usually strings without quotes, or comments.
        if (text.find("invalid literal") != std::string::npos)
            text += "; texts stand between quotes, comments are not possible";
        return Fail(isInString || isBracket ? position - 1 : Begin(), std::move(text));
    }

    /// Checks what follows the last value: the parser takes a NUL as the end.
    void Finish()
    {
        if (!m_Tree.m_Error && m_Text.find_first_not_of(" \t\r\n", m_At) != std::string_view::npos)
            Fail(Begin(), "syntax error - expected the end of the text");
    }

    bool Fail(size_t offset, std::string text)
    {
        m_Tree.m_Error = {std::min(offset, m_Text.size()), std::move(text)};
        return false;
    }

private:
    [[nodiscard]] size_t Begin() const noexcept
    {
        return std::min(m_Text.find_first_not_of(" \t\r\n,:", m_At), m_Text.size());
    }
    bool Add(Kind kind, size_t end)
    {
        const size_t count = m_Tree.m_Nodes.size() + 1;
        if (count > kMostSmall && count > 2 * end / kLeastBytes)
            return Fail(Begin(), "the text has more values than a policy of its size");
        m_Tree.m_Nodes.push_back({static_cast<uint32_t>(Begin()), static_cast<uint32_t>(count) & kMostNodes,
                                  static_cast<uint32_t>(kind) & 7});
        m_At = end;
        return true;
    }
    bool Number() { return Add(Kind::Number, m_Tree.EndOfNumber(Begin())); }
    bool String() { return Add(Kind::String, m_Tree.EndOfString(Begin())); }
    bool Open(Kind kind)
    {
        const size_t begin = Begin();
        if (m_Open.size() >= kMostNesting)
            return Fail(begin, "nested too deep");
        m_Open.push_back(m_Tree.m_Nodes.size());
        return Add(kind, begin + 1);
    }
    bool Close()
    {
        m_At = Begin() + 1;
        m_Tree.m_Nodes[m_Open.back()].Next = static_cast<uint32_t>(m_Tree.m_Nodes.size()) & kMostNodes;
        m_Open.pop_back();
        return true;
    }

    JsonTree& m_Tree;
    const std::string_view m_Text;
    size_t m_At = 0;
    std::vector<size_t> m_Open; // nodes whose closing bracket is still to come
};

JsonTree::JsonTree(std::string_view text) : m_Text(text)
{
    Builder builder(*this);
    if (text.size() >= kMostBytes)
        builder.Fail(0, "the text is 1 GB or larger");
    else if (StartsWith(text, std::string_view("\xFF\xFE\0\0", 4)) ||
             StartsWith(text, std::string_view("\0\0\xFE\xFF", 4)))
        builder.Fail(0, "the text is UTF-32; save it as UTF-8");
    else if (StartsWith(text, "\xFF\xFE") || StartsWith(text, "\xFE\xFF"))
        builder.Fail(0, "the text is UTF-16; save it as UTF-8");
    else if (nlohmann::json::sax_parse(text.begin(), text.end(), &builder))
        builder.Finish();
}

JsonValue JsonTree::Root() const noexcept
{
    return JsonValue(*this, 0);
}

size_t JsonTree::EndOfNumber(size_t begin) const noexcept
{
    constexpr std::string_view kParts = "0123456789.eE";
    size_t end = begin + 1;
    while (end < m_Text.size() &&
           (kParts.find(m_Text[end]) != std::string_view::npos ||
            (std::string_view("+-").find(m_Text[end]) != std::string_view::npos && (m_Text[end - 1] | 0x20) == 'e')))
        ++end;
    return end;
}

size_t JsonTree::EndOfString(size_t begin) const noexcept
{
    size_t end = m_Text.find_first_of("\"\\", begin + 1);
    while (m_Text[end] == '\\')
        end = m_Text.find_first_of("\"\\", end + 2);
    return end + 1;
}

std::string_view JsonValue::Raw() const noexcept
{
    const size_t begin = Offset();
    const auto to = [&](size_t end) { return m_Tree->m_Text.substr(begin, end - begin); };
    switch (Kind())
    {
    case JsonTree::Kind::Null:
    case JsonTree::Kind::True:
        return to(begin + 4);
    case JsonTree::Kind::False:
        return to(begin + 5);
    case JsonTree::Kind::Number:
        return to(m_Tree->EndOfNumber(begin));
    case JsonTree::Kind::String:
        return to(m_Tree->EndOfString(begin));
    default:
        return to(begin + 1);
    }
}

std::string JsonValue::Text() const
{
    const std::string_view raw = Raw();
    if (raw.find('\\') == std::string_view::npos)
        return std::string(raw.substr(1, raw.size() - 2));
    return nlohmann::json::parse(raw).get<std::string>();
}

Locator::Locator(std::string_view text) noexcept : m_Text(text)
{
    if (StartsWith(text, kByteOrderMark))
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

} // namespace KxPolicy
