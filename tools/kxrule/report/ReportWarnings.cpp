// Warnings about the rules of a store.
#include <algorithm>
#include <map>

#include "common/srclib/KxComn_Names.h"
#include "common/srclib/KxComn_Record.h"
#include "policy/Decide.h"
#include "policy/Lint.h"
#include "policy/RecordText.h"
#include "policy/RuleFields.h"
#include "policy/Utf8.h"
#include "tools/kxrule/report/Report.h"

namespace Tool
{
namespace
{

using KxCommon::WideString;
using KxCommon::Record::WideText;

/// Active rule sets in the order of the list, then the others.
std::vector<std::vector<uint16_t>> Orders(const Policy& policy)
{
    std::vector<std::vector<uint16_t>> orders = {policy.Active.value_or(std::vector<uint16_t>())};
    for (const RuleSetRecord& ruleSet : policy.RuleSets)
    {
        if (!IsActive(policy, ruleSet.Index))
            orders.push_back({ruleSet.Index}); // on its own
    }
    return orders;
}

bool IsAnyToAny(const PFW_RULE& rule)
{
    return rule.dwKind == KXRULE_KIND_ACCESS && rule.dwActive != 0 && rule.Access.dwAction == KXRULE_ACTION_ACCEPT &&
           rule.Access.dwProtocol == KXRULE_PROTOCOL_ANY && rule.Access.dwExtFlag == 0 &&
           rule.Access.Addr[0].dwType == KXRULE_ADDR_ANY && rule.Access.Addr[1].dwType == KXRULE_ADDR_ANY &&
           rule.Access.Port[0].nType <= KXRULE_PORT_ANY && rule.Access.Port[1].nType <= KXRULE_PORT_ANY;
}

bool LacksHash(const PFW_RULE& rule)
{
    return rule.dwKind == KXRULE_KIND_ACCESS && rule.Access.dwSystem == 0 &&
           !WideText(&rule.Access.wszAppName, KXRULE_APP_NAME_UNITS).empty() &&
           IsZero(&rule.Access.abAppHash, KXRULE_HASH_BYTES);
}

/// Rules by which the library replaced damaged ones.
bool IsRescue(const PFW_RULE& rule)
{
    return rule.dwKind == KXRULE_KIND_ACCESS &&
           WideText(&rule.wszDescription, KXRULE_DESCRIPTION_UNITS) == KxCommon::Names::kRescueDescription;
}

Keywords ActionNames()
{
    for (const RuleField& field : KindFields(KXRULE_KIND_ACCESS))
    {
        if (std::string_view(field.Name) == "action")
            return field.Names;
    }
    return {};
}

} // namespace

std::vector<Warning> FindWarnings(const Policy& policy)
{
    std::vector<Warning> warnings;
    if (policy.Active && policy.Active->empty() && !policy.RuleSets.empty())
        warnings.push_back({WarningKind::NothingActive, 0, 0, false, "No rule set is active."});
    for (const uint16_t index : policy.Active.value_or(std::vector<uint16_t>()))
    {
        const bool exists = std::any_of(policy.RuleSets.begin(), policy.RuleSets.end(),
                                        [index](const RuleSetRecord& ruleSet) { return ruleSet.Index == index; });
        if (!exists)
            warnings.push_back({WarningKind::NotThere, index, 0, false, "is active but does not exist."});
    }

    std::map<WideString, std::vector<RuleRef>> withoutHash;
    for (const std::vector<uint16_t>& order : Orders(policy))
    {
        const Decider decider(policy, order);
        for (size_t place = 0; place < decider.Count(); ++place)
        {
            const RuleRef located = decider.Rule(place);
            const PFW_RULE& rule = *located.Rule;
            const RuleSetRecord* const ruleSet = located.RuleSet;
            const auto warn = [&](WarningKind kind, std::string text) {
                warnings.push_back({kind, ruleSet->Index, rule.wRuleIndex, true, std::move(text)});
            };
            if (auto covering = decider.Covering(place); !covering)
                warn(WarningKind::Unchecked, "has too many parts to tell whether rules before it leave it anything.");
            else if (!covering->empty())
            {
                const bool isSame = std::all_of(covering->begin(), covering->end(),
                                                [&rule](const RuleRef& by)
                                                { return by.Rule->Access.dwAction == rule.Access.dwAction; });
                warn(isSame ? WarningKind::Redundant : WarningKind::Covered,
                     KeywordText(ActionNames(), rule.Access.dwAction) + ", decided before by");
                warnings.back().By = std::move(*covering);
            }
            if (IsRescue(rule))
                warn(WarningKind::Rescue,
                     ruleSet->Rules.size() > 3
                         ? "is a rescue rule that has outlived the damage: other rules are there again."
                         : "is a rescue rule: the rules of this set were damaged and must be replaced.");
            else if (IsAnyToAny(rule))
                warn(WarningKind::AnyToAny, "accepts everything from anybody to anybody.");
            if (LacksHash(rule))
                withoutHash[WideText(&rule.Access.wszAppName, KXRULE_APP_NAME_UNITS)].push_back(located);
        }
    }
    for (const LintFinding& finding : Lint(policy))
    {
        if (std::string_view(finding.Code) == "no-such-rule-set") // told above
            continue;
        const std::string subject = finding.RuleSetIndex != 0 ? "" : "The " + finding.Where() + " ";
        warnings.push_back({WarningKind::Mistake, finding.RuleSetIndex, finding.RuleIndex.value_or(0),
                            finding.RuleIndex.has_value(), subject + finding.Text + "."});
    }
    for (auto& [program, rules] : withoutHash)
        warnings.push_back({WarningKind::NoHash, 0, 0, false,
                            ToUtf8(program) + " has no hash: what replaces it is matched too by", std::move(rules)});
    return warnings;
}

} // namespace Tool
