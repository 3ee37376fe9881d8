// Policies, rules and macros as JSON, both ways. docs/policy.schema.json describes the form for editors.
//
// Named fields carry what people write. What they cannot carry (spare fields, unknown types, bytes that are not text,
// what follows a terminator) is in a member "raw": lines "offset: hexadecimal bytes", which are put over the record
// that the named fields give. So reading restores every record byte for byte.
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

/// One thing that is wrong in a text.
struct Diagnostic
{
    size_t Line;      // from 1
    size_t Column;    // from 1, in characters
    std::string Path; // such as ruleSets[0].rules[3].ports[1]; empty for the text as JSON
    std::string Text; // what was expected
};

/// Reads a whole policy and checks it: form, values, what the library would refuse, limits. False when anything is
/// wrong; diagnostics then holds everything, in the text's order, and policy is not to be used. Where the text stops
/// being JSON the reading ends, with that as the only diagnostic.
[[nodiscard]] bool ReadPolicy(std::string_view json, Policy& policy, std::vector<Diagnostic>& diagnostics);
/// The same for a rule alone.
[[nodiscard]] bool ReadRule(std::string_view json, PFW_RULE& rule, std::vector<Diagnostic>& diagnostics);

[[nodiscard]] Json RuleAsJson(const PFW_RULE& rule);
[[nodiscard]] Json RuleSetAsJson(const RuleSetRecord& ruleSet);
[[nodiscard]] Json MacrosAsJson(const std::vector<MacroRecord>& macros);
/// The same text for the same policy, always: members in a fixed order, one on each line.
[[nodiscard]] std::string PolicyToJson(const Policy& policy);
[[nodiscard]] std::string RuleToJson(const PFW_RULE& rule);

/// True when the record has bytes that only "raw" can carry: unknown types, spare fields in use, remains after a
/// terminator, or damage that its file could not show.
[[nodiscard]] bool HasUnexplainedBytes(const PFW_RULE& rule);

} // namespace KxPolicy
