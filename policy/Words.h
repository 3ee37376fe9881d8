// Numbers and lists for use in sentences.
#pragma once

#include <cstddef>
#include <string>

namespace KxPolicy
{

/// "3 rules", "1 rule".
[[nodiscard]] inline std::string Count(size_t number, const char* what)
{
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

/// The texts, joined by a separator.
template <class Texts>
[[nodiscard]] std::string Joined(const Texts& texts, const char* between = ", ")
{
    std::string joined;
    for (const auto& text : texts)
        joined += (joined.empty() ? "" : between) + std::string(text);
    return joined;
}

} // namespace KxPolicy
