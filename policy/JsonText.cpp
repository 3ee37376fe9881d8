// The layout of JSON for reading and editing: one member of a record per line.
#include "policy/JsonText.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace KxPolicy
{
namespace
{

std::string Plain(const Json& value)
{
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

/// Lines of "raw" are long, and a rule is never on one line, however short it is.
bool IsShort(const Json& value, std::string_view name)
{
    const bool mayBe = value.is_array() ? name != "raw" : value.size() == 1 || name == "extension";
    return mayBe && std::none_of(value.begin(), value.end(), [](const Json& part) { return part.is_structured(); });
}

void Append(std::string& out, const Json& value, size_t depth, std::string_view name, bool isLine)
{
    if (!value.is_structured())
    {
        out += Plain(value);
        return;
    }
    isLine = isLine || value.empty() || IsShort(value, name);
    const bool isObject = value.is_object();
    const auto newLine = [&out](size_t level) { out.append(1, '\n').append(2 * level, ' '); };
    out += isObject ? '{' : '[';
    for (auto part = value.begin(); part != value.end(); ++part)
    {
        out += part == value.begin() ? "" : isLine ? ", " : ",";
        if (!isLine)
            newLine(depth + 1);
        const std::string key = isObject ? part.key() : std::string();
        if (isObject)
            out += Plain(key) + ": ";
        Append(out, *part, depth + 1, key, isLine);
    }
    if (!isLine)
        newLine(depth);
    out += isObject ? '}' : ']';
}

} // namespace

std::string JsonLine(const Json& value)
{
    std::string out;
    Append(out, value, 0, {}, true);
    return out;
}

void AppendJsonText(std::string& out, const Json& value, size_t depth, std::string_view name)
{
    Append(out, value, depth, name, false);
}

} // namespace KxPolicy
