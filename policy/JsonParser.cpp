// The JSON reader: a recursive descent that complains and goes on.
#include <algorithm>

#include "policy/JsonEscape.h"
#include "policy/JsonTree.h"
#include "policy/Utf8.h"

namespace KxPolicy
{
namespace
{

constexpr size_t kMostBytes = size_t{2} << 30;
constexpr int kMostNesting = 64;
constexpr size_t kMostComplaints = 1000; // behind that many the text is no JSON at all

bool IsWordCharacter(char c) noexcept
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '.' ||
           c == '+' || c == '-';
}

/// The grammar of numbers.
bool IsNumber(std::string_view text) noexcept
{
    const auto digits = [&text]
    {
        const size_t before = text.size();
        while (!text.empty() && IsDigit(text.front()))
            text.remove_prefix(1);
        return text.size() < before;
    };
    const auto accept = [&text](std::string_view characters)
    {
        if (text.empty() || characters.find(text.front()) == std::string_view::npos)
            return false;
        text.remove_prefix(1);
        return true;
    };
    accept("-");
    if (!accept("0") && !digits())
        return false;
    if (accept(".") && !digits())
        return false;
    if (accept("eE"))
    {
        accept("+-");
        if (!digits())
            return false;
    }
    return text.empty();
}

} // namespace

class JsonParser
{
public:
    explicit JsonParser(JsonTree& tree) : m_Tree(tree), m_Text(tree.m_Text) {}

    void Parse()
    {
        if (m_Text.size() >= kMostBytes)
        {
            Complain(0, "the text is 2 GB or larger");
            Close(Open(JsonTree::Kind::Broken), JsonTree::Kind::Broken);
            return;
        }
        if (m_Text.substr(0, 2) == "\xFF\xFE" || m_Text.substr(0, 2) == "\xFE\xFF")
        {
            Complain(0, "the file is UTF-16; save it as UTF-8");
            GiveUp();
        }
        if (m_Text.substr(0, kByteOrderMark.size()) == kByteOrderMark)
            m_Position = kByteOrderMark.size();
        Value(0);
        SkipBlanks();
        if (!AtEnd() && !m_GivenUp)
            Complain(m_Position, "expected the end of the file behind the last bracket");
    }

private:
    [[nodiscard]] bool AtEnd() const noexcept { return m_Position >= m_Text.size(); }
    [[nodiscard]] char Peek() const noexcept { return AtEnd() ? '\0' : m_Text[m_Position]; }

    void Complain(size_t offset, std::string text)
    {
        if (m_GivenUp)
            return;
        m_Tree.m_Complaints.push_back({offset, std::move(text)});
        if (m_Tree.m_Complaints.size() >= kMostComplaints)
        {
            m_Tree.m_Complaints.push_back({offset, "too many mistakes; the rest is not looked at"});
            GiveUp();
        }
    }
    void GiveUp() noexcept
    {
        m_GivenUp = true;
        m_Position = m_Text.size();
    }

    uint32_t Open(JsonTree::Kind kind)
    {
        const uint32_t begin = static_cast<uint32_t>(m_Position);
        m_Tree.m_Nodes.push_back({begin, begin, 0, kind});
        return static_cast<uint32_t>(m_Tree.m_Nodes.size() - 1);
    }
    void Close(uint32_t node, JsonTree::Kind kind) noexcept
    {
        m_Tree.m_Nodes[node].End = static_cast<uint32_t>(m_Position);
        m_Tree.m_Nodes[node].Next = static_cast<uint32_t>(m_Tree.m_Nodes.size());
        m_Tree.m_Nodes[node].Type = kind;
    }

    void SkipBlanks() noexcept
    {
        while (!AtEnd() && (Peek() == ' ' || Peek() == '\t' || Peek() == '\n' || Peek() == '\r'))
            ++m_Position;
    }

    /// False when no value stands here; a broken one is put in its place.
    bool Value(int depth)
    {
        SkipBlanks();
        const char c = Peek();
        const uint32_t node = Open(JsonTree::Kind::Broken);
        if (c == '{' || c == '[')
        {
            if (depth >= kMostNesting)
            {
                Complain(m_Position, "nested too deep");
                GiveUp();
                Close(node, JsonTree::Kind::Broken);
                return false;
            }
            ++m_Position;
            Elements(node, c == '{', depth);
            Close(node, c == '{' ? JsonTree::Kind::Object : JsonTree::Kind::Array);
            return true;
        }
        if (c == '"')
        {
            Close(node, String() ? JsonTree::Kind::String : JsonTree::Kind::Broken);
            return true;
        }
        if (IsWordCharacter(c))
        {
            Close(node, Word());
            return true;
        }
        const bool comment = c == '#' || (c == '/' && m_Position + 1 < m_Text.size());
        Complain(m_Position, AtEnd()   ? "expected a value, found the end of the file"
                             : comment ? "expected a value; JSON has no comments, write a description"
                                       : "expected a value");
        Close(node, JsonTree::Kind::Broken);
        return false;
    }

    JsonTree::Kind Word()
    {
        const size_t begin = m_Position;
        while (!AtEnd() && IsWordCharacter(Peek()))
            ++m_Position;
        const std::string_view word = m_Text.substr(begin, m_Position - begin);
        if (word == "true")
            return JsonTree::Kind::True;
        if (word == "false")
            return JsonTree::Kind::False;
        if (word == "null")
            return JsonTree::Kind::Null;
        if (IsNumber(word))
            return JsonTree::Kind::Number;
        const bool number = IsDigit(word[0]) || word[0] == '-' || word[0] == '+' || word[0] == '.';
        Complain(begin, number ? "this is no number; texts stand between quotes"
                               : "expected a value; texts stand between quotes");
        return JsonTree::Kind::Broken;
    }

    /// What stands between the brackets of an array or an object, and the closing one.
    void Elements(uint32_t parent, bool object, int depth)
    {
        const char closing = object ? '}' : ']';
        SkipBlanks();
        if (Peek() == closing)
        {
            ++m_Position;
            return;
        }
        for (bool more = true; more && !m_GivenUp;)
        {
            const bool whole = object ? Member(depth) : Value(depth + 1);
            more = Separator(parent, closing, whole);
        }
    }

    bool Member(int depth)
    {
        SkipBlanks();
        const uint32_t name = Open(JsonTree::Kind::Broken);
        if (Peek() != '"')
        {
            Complain(m_Position, AtEnd() ? "expected a name between quotes, found the end of the file"
                                         : "expected a name between quotes");
            while (IsWordCharacter(Peek()))
                ++m_Position;
            Close(name, JsonTree::Kind::Broken);
        }
        else
        {
            Close(name, String() ? JsonTree::Kind::String : JsonTree::Kind::Broken);
        }
        SkipBlanks();
        if (Peek() == ':')
        {
            ++m_Position;
            return Value(depth + 1);
        }
        if (m_Tree.m_Nodes[name].Type == JsonTree::Kind::String)
            Complain(m_Position, "expected ':' behind the name");
        Close(Open(JsonTree::Kind::Broken), JsonTree::Kind::Broken);
        return false;
    }

    /// Behind an element: true when another one follows.
    bool Separator(uint32_t parent, char closing, bool whole)
    {
        SkipBlanks();
        const std::string expected = closing == '}' ? "expected ',' or '}'" : "expected ',' or ']'";
        if (!whole || (Peek() != ',' && Peek() != closing))
        {
            if (whole && !AtEnd())
                Complain(m_Position, expected);
            // A comma was forgotten: what follows is read as the next element.
            if (whole &&
                (IsWordCharacter(Peek()) || Peek() == '"' || (closing == ']' && (Peek() == '{' || Peek() == '['))))
                return true;
            SkipToSeparator();
        }
        if (AtEnd())
        {
            Complain(m_Tree.m_Nodes[parent].Begin,
                     closing == '}' ? "this '{' is not closed" : "this '[' is not closed");
            GiveUp(); // the brackets around it are not closed either
            return false;
        }
        if (Peek() == ',')
        {
            const size_t comma = m_Position++;
            SkipBlanks();
            if (Peek() != closing)
                return true;
            Complain(comma, "a comma with nothing behind it");
        }
        if (Peek() == closing)
        {
            ++m_Position;
            return false;
        }
        return false; // another closing bracket: it may belong to one of the outer values
    }

    void SkipToSeparator() noexcept
    {
        int depth = 0;
        for (; !AtEnd(); ++m_Position)
        {
            const char c = Peek();
            if (c == '"')
            {
                for (++m_Position; !AtEnd() && Peek() != '"' && Peek() != '\n'; ++m_Position)
                    m_Position += Peek() == '\\' ? 1 : 0;
                if (AtEnd())
                    return;
            }
            else if (c == '{' || c == '[')
            {
                ++depth;
            }
            else if (c == '}' || c == ']')
            {
                if (depth-- == 0)
                    return;
            }
            else if (c == ',' && depth == 0)
            {
                return;
            }
        }
    }

    /// Checks a string and steps over it. A text without its closing quote ends with its line.
    bool String()
    {
        const size_t begin = m_Position++;
        bool good = true;
        while (!AtEnd() && Peek() != '"' && Peek() != '\n')
        {
            const unsigned char c = static_cast<unsigned char>(Peek());
            if (c == '\\')
            {
                good = Escape() && good;
                continue;
            }
            const size_t size = Utf8CharacterBytes(m_Text.substr(m_Position));
            if (size == 0)
            {
                if (good)
                    Complain(m_Position, "the text is not UTF-8 here");
                good = false;
            }
            else if (c < 0x20)
            {
                if (good)
                    Complain(m_Position, "a control character; write tab as \\t, others as \\u and four digits");
                good = false;
            }
            m_Position += std::max<size_t>(size, 1);
        }
        if (Peek() != '"' || AtEnd())
        {
            Complain(begin, "the text that begins here has no closing quote on its line");
            return false;
        }
        ++m_Position;
        return good;
    }

    bool Escape()
    {
        const size_t begin = m_Position++;
        const char c = Peek();
        if (c != 'u' || AtEnd())
        {
            const bool known = !AtEnd() && std::string_view("\"\\/bfnrt").find(c) != std::string_view::npos;
            if (!known)
                Complain(begin, "no escape that JSON knows; a backslash itself is written as \\\\");
            m_Position += known ? 1 : 0;
            return known;
        }
        const int unit = HexDigits(m_Text.substr(m_Position + 1, 4));
        if (unit < 0)
        {
            Complain(begin, "expected four hexadecimal digits behind \\u");
            ++m_Position;
            return false;
        }
        m_Position += 5;
        if (!IsHighSurrogate(unit) && !IsLowSurrogate(unit))
            return true;
        if (IsHighSurrogate(unit) && m_Text.substr(m_Position, 2) == "\\u" &&
            IsLowSurrogate(HexDigits(m_Text.substr(m_Position + 2, 4))))
        {
            m_Position += 6;
            return true;
        }
        Complain(begin, "half of a surrogate pair");
        return false;
    }

    JsonTree& m_Tree;
    const std::string_view m_Text;
    size_t m_Position = 0;
    bool m_GivenUp = false;
};

JsonTree::JsonTree(std::string_view text) : m_Text(text)
{
    JsonParser(*this).Parse();
}

} // namespace KxPolicy
