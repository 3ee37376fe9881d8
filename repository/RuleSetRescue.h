// What replaces a rule set whose file cannot be read.
#pragma once

#include "repository/RuleSet.h"

namespace RuleSetRescue
{

/// Gives the set the rescue name and adds the three rescue rules to its rules, tracing each.
void MakeRescueSet(CRuleSet& ruleSet);

} // namespace RuleSetRescue
