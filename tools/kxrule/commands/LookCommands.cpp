// Commands that only look: list, show, macros, find, active.
#include <algorithm>
#include <cstring>

#include <nlohmann/json.hpp>

#include "common/srclib/KxComn_Record.h"
#include "policy/Find.h"
#include "policy/ItemText.h"
#include "policy/RecordText.h"
#include "policy/RuleFields.h"
#include "policy/RulesText.h"
#include "policy/Utf8.h"
#include "policy/Words.h"
#include "tools/kxrule/commands/Commands.h"
#include "tools/kxrule/console/Columns.h"

namespace Tool
{
namespace
{

std::string Text(const PFW_RULE& rule, const RuleField& field)
{
    return WideFieldText(reinterpret_cast<const uint8_t*>(&rule) + field.Places[0], field.Room);
}

std::string Description(const PFW_RULE& rule)
{
    return WideFieldText(&rule.wszDescription, KXRULE_DESCRIPTION_UNITS);
}

std::string Application(const PFW_RULE& rule)
{
    for (const RuleField& field : KindFields(rule.dwKind))
    {
        if (field.Type == FieldType::Application)
            return Text(rule, field);
    }
    return {};
}

std::string ActionText(const PFW_RULE& rule)
{
    for (const RuleField& field : KindFields(rule.dwKind))
    {
        if (std::string_view(field.Name) == "action")
            return KeywordText(field.Names, KxCommon::Record::Load<uint32_t>(reinterpret_cast<const uint8_t*>(&rule) +
                                                                             field.Places[0]));
    }
    return {};
}

/// The library does not render IPv6.
bool IsHidden(const RULE_ADDR& item)
{
    return item.dwFamily == KXRULE_FAMILY_IPV6 && item.dwType != KXRULE_ADDR_ANY && item.dwType != KXRULE_ADDR_NAME;
}

Json RuleWithLine(const PFW_RULE& rule, const std::string& line)
{
    Json json = RuleAsJson(rule);
    if (!line.empty())
        json["line"] = line;
    return json;
}

void PrintRuleSet(Session& session, const Policy& policy, const RuleSetRecord& ruleSet)
{
    Console& console = session.Terminal();
    console.Out(console.Paint(Style::Strong,
                              "Rule set " + std::to_string(ruleSet.Index) + "  " + Printable(ToUtf8(ruleSet.Name))) +
                "  (" + Count(ruleSet.Rules.size(), "rule") +
                (IsActive(policy, ruleSet.Index) ? ", active)" : ", not active)") + "\n");
    for (const PFW_RULE& rule : ruleSet.Rules)
        PrintRule(session, rule);
    console.Out("\n");
}

Json RuleSetWithLines(const Policy& policy, const RuleSetRecord& ruleSet)
{
    Json json = {{"index", ruleSet.Index},
                 {"name", ToUtf8(ruleSet.Name)},
                 {"active", IsActive(policy, ruleSet.Index)},
                 {"rules", Json::array()}};
    for (const PFW_RULE& rule : ruleSet.Rules)
        json["rules"].push_back(RuleWithLine(rule, RuleLine(rule)));
    return json;
}

void PrintMacro(Session& session, const MacroRecord& macro)
{
    Console& console = session.Terminal();
    console.Out("  " + Printable(MacroLine(macro)) + "\n");
    std::string hidden;
    for (const MACRO_ITEM& item : macro.Items)
    {
        if (item.dwItemType == KXRULE_ITEM_ADDR && IsHidden(item.Addr))
            hidden += (hidden.empty() ? "" : " ") + AddressText(item.Addr);
    }
    if (!hidden.empty())
        console.Out("    " + console.Paint(Style::Dim, hidden) + "\n");
}

void PrintMacros(Session& session, const Policy& policy)
{
    Console& console = session.Terminal();
    if (policy.Macros->empty())
        return;
    console.Out(console.Paint(Style::Strong, "Macros") + "\n");
    for (const MacroRecord& macro : *policy.Macros)
        PrintMacro(session, macro);
}

/// Without what a filter does not let through; rule sets that are left without rules go with them.
Policy Filtered(Policy policy, const Filter& filter)
{
    const bool ofRules = filter.Off || !filter.Action.empty() || !filter.Application.empty();
    const KxCommon::WideString application = FromUtf8(filter.Application);
    std::erase_if(policy.RuleSets,
                  [&](RuleSetRecord& ruleSet)
                  {
                      std::erase_if(ruleSet.Rules,
                                    [&](const PFW_RULE& rule)
                                    {
                                        return (filter.Off && rule.dwActive != 0) ||
                                               (!filter.Action.empty() && filter.Action != ActionText(rule)) ||
                                               (!application.empty() &&
                                                !Contains(FromUtf8(Application(rule)), application));
                                    });
                      return (ofRules && ruleSet.Rules.empty()) || (filter.Active && !IsActive(policy, ruleSet.Index));
                  });
    if (ofRules)
        policy.Macros.emplace();
    return policy;
}

int ShowRule(Session& session, const RuleSetRecord& ruleSet, uint16_t ruleIndex)
{
    for (const PFW_RULE& rule : ruleSet.Rules)
    {
        if (rule.wRuleIndex != ruleIndex)
            continue;
        const std::string line = RuleLine(rule);
        if (session.Options().Json)
            session.Terminal().Out(RuleWithLine(rule, line).dump(2) + "\n");
        else
            session.Terminal().Out(Printable(RuleToText(rule, true)) + "\n" + RuleToJson(rule));
        return ExitDone;
    }
    throw Failure("rule set " + std::to_string(ruleSet.Index) + " has no rule " + std::to_string(ruleIndex));
}

} // namespace

void PrintRule(Session& session, const PFW_RULE& rule)
{
    Console& console = session.Terminal();
    const std::string index = std::to_string(rule.wRuleIndex);
    console.Out(std::string(index.size() < 7 ? 7 - index.size() : 0, ' ') + index + "  " +
                console.Paint(rule.dwActive != 0 ? Style::Plain : Style::Dim, Printable(RuleToText(rule, true))) +
                "\n");
    std::string more;
    for (const std::string& part : {Description(rule), Application(rule)})
    {
        if (!part.empty())
            more += (more.empty() ? "" : "  |  ") + Printable(part);
    }
    if (!more.empty())
        console.Out("         " + console.Paint(Style::Dim, more) + "\n");
}

RuleSetRecord& FindRuleSet(Policy& policy, uint16_t index)
{
    for (RuleSetRecord& ruleSet : policy.RuleSets)
    {
        if (ruleSet.Index == index)
            return ruleSet;
    }
    throw Failure("there is no rule set " + std::to_string(index));
}

const RuleSetRecord& FindRuleSet(const Policy& policy, uint16_t index)
{
    return FindRuleSet(const_cast<Policy&>(policy), index); // handed back as const
}

int List(Session& session, const Filter& filter)
{
    session.OpenToLook();
    const Policy policy = Filtered(session.Read(), filter);
    Console& console = session.Terminal();
    if (session.Options().Json)
    {
        Json json = Json::array();
        for (const RuleSetRecord& ruleSet : policy.RuleSets)
            json.push_back({{"index", ruleSet.Index},
                            {"name", ToUtf8(ruleSet.Name)},
                            {"rules", ruleSet.Rules.size()},
                            {"active", IsActive(policy, ruleSet.Index)}});
        console.Out(json.dump(2) + "\n");
        return ExitDone;
    }
    std::vector<std::vector<std::string>> rows = {{"index", "rules", "active", "name"}};
    for (const RuleSetRecord& ruleSet : policy.RuleSets)
        rows.push_back({std::to_string(ruleSet.Index), std::to_string(ruleSet.Rules.size()),
                        IsActive(policy, ruleSet.Index) ? "yes" : "no", Printable(ToUtf8(ruleSet.Name))});
    const std::vector<std::string> lines = Aligned(rows, {0, 1});
    for (size_t i = 0; i < lines.size(); ++i)
        console.Out((i == 0 ? console.Paint(Style::Strong, lines[i]) : lines[i]) + "\n");
    console.Out(Count(policy.RuleSets.size(), "rule set") + ", " + Count(policy.Macros->size(), "macro") + "\n");
    return ExitDone;
}

int Show(Session& session, std::optional<uint16_t> ruleSetIndex, std::optional<uint16_t> ruleIndex,
         const Filter& filter)
{
    session.OpenToLook();
    const Policy policy = Filtered(session.Read(), filter);
    if (ruleIndex)
        return ShowRule(session, FindRuleSet(policy, *ruleSetIndex), *ruleIndex);
    if (session.Options().Json)
    {
        Json json;
        if (ruleSetIndex)
        {
            json = RuleSetWithLines(policy, FindRuleSet(policy, *ruleSetIndex));
        }
        else
        {
            json = {{"ruleSets", Json::array()}, {"macros", Json::array()}};
            for (const RuleSetRecord& ruleSet : policy.RuleSets)
                json["ruleSets"].push_back(RuleSetWithLines(policy, ruleSet));
            for (const MacroRecord& macro : *policy.Macros)
                json["macros"].push_back({{"name", NarrowToUtf8(macro.Name)}, {"line", MacroLine(macro)}});
        }
        session.Terminal().Out(json.dump(2) + "\n");
        return ExitDone;
    }
    if (ruleSetIndex)
    {
        PrintRuleSet(session, policy, FindRuleSet(policy, *ruleSetIndex));
        return ExitDone;
    }
    for (const RuleSetRecord& ruleSet : policy.RuleSets)
        PrintRuleSet(session, policy, ruleSet);
    PrintMacros(session, policy);
    return ExitDone;
}

int Macros(Session& session)
{
    session.OpenToLook();
    const Policy policy = session.Read();
    if (!session.Options().Json)
    {
        for (const MacroRecord& macro : *policy.Macros)
            PrintMacro(session, macro);
        return ExitDone;
    }
    Json json = MacrosAsJson(*policy.Macros);
    for (size_t i = 0; i < json.size(); ++i)
        json[i]["line"] = MacroLine((*policy.Macros)[i]);
    session.Terminal().Out(json.dump(2) + "\n");
    return ExitDone;
}

int FindCommand(Session& session, const std::string& query, bool withAny)
{
    session.OpenToLook();
    const Policy policy = session.Read();
    const std::vector<Hit> hits = Find(policy, query, withAny);
    Console& console = session.Terminal();
    if (session.Options().Json)
    {
        Json json = Json::array();
        for (const Hit& hit : hits)
        {
            Json& entry = json.emplace_back();
            if (hit.Macro != nullptr)
                entry["macro"] = NarrowToUtf8(hit.Macro->Name);
            if (hit.RuleSet != nullptr)
                entry["ruleSet"] = hit.RuleSet->Index;
            if (hit.Rule != nullptr)
                entry["rule"] = uint16_t{hit.Rule->wRuleIndex};
            entry["where"] = hit.Where;
        }
        console.Out(json.dump(2) + "\n");
        return ExitDone;
    }
    const RuleSetRecord* shown = nullptr;
    for (const Hit& hit : hits)
    {
        if (hit.RuleSet != nullptr && hit.RuleSet != shown)
            console.Out(console.Paint(Style::Strong, "Rule set " + std::to_string(hit.RuleSet->Index) + "  " +
                                                         Printable(ToUtf8(hit.RuleSet->Name))) +
                        "\n");
        shown = hit.RuleSet;
        if (hit.RuleSet != nullptr && hit.Rule != nullptr)
            PrintRule(session, *hit.Rule);
        if (hit.Macro != nullptr)
            PrintMacro(session, *hit.Macro);
    }
    console.Out(hits.empty() ? "no match\n" : Count(hits.size(), "hit") + "\n");
    return ExitDone;
}

int Active(Session& session)
{
    session.OpenToLook();
    const Policy policy = session.Read();
    if (session.Options().Json)
    {
        session.Terminal().Out(Json(*policy.Active).dump() + "\n");
        return ExitDone;
    }
    for (const uint16_t index : *policy.Active)
    {
        const auto found = std::find_if(policy.RuleSets.begin(), policy.RuleSets.end(),
                                        [index](const RuleSetRecord& ruleSet) { return ruleSet.Index == index; });
        session.Terminal().Out(
            std::to_string(index) + "  " +
            (found == policy.RuleSets.end() ? "(there is no such rule set)" : Printable(ToUtf8(found->Name))) + "\n");
    }
    if (policy.Active->empty())
        session.Terminal().Out("no rule set is active\n");
    return ExitDone;
}

} // namespace Tool
