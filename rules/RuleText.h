// Rules, address items and port items as text.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "api/include/KxPfwRule.h"

namespace RuleText
{

/// A text that needs no memory but its own. Every rule's line fits: it has the texts of the record's fields and a few
/// numbers and keywords, at most 2750 bytes (GENSTREAM). What does not fit is dropped.
class Line
{
public:
    Line() noexcept {} // NOLINT(modernize-use-equals-default): leaves the bytes alone; only the used ones are read

    [[nodiscard]] std::string_view View() const noexcept { return {m_Bytes, m_Size}; }
    void Clear() noexcept { m_Size = 0; }

    Line& operator+=(std::string_view text) noexcept
    {
        m_Size += text.copy(m_Bytes + m_Size, sizeof m_Bytes - m_Size);
        return *this;
    }
    Line& operator+=(char byte) noexcept
    {
        if (m_Size < sizeof m_Bytes)
            m_Bytes[m_Size++] = byte;
        return *this;
    }
    /// kept: 32-bit fields are shown as signed numbers, 16-bit ones as unsigned.
    void AppendNumber(uint32_t number) noexcept { AppendNumber(static_cast<int32_t>(number)); }
    void AppendNumber(int32_t number) noexcept
    {
        m_Size = static_cast<size_t>(std::to_chars(m_Bytes + m_Size, std::end(m_Bytes), number).ptr - m_Bytes);
    }

private:
    char m_Bytes[sizeof(PFW_RULE)];
    size_t m_Size = 0;
};

/// Appends an address item: nothing for "any" and for other families than IPv4 (names excepted).
void AppendAddress(Line& text, const RULE_ADDR& item) noexcept;
/// Appends a port item: nothing for "none", "any" and unknown types.
void AppendPort(Line& text, const RULE_PORT& item) noexcept;
/// Replaces line by the rule's line. 0, or KXRULE_E_RULE_TEXT with line unchanged.
[[nodiscard]] int32_t Render(const PFW_RULE& rule, Line& line) noexcept;

} // namespace RuleText
