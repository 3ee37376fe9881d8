// The manual, from the same source as --help.
#pragma once

#include <string>
#include <vector>

namespace CLI
{
class App;
}

namespace Tool
{

/// Not those that only this program calls.
[[nodiscard]] std::vector<const CLI::App*> ShownCommands(const CLI::App& app);
[[nodiscard]] std::string Manual(const CLI::App& app);

} // namespace Tool
