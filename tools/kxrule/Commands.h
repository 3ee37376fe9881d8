// The commands. Each returns an exit code or throws Failure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/kxrule/RuleJson.h"
#include "tools/kxrule/Session.h"

namespace Tool
{

// ------------------------------------------------------------------------------------------------- look (LookCommands)
int List(Session& session);
int Show(Session& session, std::optional<uint16_t> ruleSetIndex, std::optional<uint16_t> ruleIndex);

// ------------------------------------------------------------------------------------------ policies (PolicyCommands)
struct ImportOptions
{
    std::string File;   // "-": standard input
    bool Merge = false; // what happens without an option, too
    bool Replace = false;
    bool Check = false;
};
int Import(Session& session, const ImportOptions& options);

/// A whole file, "-" for standard input.
[[nodiscard]] std::string ReadTextFile(const std::string& path);
/// One line an error: FILE:LINE:COLUMN: where: what.
[[nodiscard]] std::string ErrorLines(const std::string& path, const std::vector<JsonError>& errors);

} // namespace Tool
