// Policies and rules as lines of text, both ways: the form that `kxrule show` prints, and .rules files.
//
//     rules 1                                       the version of this form, before anything else
//     active 2 1
//     macro web                                     its items follow
//       port=80,443
//     set 1 "Home office"                           its rules follow
//       10  ACCESS,TCP,,10.0.0.0/8,,80:90,DROP  (off)  description="No web"
//
// A rule is the line that the library gives it, IPv6 addresses added, and behind it what the line does not carry:
// members of the JSON form as key=value, the value bare or in JSON. A # begins a line of comment. Reading goes by way
// of the JSON form, so both accept and refuse the same.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "api/include/KxPfwRule.h"
#include "policy/Policy.h"
#include "policy/RuleJson.h"

namespace KxPolicy
{

inline constexpr std::string_view kOff = "(off)"; // active=false, as people see it

/// Reads a policy in either form: in JSON when the text begins with a brace or a bracket. Otherwise as ReadPolicy.
[[nodiscard]] bool ReadAnyPolicy(std::string_view text, Policy& policy, std::vector<Diagnostic>& diagnostics);
/// The same for a rule alone. Without an index in its line it gets index 0, and hasIndex says so.
[[nodiscard]] bool ReadAnyRule(std::string_view text, PFW_RULE& rule, bool& hasIndex,
                               std::vector<Diagnostic>& diagnostics);
/// Whether a text is a rule's line by its first word, perhaps after an index.
[[nodiscard]] bool IsRuleLine(std::string_view text);

/// A rule without its index, lossless. The brief form leaves out what `show` prints below the line: description,
/// application, and bytes that people do not read.
[[nodiscard]] std::string RuleToText(const PFW_RULE& rule, bool brief = false);
/// The same text for the same policy, always, and one that ReadAnyPolicy takes back byte for byte.
[[nodiscard]] std::string PolicyToText(const Policy& policy);

} // namespace KxPolicy
