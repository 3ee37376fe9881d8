// A JSON text as a tree whose values have their place in the text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace KxPolicy
{

/// The syntax error in a text.
struct SyntaxError
{
    size_t Offset;
    std::string Text;
};

class JsonValue;

/// Reads a whole text: what RFC 8259 allows, nested up to 64 levels deep, with or without a byte order mark. Designed
/// to be small: eight bytes per value, and strings are decoded only on demand. A text whose values are shorter than
/// those of any policy is refused, so that for a large text the tree is never more than three times as large.
class JsonTree
{
public:
    enum class Kind : uint8_t
    {
        Null,
        False,
        True,
        Number,
        String,
        Array,
        Object
    };

    /// The text must outlive the tree. Texts of 1 GB and more are refused.
    explicit JsonTree(std::string_view text);

    /// Only if there is no error.
    [[nodiscard]] JsonValue Root() const noexcept;
    [[nodiscard]] const std::optional<SyntaxError>& Error() const noexcept { return m_Error; }
    [[nodiscard]] std::string_view Text() const noexcept { return m_Text; }

private:
    friend class JsonValue;
    class Builder;

    struct Node
    {
        uint32_t Begin;     // in the text
        uint32_t Next : 29; // the node after this value and everything in it; children follow their parent directly
        uint32_t Type : 3;
    };

    /// Where a number or a string that begins there ends.
    [[nodiscard]] size_t EndOfNumber(size_t begin) const noexcept;
    [[nodiscard]] size_t EndOfString(size_t begin) const noexcept;

    std::string_view m_Text;
    std::deque<Node> m_Nodes; // an object's children are name, value, name, value, ...; grows without a copy
    std::optional<SyntaxError> m_Error;
};

/// One value of a tree; as cheap to copy as an index.
class JsonValue
{
public:
    JsonValue(const JsonTree& tree, uint32_t index) noexcept : m_Tree(&tree), m_Index(index) {}

    [[nodiscard]] JsonTree::Kind Kind() const noexcept { return static_cast<JsonTree::Kind>(Node().Type); }
    [[nodiscard]] bool Is(JsonTree::Kind kind) const noexcept { return Kind() == kind; }
    [[nodiscard]] size_t Offset() const noexcept { return Node().Begin; }
    /// The value as written, including quotes; for an array or an object, the opening bracket.
    [[nodiscard]] std::string_view Raw() const noexcept;
    /// A string without quotes and escapes, UTF-8.
    [[nodiscard]] std::string Text() const;

    /// Calls take(value) for each element of an array.
    template <class Take>
    void ForEachItem(Take take) const
    {
        for (uint32_t child = m_Index + 1; child < Node().Next; child = m_Tree->m_Nodes[child].Next)
            take(JsonValue(*m_Tree, child));
    }
    /// Calls take(name, value) for each member of an object.
    template <class Take>
    void ForEachMember(Take take) const
    {
        for (uint32_t name = m_Index + 1; name < Node().Next;)
        {
            const uint32_t value = m_Tree->m_Nodes[name].Next;
            take(JsonValue(*m_Tree, name), JsonValue(*m_Tree, value));
            name = m_Tree->m_Nodes[value].Next;
        }
    }
    [[nodiscard]] size_t ItemCount() const noexcept
    {
        size_t count = 0;
        ForEachItem([&count](JsonValue) { ++count; });
        return count;
    }

private:
    [[nodiscard]] const JsonTree::Node& Node() const noexcept { return m_Tree->m_Nodes[m_Index]; }

    const JsonTree* m_Tree;
    uint32_t m_Index;
};

/// Line and column, both from 1; columns count characters, not bytes.
struct Place
{
    size_t Line = 1;
    size_t Column = 1;
};

/// Converts offsets to places, in one pass if they come in ascending order.
class Locator
{
public:
    explicit Locator(std::string_view text) noexcept;
    [[nodiscard]] Place Find(size_t offset) noexcept;

private:
    std::string_view m_Text;
    size_t m_Start = 0; // after a byte order mark
    size_t m_Offset = 0;
    Place m_Place;
};

} // namespace KxPolicy
