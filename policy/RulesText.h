// Policies and rules as lines of text, both ways: the form that `kxrule show` prints, and .rules files.
//
//     rules 1                                       the version of this format, before anything else
//     active 2 1
//     macro web                                     its items follow
//       port=80,443
//     set 1 "Home office"                           its rules follow
//       10  ACCESS,TCP,,10.0.0.0/8,,80:90,DROP  (off)  description="No web"
//
// A rule is the line that the library renders, with IPv6 addresses added, followed by what the line does not include:
// members of the JSON form as key=value, the value bare or in JSON. A # begins a comment line. Text is read by way of
// the JSON form, so both accept and refuse the same.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "api/include/KxPfwRule.h"
#include "policy/Policy.h"
#include "policy/RuleJson.h"

namespace KxPolicy
{

inline constexpr std::string_view kOff = "(off)"; // active=false, in readable form

/// Reads a policy in either form: JSON if the text begins with a brace or a bracket. In other respects like ReadPolicy.
[[nodiscard]] bool ReadAnyPolicy(std::string_view text, Policy& policy, std::vector<Diagnostic>& diagnostics);
/// The same for a single rule. If its line has no index, it gets index 0, and hasIndex is false.
[[nodiscard]] bool ReadAnyRule(std::string_view text, PFW_RULE& rule, bool& hasIndex,
                               std::vector<Diagnostic>& diagnostics);
/// Whether a text is a rule's line, judging by its first word, possibly after an index.
[[nodiscard]] bool IsRuleLine(std::string_view text);

/// A rule without its index, without loss. The brief form omits what `show` prints below the line (description,
/// application) and bytes without a readable form.
[[nodiscard]] std::string RuleToText(const PFW_RULE& rule, bool brief = false);
/// Always the same text for the same policy, which ReadAnyPolicy reads back byte for byte.
[[nodiscard]] std::string PolicyToText(const Policy& policy);

} // namespace KxPolicy
