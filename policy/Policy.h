// A policy in memory: what a store holds, or a part of it, as records.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "api/include/KxPfwRule.h"
#include "common/srclib/KxComn_String.h"

namespace KxPolicy
{

inline constexpr uint32_t kPolicyVersion = 1; // of the JSON form

struct MacroRecord
{
    std::string Name; // in the active code page
    std::vector<MACRO_ITEM> Items;
};

struct RuleSetRecord
{
    uint16_t Index = 0;
    KxCommon::WideString Name;
    std::vector<PFW_RULE> Rules; // ascending by wRuleIndex, no index twice
};

struct Policy
{
    std::optional<std::vector<uint16_t>> Active;    // nothing: the policy does not mention the active list
    std::optional<std::vector<MacroRecord>> Macros; // nothing: the policy does not mention macros
    std::vector<RuleSetRecord> RuleSets;            // ascending by index, no index twice
    bool HasRuleSets = true;                        // false: the policy does not mention rule sets
};

[[nodiscard]] bool IsActive(const Policy& policy, uint16_t ruleSetIndex) noexcept;

/// A macro as the record that the library accepts.
[[nodiscard]] std::vector<unsigned char> MacroBytes(const MacroRecord& macro);
/// A rule set as the record that the library accepts.
[[nodiscard]] std::vector<unsigned char> RuleSetBytes(uint16_t index, const KxCommon::WideString& name,
                                                      const std::vector<const PFW_RULE*>& rules);

} // namespace KxPolicy
