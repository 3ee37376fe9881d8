// What a policy or a store may hold and hardly anybody means.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "policy/Policy.h"

namespace KxPolicy
{

struct LintFinding
{
    const char* Code = "";             // for programs, such as "no-such-macro"
    uint16_t RuleSetIndex = 0;         // 0: none
    std::optional<uint16_t> RuleIndex; // in it
    std::optional<std::string> Macro;  // in the active code page
    std::string Text;                  // a sentence without its subject

    /// "rule set 3, rule 120", "macro web", "active list"; UTF-8.
    [[nodiscard]] std::string Where() const;
};

/// Active list, macros, rule sets in this order. What the policy does not have may be in the store beside it, if one is
/// given: a policy that is merged into it may name the store's macros and rule sets.
[[nodiscard]] std::vector<LintFinding> Lint(const Policy& policy, const Policy* beside = nullptr);
/// Appends what is to be said of one rule set.
void LintRuleSet(const RuleSetRecord& ruleSet, const std::vector<const std::vector<MacroRecord>*>& macros,
                 std::vector<LintFinding>& findings);
/// What is wrong with an active list, which nobody may set: a rule set twice, or one that does not exist. Empty:
/// nothing.
[[nodiscard]] std::string ActiveListMistake(const std::vector<uint16_t>& active, const std::vector<uint16_t>& ruleSets);

} // namespace KxPolicy
