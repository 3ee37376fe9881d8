// Numbers and lists as words of a sentence.
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

/// The texts with a separator between each two.
template <class Texts>
[[nodiscard]] std::string Joined(const Texts& texts, const char* between = ", ")
{
    std::string joined;
    for (const auto& text : texts)
        joined += (joined.empty() ? "" : between) + std::string(text);
    return joined;
}

} // namespace KxPolicy
