// Text in columns on a terminal.
#include "tools/kxrule/console/Columns.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

#include <utf8.h>

namespace Tool
{
namespace
{

struct Characters
{
    uint32_t First;
    uint32_t Last;
};

constexpr Characters kWide[] = {{0x1100, 0x115F},   {0x2E80, 0x303E},   {0x3041, 0xA4CF},  {0xAC00, 0xD7A3},
                                {0xF900, 0xFAFF},   {0xFE30, 0xFE6F},   {0xFF00, 0xFF60},  {0xFFE0, 0xFFE6},
                                {0x1F300, 0x1F64F}, {0x1F900, 0x1F9FF}, {0x20000, 0x3FFFD}};
constexpr Characters kNone[] = {{0x0300, 0x036F}, {0x200B, 0x200F}, {0x20D0, 0x20FF}, {0xFE00, 0xFE0F}};

template <size_t count>
bool IsIn(const Characters (&ranges)[count], uint32_t codePoint) noexcept
{
    return std::any_of(ranges, ranges + count,
                       [codePoint](const Characters& range)
                       { return codePoint >= range.First && codePoint <= range.Last; });
}

size_t Width(uint32_t codePoint) noexcept
{
    return IsIn(kNone, codePoint) ? 0 : IsIn(kWide, codePoint) ? 2 : 1;
}

} // namespace

size_t DisplayWidth(std::string_view text)
{
    const std::string valid = utf8::replace_invalid(text);
    size_t width = 0;
    for (auto at = valid.begin(); at != valid.end();)
        width += Width(utf8::unchecked::next(at));
    return width;
}

std::vector<std::string> Aligned(const std::vector<std::vector<std::string>>& rows,
                                 const std::vector<size_t>& toTheRight)
{
    std::vector<size_t> widths;
    for (const std::vector<std::string>& row : rows)
    {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], DisplayWidth(row[i]));
    }
    std::vector<std::string> lines;
    for (const std::vector<std::string>& row : rows)
    {
        std::string& line = lines.emplace_back();
        for (size_t i = 0; i < row.size(); ++i)
        {
            const std::string blanks(widths[i] - DisplayWidth(row[i]), ' ');
            const bool right = std::find(toTheRight.begin(), toTheRight.end(), i) != toTheRight.end();
            line += i > 0 ? "  " : "";
            line += right ? blanks + row[i] : i + 1 < row.size() ? row[i] + blanks : row[i];
        }
    }
    return lines;
}

std::string Wrapped(std::string_view text, size_t width)
{
    std::string out;
    for (size_t at = 0; at < text.size();)
    {
        size_t end = std::min(text.find('\n', at), text.size());
        std::string_view line = text.substr(at, end - at);
        at = end;
        const size_t indent = std::min(line.find_first_not_of(' '), line.size());
        const std::string further(indent + 4, ' ');
        for (size_t used = 0; width > indent + 20 && used + DisplayWidth(line) > width; used = further.size())
        {
            // After the last blank or comma that fits. (Colours count as text, so the line breaks a little early.)
            size_t cut = line.find_last_of(" ,", width - used - 1);
            while (cut != std::string_view::npos && cut > 0 && used + DisplayWidth(line.substr(0, cut + 1)) > width)
                cut = line.find_last_of(" ,", cut - 1);
            if (cut == std::string_view::npos || cut <= (used == 0 ? indent : 0))
                break; // one long word; the terminal breaks it
            out.append(line.substr(0, line[cut] == ' ' ? cut : cut + 1)).append("\n").append(further);
            line.remove_prefix(cut + 1);
        }
        out += line;
        if (at < text.size())
            out += text[at++];
    }
    return out;
}

std::string Printable(std::string_view text)
{
    const std::string valid = utf8::replace_invalid(text);
    std::string out;
    for (auto at = valid.begin(); at != valid.end();)
    {
        const uint32_t codePoint = utf8::unchecked::next(at);
        const bool control = codePoint < 0x20 || (codePoint >= 0x7F && codePoint < 0xA0);
        // Characters that change the writing direction could disguise a line.
        const bool turning =
            (codePoint >= 0x202A && codePoint <= 0x202E) || (codePoint >= 0x2066 && codePoint <= 0x2069);
        utf8::append(control || turning ? uint32_t{0xFFFD} : codePoint, std::back_inserter(out));
    }
    return out;
}

} // namespace Tool
