// What a rule set becomes whose file cannot be read.
#pragma once

#include <string_view>

#include "repository/RuleSet.h"

namespace RuleSetRescue
{

/// The index in a rule set file's name: up to four hexadecimal digits behind the four-character prefix, 0 when there
/// is none.
[[nodiscard]] uint16_t IndexFromFileName(std::string_view fileName) noexcept;

/// Gives the set the rescue name and adds the three rescue rules to the rules it holds, tracing each.
void MakeRescueSet(CRuleSet& ruleSet);

} // namespace RuleSetRescue
