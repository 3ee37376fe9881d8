// Policies as the records that the library accepts.
#include "policy/Policy.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace KxPolicy
{

bool IsActive(const Policy& policy, uint16_t ruleSetIndex) noexcept
{
    return policy.Active &&
           std::find(policy.Active->begin(), policy.Active->end(), ruleSetIndex) != policy.Active->end();
}

std::vector<unsigned char> MacroBytes(const MacroRecord& macro)
{
    std::vector<unsigned char> block(KXRULE_MACRO_BYTES(macro.Items.size()));
    PFW_MACRO* const record = reinterpret_cast<PFW_MACRO*>(block.data());
    std::memcpy(&record->szName, macro.Name.data(), std::min(macro.Name.size(), sizeof record->szName - 1));
    record->nItemCount = static_cast<int32_t>(macro.Items.size());
    for (size_t i = 0; i < macro.Items.size(); ++i)
        KXRULE_MACRO_ITEMS(record)[i] = macro.Items[i];
    return block;
}

std::vector<unsigned char> RuleSetBytes(uint16_t index, const KxCommon::WideString& name,
                                        const std::vector<const PFW_RULE*>& rules)
{
    std::vector<unsigned char> block(KXRULE_RULESET_BYTES(rules.size()));
    PFW_RULESET* const record = reinterpret_cast<PFW_RULESET*>(block.data());
    record->wRuleSetIndex = index;
    std::memcpy(block.data() + offsetof(PFW_RULESET, wszName), name.data(),
                std::min(name.size(), size_t{KXRULE_RULESET_NAME_UNITS - 1}) * sizeof(KXWCHAR));
    record->nRuleCount = static_cast<int32_t>(rules.size());
    for (size_t i = 0; i < rules.size(); ++i)
        KXRULE_RULES(record)[i] = *rules[i];
    return block;
}

} // namespace KxPolicy
