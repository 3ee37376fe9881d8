// Reports what a policy or a store may contain but probably should not.
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

/// Checks the active list, the macros and the rule sets, in this order. What the policy names may also be in `beside`,
/// if it is given: a policy that is merged into a store may name the store's macros and rule sets.
[[nodiscard]] std::vector<LintFinding> Lint(const Policy& policy, const Policy* beside = nullptr);
/// Appends the findings about one rule set.
void LintRules(uint16_t ruleSetIndex, const std::vector<PFW_RULE>& rules,
               const std::vector<const std::vector<MacroRecord>*>& macros, std::vector<LintFinding>& findings);
/// What is wrong with an active list that must be refused: a rule set twice, or one that does not exist. Empty if
/// nothing is.
[[nodiscard]] std::string ActiveListMistake(const std::vector<uint16_t>& active, const std::vector<uint16_t>& ruleSets);

} // namespace KxPolicy
