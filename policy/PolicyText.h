// A policy's text, whichever form it has: the one way in for everybody who takes policies.
#pragma once

#include <string_view>
#include <vector>

#include "policy/RuleJson.h"

namespace KxPolicy
{

/// As ReadPolicy. The text's form is told by its content, and the text must say which version of the form it has:
/// without that "{}" would be a policy, and half a file that happens to be JSON.
[[nodiscard]] bool ReadPolicyText(std::string_view text, Policy& policy, std::vector<Diagnostic>& diagnostics);

} // namespace KxPolicy
