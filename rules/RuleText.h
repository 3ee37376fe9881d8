// Rules, address items and port items as text.
#pragma once

#include <string>

#include "api/include/KxPfwRule.h"

namespace RuleText
{

/// Appends an address item: nothing for "any" and for other families than IPv4 (names excepted).
void AppendAddress(std::string& text, const RULE_ADDR& item);
/// Appends a port item: nothing for "none", "any" and unknown types.
void AppendPort(std::string& text, const RULE_PORT& item);
/// Replaces line by the rule's line. 0, or KXRULE_E_RULE_TEXT with line unchanged.
[[nodiscard]] int32_t Render(const PFW_RULE& rule, std::string& line);

} // namespace RuleText
