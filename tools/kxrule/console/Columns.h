// Text in columns on a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Tool
{

/// The columns that UTF-8 text takes: two for East Asian characters, none for combining ones.
[[nodiscard]] size_t DisplayWidth(std::string_view text);
/// The rows as lines whose columns are aligned; the last column is not padded. Columns in toTheRight are aligned right.
[[nodiscard]] std::vector<std::string> Aligned(const std::vector<std::vector<std::string>>& rows,
                                               const std::vector<size_t>& toTheRight = {});
/// Breaks lines that are wider than the terminal between words, and indents the rest a little further. A width of 0 is
/// unknown; nothing is broken then.
[[nodiscard]] std::string Wrapped(std::string_view text, size_t width);
/// Replaces what a terminal could take as a command by U+FFFD: texts in a store cannot be trusted.
[[nodiscard]] std::string Printable(std::string_view text);

} // namespace Tool
