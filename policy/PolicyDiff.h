// What has to change in a store to make it match a policy.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "policy/Policy.h"

namespace KxPolicy
{

enum class MergeMode
{
    Merge,  // what the policy does not name stays
    Replace // rule sets, rules and macros that the policy does not name are removed
};

struct RuleChange
{
    uint16_t Index = 0;
    const PFW_RULE* Before = nullptr; // in the store's policy; null: the rule is new
    const PFW_RULE* After = nullptr;  // null: the rule is removed
};

struct RuleSetChange
{
    uint16_t Index = 0;
    std::optional<KxCommon::WideString> NameBefore; // nothing: the rule set is new
    std::optional<KxCommon::WideString> NameAfter;  // nothing: the rule set is removed
    std::vector<RuleChange> Rules;                  // ascending
    std::vector<const PFW_RULE*> RulesAfter;        // all of them, ascending
};

/// Points into the two policies that were compared: a full store is 180 MB, and there are two of them already.
struct PolicyDiff
{
    PolicyDiff() = default;
    PolicyDiff(PolicyDiff&&) = default;
    PolicyDiff& operator=(PolicyDiff&&) = default;

    std::vector<RuleSetChange> RuleSets; // ascending; only those with changes
    std::vector<MacroRecord> MacrosBefore;
    std::optional<std::vector<MacroRecord>> Macros; // the new list, if it differs
    std::vector<uint16_t> ActiveBefore;
    std::optional<std::vector<uint16_t>> Active; // the new list, if it differs
    std::deque<PFW_RULE> Altered;                // rules that it points to and that neither policy has
    std::vector<Policy> Own;                     // policies that it points into and has to own

    [[nodiscard]] bool IsEmpty() const noexcept { return RuleSets.empty() && !Macros && !Active; }
};

/// The store's policy is complete, as read from the library. In either mode, rule sets, active list and macros are left
/// alone if the policy does not mention them, except that a rule set that goes also leaves the active list. Both must
/// outlive the result.
[[nodiscard]] PolicyDiff Compare(const Policy& store, const Policy& policy, MergeMode mode);

/// What an import leaves of the store's macros, and of its rule sets without their rules: what the policy may name
/// without having it.
[[nodiscard]] Policy Remaining(const Policy& store, const Policy& policy, MergeMode mode);

/// Frees the store's rules, except those that are there after the changes. What a rule was before is lost.
void DropRules(Policy& store, PolicyDiff& diff);

/// The number of rule sets after the changes.
[[nodiscard]] size_t RuleSetsAfter(const Policy& store, const PolicyDiff& diff) noexcept;
/// Which limit of the store the changes would exceed, as a readable sentence; empty if none.
[[nodiscard]] std::string ExcessText(const Policy& store, const PolicyDiff& diff);
/// Whether every rule set is removed, which is more often a mistake than intended.
[[nodiscard]] bool IsEmptying(const Policy& store, const PolicyDiff& diff) noexcept;
/// The changes that undo those of the difference: wherever the difference has an entry, the store becomes what it was
/// before.
[[nodiscard]] PolicyDiff Inverse(const Policy& before, const PolicyDiff& diff, const Policy& now);

/// The changes as readable lines: + added, - removed, ~ changed with the JSON lines that differ.
[[nodiscard]] std::string DiffText(const PolicyDiff& diff);
/// One line that says what is to be changed, or has been.
[[nodiscard]] std::string DiffSummary(const PolicyDiff& diff);

} // namespace KxPolicy
