// The manual and the completion for shells, from the same source as --help.
#pragma once

#include <string>

namespace CLI
{
class App;
}

namespace Tool
{

[[nodiscard]] std::string Manual(const CLI::App& app);
[[nodiscard]] std::string BashCompletion(const CLI::App& app);
[[nodiscard]] std::string PowerShellCompletion(const CLI::App& app);

} // namespace Tool
