// What replaces a rule set whose file cannot be read: the rules that precede the damage stay, and three more tell the
// user what happened. docs/recovery.md explains it.
#include "repository/RuleSetRescue.h"

#include <cstring>
#include <string>

#include "common/srclib/KxComn_Names.h"
#include "common/srclib/KxComn_Trace.h"
#include "rules/RuleText.h"

namespace
{

constexpr KXWCHAR kName[] = KXW("This is a rescue RuleSet for a broken/deleted RuleSet.");
constexpr uint16_t kFirstRuleIndex = 30000;
constexpr uint32_t kNoProtocol = 0xFFFFFFFF; // in no protocol table: the rule's text shows none

struct RescueRule
{
    uint32_t Number; // goes into the record's second spare word
    uint32_t Action;
};
constexpr RescueRule kRules[] = {{1, KXRULE_ACTION_DROP}, {2, KXRULE_ACTION_ACCEPT}, {3, KXRULE_ACTION_ACCEPT}};

PFW_RULE MakeRecord(const RescueRule& rule)
{
    PFW_RULE record;
    std::memset(&record, 0, sizeof record);
    static_assert(sizeof KxCommon::Names::kRescueDescription <= sizeof record.wszDescription);
    std::memcpy(&record.wszDescription, KxCommon::Names::kRescueDescription,
                sizeof KxCommon::Names::kRescueDescription);
    record.dwActive = 1;
    record.dwKind = KXRULE_KIND_ACCESS;
    record.Access.dwProtocol = kNoProtocol;
    record.Access.dwSpare2 = rule.Number;
    for (RULE_ADDR& address : record.Access.Addr)
        address.dwType = KXRULE_ADDR_ANY;
    for (RULE_PORT& port : record.Access.Port)
        port.nType = KXRULE_PORT_ANY;
    record.Access.dwAction = rule.Action;
    return record;
}

void AddRescueRule(CRuleSet& ruleSet, const RescueRule& rescueRule)
{
    const unsigned ruleSetIndex = ruleSet.Index();
    const uint16_t ruleIndex = static_cast<uint16_t>(kFirstRuleIndex + ruleSet.RuleCount());
    const CRule rule(MakeRecord(rescueRule));
    if (const int32_t result = ruleSet.AddRule(ruleIndex, rule); result != KXRULE_OK)
    {
        KX_TRACE(KxCommon::kTraceError, "\tCRuleSet::AddRule() failed (nResult=%d, index=%u:%u)", result, ruleSetIndex,
                 ruleIndex);
        return;
    }
    RuleText::Line line;
    if (const int32_t result = rule.GetRuleString(line); result != KXRULE_OK)
        KX_TRACE(KxCommon::kTraceError, "\tCRule::GetRuleString() failed (nResult=%d, index=%u:%u)", result,
                 ruleSetIndex, ruleIndex);
    else
        KX_TRACE(KxCommon::kTraceCall, "\tAdded rescue rule (index=%u:%u, rule=\"%s\")", ruleSetIndex, ruleIndex,
                 std::string(line.View()).c_str());
}

} // namespace

namespace RuleSetRescue
{

void MakeRescueSet(CRuleSet& ruleSet)
{
    ruleSet.SetName(kName);
    for (const RescueRule& rule : kRules)
        AddRescueRule(ruleSet, rule);
}

} // namespace RuleSetRescue
