// What a shell may put after the words that were typed, from the same source as --help.
#pragma once

#include <string>
#include <vector>

#include "tools/kxrule/console/Console.h"

namespace CLI
{
class App;
}

namespace Tool
{

/// The shells that there is a script for.
[[nodiscard]] std::vector<std::string> CompletedShells();
/// Asks this program for the words, each time.
[[nodiscard]] std::string CompletionScript(const std::string& shell);
/// The words that can take the place of the last one, a line each, with what they mean after a tab. The last has a full
/// stop at its end: some shells leave empty words out. None where the name of a file is expected.
[[nodiscard]] std::string CompletedWords(const CLI::App& app, const std::vector<std::string>& words, Console& console);

} // namespace Tool
