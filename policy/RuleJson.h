// Policies, rules and macros as JSON, both ways. docs/policy.schema.json describes the form for editors.
//
// Named fields hold what users write. What they cannot express (spare fields, unknown types, bytes that are not text,
// whatever follows a terminator) is in a member "raw": lines "offset: hexadecimal bytes", which overwrite the record
// that results from the named fields. Reading therefore restores every record byte for byte.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "api/include/KxPfwRule.h"
#include "policy/JsonText.h"
#include "policy/Policy.h"

namespace KxPolicy
{

/// One problem in a text.
struct Diagnostic
{
    size_t Line;      // from 1
    size_t Column;    // from 1, in characters
    std::string Path; // such as ruleSets[0].rules[3].ports[1]; empty for a syntax error
    std::string Text; // what was expected
};
inline constexpr size_t kMostDiagnostics = 1000; // nobody reads more, and a text may have millions

/// Reads a whole policy and checks it: form, values, what the library would refuse, limits. False if anything is
/// wrong; diagnostics then has all of it in the order of the text, and policy must not be used. A syntax error ends the
/// reading and is then the only diagnostic.
[[nodiscard]] bool ReadPolicy(std::string_view json, Policy& policy, std::vector<Diagnostic>& diagnostics);
/// The same for a single rule.
[[nodiscard]] bool ReadRule(std::string_view json, PFW_RULE& rule, std::vector<Diagnostic>& diagnostics);

[[nodiscard]] Json RuleAsJson(const PFW_RULE& rule);
[[nodiscard]] Json RuleSetAsJson(const RuleSetRecord& ruleSet);
[[nodiscard]] Json MacrosAsJson(const std::vector<MacroRecord>& macros);
/// Always the same text for the same policy: members in a fixed order, one per line.
[[nodiscard]] std::string PolicyToJson(const Policy& policy);
[[nodiscard]] std::string RuleToJson(const PFW_RULE& rule);

/// True if the record has bytes that only "raw" can express: unknown types, spare fields in use, leftovers after a
/// terminator, or damage that its file does not reveal.
[[nodiscard]] bool HasUnexplainedBytes(const PFW_RULE& rule);

} // namespace KxPolicy
