// Reports what a policy or a store may contain but probably should not.
#include "policy/Lint.h"

#include <algorithm>
#include <set>

#include "common/srclib/KxComn_Record.h"
#include "policy/ItemText.h"
#include "policy/Ranges.h"
#include "policy/RecordText.h"
#include "policy/RuleFields.h"
#include "policy/Utf8.h"
#include "rules/Normalise.h"

namespace KxPolicy
{
namespace
{

using KxCommon::Record::Load;
constexpr uint32_t kRescue = UINT32_MAX; // the protocol of rescue rules

using MacroLists = std::vector<const std::vector<MacroRecord>*>;

bool IsMacro(const MacroLists& macros, std::string_view name)
{
    return std::any_of(macros.begin(), macros.end(),
                       [name](const std::vector<MacroRecord>* list) {
                           return std::any_of(list->begin(), list->end(),
                                              [name](const MacroRecord& macro) { return macro.Name == name; });
                       });
}

/// An address with bits outside its mask means its network, which would be the clearer notation.
bool HasHostBits(const RULE_ADDR& item)
{
    if (item.dwType != KXRULE_ADDR_MASK && item.dwType != KXRULE_ADDR_PREFIX)
        return false;
    RULE_ADDR network = item;
    network.dwNot = 0;
    RULE_ADDR single = network;
    single.dwType = KXRULE_ADDR_SINGLE;
    const std::optional<AddressSet> whole = SetOf(network);
    const std::optional<AddressSet> address = SetOf(single);
    return whole && address && !whole->empty() && !(whole->front().First == address->front().First);
}

/// Checks one rule, or one macro, whose place every finding is given.
class Linter
{
public:
    Linter(LintFinding place, const MacroLists& macros, std::vector<LintFinding>& findings)
        : m_Place(std::move(place)), m_Macros(macros), m_Findings(findings)
    {
    }

    void Find(const char* code, std::string text)
    {
        LintFinding& finding = m_Findings.emplace_back(m_Place);
        finding.Code = code;
        finding.Text = std::move(text);
    }

    void Address(const RULE_ADDR& item)
    {
        if (item.dwType == KXRULE_ADDR_NAME)
            return Name(KxCommon::Record::Text(&item.szName, sizeof item.szName));
        if (HasHostBits(item))
            Find("host-bits", "has address bits outside the mask of " + AddressText(item) + ", which are ignored");
        if (item.dwType >= KXRULE_ADDR_SINGLE && item.dwType <= KXRULE_ADDR_RANGE)
            m_Families.insert(uint32_t{item.dwFamily});
    }
    void Port(const RULE_PORT& item)
    {
        if (item.nType == KXRULE_PORT_NAME)
            Name(KxCommon::Record::Text(&item.szList, sizeof item.szList));
        m_HasPorts = m_HasPorts || item.nType > KXRULE_PORT_ANY;
    }

    void Rule(const PFW_RULE& rule)
    {
        const uint8_t* const record = reinterpret_cast<const uint8_t*>(&rule);
        if (KeywordName(kKinds, rule.dwKind).empty())
            Find("unknown-number", "has the kind " + std::to_string(uint32_t{rule.dwKind}) + ", which is unknown");
        std::optional<uint32_t> protocol;
        for (const RuleField& field : KindFields(rule.dwKind))
        {
            for (size_t i = 0; i < field.Count; ++i)
                Field(field, record + field.Places[i]);
            if (std::string_view(field.Name) == "protocol")
                protocol = Load<uint32_t>(record + field.Places[0]);
        }
        if (protocol == KXRULE_PROTOCOL_ICMP && m_HasPorts)
            Find("icmp-ports", "has ports, but the protocol icmp has none");
        if (m_Families.size() > 1)
            Find("two-families", "has IPv4 and IPv6 addresses, between which there is no traffic");
        if (!m_Program.empty() && !Normalise::IsSystemRule(rule) && m_Program.find_first_of("\\/") == std::string::npos)
            Find("no-path", "is bound to \"" + m_Program + "\", which has no path");
    }

private:
    void Name(std::string_view name)
    {
        if (!IsMacro(m_Macros, name))
            Find("no-such-macro", "names the macro \"" + NarrowToUtf8(std::string(name)) + "\", which does not exist");
    }
    void Field(const RuleField& field, const uint8_t* at)
    {
        if (field.Type == FieldType::Address)
            Address(Load<RULE_ADDR>(at));
        else if (field.Type == FieldType::Port)
            Port(Load<RULE_PORT>(at));
        else if (field.Type == FieldType::Keyword && Load<uint32_t>(at) != kRescue &&
                 KeywordName(field.Names, Load<uint32_t>(at)).empty())
            Find("unknown-number", "has the " + std::string(field.Name) + " " + std::to_string(Load<uint32_t>(at)) +
                                       ", which is unknown");
        else if (field.Type == FieldType::Application)
            m_Program = WideFieldText(at, field.Room);
    }

    LintFinding m_Place;
    const MacroLists& m_Macros;
    std::vector<LintFinding>& m_Findings;
    std::set<uint32_t> m_Families;
    bool m_HasPorts = false;
    std::string m_Program;
};

bool Has(const Policy* policy, uint16_t ruleSetIndex)
{
    return policy != nullptr &&
           std::any_of(policy->RuleSets.begin(), policy->RuleSets.end(),
                       [ruleSetIndex](const RuleSetRecord& ruleSet) { return ruleSet.Index == ruleSetIndex; });
}

} // namespace

std::string LintFinding::Where() const
{
    if (Macro)
        return "macro \"" + NarrowToUtf8(*Macro) + "\"";
    if (RuleSetIndex == 0)
        return "active list";
    return "rule set " + std::to_string(RuleSetIndex) + (RuleIndex ? ", rule " + std::to_string(*RuleIndex) : "");
}

std::vector<LintFinding> Lint(const Policy& policy, const Policy* beside)
{
    std::vector<LintFinding> findings;
    std::set<uint16_t> active;
    for (const uint16_t index : policy.Active.value_or(std::vector<uint16_t>()))
    {
        if (!active.insert(index).second)
            findings.push_back({"active-twice", 0, {}, {}, "has rule set " + std::to_string(index) + " twice"});
        else if (!Has(&policy, index) && !Has(beside, index))
            findings.push_back(
                {"no-such-rule-set", 0, {}, {}, "has rule set " + std::to_string(index) + ", which does not exist"});
    }
    MacroLists macros;
    for (const Policy* const source : {&policy, beside})
    {
        if (source != nullptr && source->Macros)
            macros.push_back(&*source->Macros);
    }
    std::set<std::string> names;
    for (const MacroRecord& macro : policy.Macros.value_or(std::vector<MacroRecord>()))
    {
        Linter linter({"", 0, {}, macro.Name, {}}, macros, findings);
        if (!names.insert(macro.Name).second)
            linter.Find("macro-twice", "has the same name as another macro");
        for (const MACRO_ITEM& item : macro.Items)
        {
            if (item.dwItemType == KXRULE_ITEM_ADDR)
                linter.Address(item.Addr);
            else if (item.dwItemType == KXRULE_ITEM_PORT)
                linter.Port(item.Port);
        }
    }
    for (const RuleSetRecord& ruleSet : policy.RuleSets)
        LintRules(ruleSet.Index, ruleSet.Rules, macros, findings);
    return findings;
}

void LintRules(uint16_t ruleSetIndex, const std::vector<PFW_RULE>& rules,
               const std::vector<const std::vector<MacroRecord>*>& macros, std::vector<LintFinding>& findings)
{
    for (const PFW_RULE& rule : rules)
        Linter({"", ruleSetIndex, uint16_t{rule.wRuleIndex}, {}, {}}, macros, findings).Rule(rule);
}

std::string ActiveListMistake(const std::vector<uint16_t>& active, const std::vector<uint16_t>& ruleSets)
{
    std::set<uint16_t> seen;
    for (const uint16_t index : active)
    {
        if (std::find(ruleSets.begin(), ruleSets.end(), index) == ruleSets.end())
            return "rule set " + std::to_string(index) + " cannot be active: it does not exist";
        if (!seen.insert(index).second)
            return "rule set " + std::to_string(index) + " cannot be active twice";
    }
    return {};
}

} // namespace KxPolicy
