// Values of nlohmann's JSON as text in this project's layout.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace KxPolicy
{

using Json = nlohmann::ordered_json; // members stay in the order in which they were added

/// On one line, with a blank after each comma and colon. What is not UTF-8 becomes U+FFFD.
[[nodiscard]] std::string JsonLine(const Json& value);
/// One member or element per line, except that lists of plain values and small objects are on one line. Appended as the
/// value of the member `name`, on a line that is indented by depth levels.
void AppendJsonText(std::string& out, const Json& value, size_t depth = 0, std::string_view name = {});

} // namespace KxPolicy
