// A line of a .rules file as JSON: a rule, or members of something else.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "policy/JsonTree.h"
#include "policy/RuleJson.h"

namespace KxPolicy
{

inline constexpr std::string_view kBlank = " \t\r";
inline constexpr size_t kMostNestingInValue = 8; // of JSON in a value; the format itself has three levels

/// The parts of a line, with their places in it.
class Scanner
{
public:
    explicit Scanner(std::string_view line) : m_Line(line) { SkipBlanks(); }

    [[nodiscard]] bool AtEnd() const noexcept { return m_At == m_Line.size(); }
    [[nodiscard]] size_t At() const noexcept { return m_At; }
    [[nodiscard]] std::string_view Rest() const noexcept { return m_Line.substr(m_At); }
    void SkipBlanks() noexcept
    {
        while (m_At < m_Line.size() && kBlank.find(m_Line[m_At]) != std::string_view::npos)
            ++m_At;
    }
    std::string_view Take(size_t count) noexcept
    {
        const std::string_view taken = m_Line.substr(m_At, count);
        m_At += taken.size();
        SkipBlanks();
        return taken;
    }
    [[nodiscard]] std::string_view Word() const noexcept
    {
        return Rest().substr(0, std::min(Rest().find_first_of(kBlank), Rest().size()));
    }
    /// A word, or JSON up to the end of its text or the last of its brackets.
    [[nodiscard]] std::string_view Value() const noexcept
    {
        const std::string_view rest = Rest();
        if (rest.empty() || std::string_view("\"[{").find(rest.front()) == std::string_view::npos)
            return Word();
        bool isText = false;
        size_t depth = 0;
        for (size_t i = 0; i < rest.size(); ++i)
        {
            const char c = rest[i];
            if (isText && c == '\\')
                ++i;
            else if (c == '"')
                isText = !isText;
            else if (!isText && (c == '[' || c == '{'))
                ++depth;
            else if (!isText && (c == ']' || c == '}'))
                --depth;
            if (depth > kMostNestingInValue)
                return {};
            if (!isText && depth == 0)
                return rest.substr(0, i + 1);
        }
        return rest;
    }
    /// The name before "=" if a member is next.
    [[nodiscard]] std::string_view Key() const noexcept
    {
        const std::string_view rest = Rest();
        size_t length = 0;
        while (length < rest.size() &&
               ((rest[length] >= 'a' && rest[length] <= 'z') || (rest[length] >= 'A' && rest[length] <= 'Z')))
            ++length;
        return length > 0 && length < rest.size() && rest[length] == '=' ? rest.substr(0, length) : std::string_view();
    }

private:
    std::string_view m_Line;
    size_t m_At = 0;
};

/// Makes JSON of lines, one after the other.
class LineReader
{
public:
    /// Where in a line its values are is known only if asked for: almost nobody wants to know, and it takes longer than
    /// everything else.
    void Begin(std::string_view line, size_t number, bool isPlacing);
    /// A rule's members; the index only when the line has one.
    [[nodiscard]] Json Rule(Scanner& line);
    /// "key=value" up to what is none; of no kind any.
    void Members(Scanner& line, Json& to, uint32_t kind);
    [[nodiscard]] Json Value(Scanner& line, bool isList);

    /// The place of a member of the line that was begun, or, of a list, of one of its elements.
    void Remember(std::string_view name, size_t at, size_t element = SIZE_MAX);
    /// Of a path within the line, or of the innermost part of it that is known.
    [[nodiscard]] Place Find(std::string path) const;
    void Report(size_t at, std::string text);
    [[nodiscard]] std::vector<Diagnostic>& Found() noexcept { return m_Found; }

private:
    void Line(std::string_view text, size_t at, uint32_t kind, Json& rule);
    [[nodiscard]] size_t Column(size_t at) const;

    size_t m_Number = 1;
    std::string_view m_Text;
    bool m_IsPlacing = false;
    std::map<std::string, Place> m_Places;
    std::vector<Diagnostic> m_Found;
};

/// A bare value: a number, true, false or null if it is one, else text; for fields of several places a list.
[[nodiscard]] Json BareValue(std::string_view text, bool isList);

} // namespace KxPolicy
