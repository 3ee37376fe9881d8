// The command line: commands and options, their descriptions, and what they call.
#pragma once

#include <string>
#include <vector>

#include "tools/kxrule/console/Console.h"

namespace Tool
{

/// Runs one command; arguments in order, without the program's name, UTF-8.
[[nodiscard]] int RunCommandLine(const std::vector<std::string>& arguments, Console& console);

} // namespace Tool
