// Commands that only read: list, show, macros, find, active.
#include <algorithm>
#include <cstring>
#include <map>

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

std::string Description(const PFW_RULE& rule)
{
    return WideFieldText(&rule.wszDescription, KXRULE_DESCRIPTION_UNITS);
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

std::string RuleText(const Console& console, const PFW_RULE& rule)
{
    const std::string index = std::to_string(rule.wRuleIndex);
    std::string text =
        std::string(index.size() < 7 ? 7 - index.size() : 0, ' ') + index + "  " +
        console.Paint(rule.dwActive != 0 ? Style::Plain : Style::Dim, Printable(RuleToText(rule, true))) + "\n";
    std::string more;
    for (const std::string& part : {Description(rule), ToUtf8(ApplicationOf(rule))})
    {
        if (!part.empty())
            more += (more.empty() ? "" : "  |  ") + Printable(part);
    }
    if (!more.empty())
        text += "         " + console.Paint(Style::Dim, more) + "\n";
    return text;
}

std::string RuleSetTitle(const Console& console, const RuleSetRecord& ruleSet)
{
    return console.Paint(Style::Strong,
                         "Rule set " + std::to_string(ruleSet.Index) + "  " + Printable(ToUtf8(ruleSet.Name)));
}

std::string RuleSetText(const Console& console, const Policy& policy, const RuleSetRecord& ruleSet)
{
    std::string text = RuleSetTitle(console, ruleSet) + "  (" + Count(ruleSet.Rules.size(), "rule") +
                       (IsActive(policy, ruleSet.Index) ? ", active)" : ", not active)") + "\n";
    for (const PFW_RULE& rule : ruleSet.Rules)
        text += RuleText(console, rule);
    return text + "\n";
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

std::string MacroText(const Console& console, const MacroRecord& macro)
{
    const std::string text = "  " + Printable(MacroLine(macro)) + "\n";
    std::string hidden;
    for (const MACRO_ITEM& item : macro.Items)
    {
        if (item.dwItemType == KXRULE_ITEM_ADDR && IsHidden(item.Addr))
            hidden += (hidden.empty() ? "" : " ") + AddressText(item.Addr);
    }
    return hidden.empty() ? text : text + "    " + console.Paint(Style::Dim, hidden) + "\n";
}

/// Reduces a rule set to what passes a filter. False if nothing is left of it.
bool Passes(const Filter& filter, const Policy& policy, RuleSetRecord& ruleSet)
{
    const KxCommon::WideString application = FromUtf8(filter.Application);
    std::erase_if(ruleSet.Rules,
                  [&](const PFW_RULE& rule)
                  {
                      return (filter.Off && rule.dwActive != 0) ||
                             (!filter.Action.empty() && filter.Action != ActionText(rule)) ||
                             (!application.empty() && !Contains(ApplicationOf(rule), application));
                  });
    return !(filter.IsOfRules() && ruleSet.Rules.empty()) && !(filter.Active && !IsActive(policy, ruleSet.Index));
}

std::string RuleAlone(const RuleSetRecord& ruleSet, uint16_t ruleIndex, bool isJson)
{
    for (const PFW_RULE& rule : ruleSet.Rules)
    {
        if (rule.wRuleIndex != ruleIndex)
            continue;
        const std::string line = RuleLine(rule);
        return isJson ? RuleWithLine(rule, line).dump(2) + "\n"
                      : Printable(RuleToText(rule, true)) + "\n" + RuleToJson(rule);
    }
    return {};
}

/// Text indented by one more level, as an element of a list.
std::string Indented(const std::string& text)
{
    std::string indented = "    ";
    for (const char c : text)
        indented += c == '\n' ? std::string("\n    ") : std::string(1, c);
    return indented;
}

/// The whole store, given the text of each rule set.
std::string StoreText(const Console& console, const Policy& policy, std::map<uint16_t, std::string>& texts)
{
    std::string text;
    for (const RuleSetRecord& ruleSet : policy.RuleSets)
        text += texts[ruleSet.Index];
    if (!policy.Macros->empty())
        text += console.Paint(Style::Strong, "Macros") + "\n";
    for (const MacroRecord& macro : *policy.Macros)
        text += MacroText(console, macro);
    return policy.RuleSets.empty() && policy.Macros->empty() ? "no rule sets, no macros\n" : text;
}

std::string StoreJson(const Policy& policy, std::map<uint16_t, std::string>& texts)
{
    std::string text = "{\n  \"ruleSets\": [";
    for (const RuleSetRecord& ruleSet : policy.RuleSets)
        text += (&ruleSet == policy.RuleSets.data() ? "\n" : ",\n") + Indented(texts[ruleSet.Index]);
    Json macros = Json::array();
    for (const MacroRecord& macro : *policy.Macros)
        macros.push_back({{"name", NarrowToUtf8(macro.Name)}, {"line", MacroLine(macro)}});
    const std::string end = Json({{"macros", macros}}).dump(2);
    return text + (policy.RuleSets.empty() ? "]" : "\n  ]") + "," + end.substr(1) + "\n";
}

} // namespace

void PrintRule(Session& session, const PFW_RULE& rule)
{
    session.Terminal().Out(RuleText(session.Terminal(), rule));
}

void LeaveOut(const Policy&, const RuleSetRecord&) {}

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
    return FindRuleSet(const_cast<Policy&>(policy), index); // returned as const
}

std::vector<PFW_RULE>::iterator FindRule(RuleSetRecord& ruleSet, uint16_t index)
{
    const auto found = std::find_if(ruleSet.Rules.begin(), ruleSet.Rules.end(),
                                    [index](const PFW_RULE& rule) { return rule.wRuleIndex == index; });
    if (found == ruleSet.Rules.end())
        throw Failure("rule set " + std::to_string(ruleSet.Index) + " has no rule " + std::to_string(index));
    return found;
}

int List(Session& session, const Filter& filter)
{
    std::map<uint16_t, size_t> rules;
    const auto take = [&](const Policy& soFar, RuleSetRecord ruleSet)
    {
        rules.erase(ruleSet.Index);
        if (Passes(filter, soFar, ruleSet))
            rules[ruleSet.Index] = ruleSet.Rules.size();
    };
    Policy policy = session.Look(take);
    std::erase_if(policy.RuleSets, [&rules](const RuleSetRecord& ruleSet) { return rules.count(ruleSet.Index) == 0; });
    Console& console = session.Terminal();
    if (session.Options().Json)
    {
        Json json = Json::array();
        for (const RuleSetRecord& ruleSet : policy.RuleSets)
            json.push_back({{"index", ruleSet.Index},
                            {"name", ToUtf8(ruleSet.Name)},
                            {"rules", rules[ruleSet.Index]},
                            {"active", IsActive(policy, ruleSet.Index)}});
        console.Out(json.dump(2) + "\n");
        return ExitDone;
    }
    std::vector<std::vector<std::string>> rows = {{"index", "rules", "active", "name"}};
    for (const RuleSetRecord& ruleSet : policy.RuleSets)
        rows.push_back({std::to_string(ruleSet.Index), std::to_string(rules[ruleSet.Index]),
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
    Console& console = session.Terminal();
    const bool isJson = session.Options().Json;
    std::map<uint16_t, std::string> texts; // one rule set at a time: records are several times as large
    const auto take = [&](const Policy& soFar, RuleSetRecord ruleSet)
    {
        texts.erase(ruleSet.Index);
        if (ruleSetIndex ? ruleSet.Index != *ruleSetIndex : !Passes(filter, soFar, ruleSet))
            return;
        if (ruleSetIndex && !ruleIndex)
            static_cast<void>(Passes(filter, soFar, ruleSet)); // requested by index: shown even without rules
        texts[ruleSet.Index] = ruleIndex ? RuleAlone(ruleSet, *ruleIndex, isJson)
                               : isJson  ? RuleSetWithLines(soFar, ruleSet).dump(2)
                                         : RuleSetText(console, soFar, ruleSet);
    };
    Policy policy = session.Look(take);
    if (!ruleSetIndex)
    {
        std::erase_if(policy.RuleSets,
                      [&texts](const RuleSetRecord& ruleSet) { return texts.count(ruleSet.Index) == 0; });
        if (filter.IsOfRules())
            policy.Macros.emplace();
        console.Out(isJson ? StoreJson(policy, texts) : StoreText(console, policy, texts));
        return ExitDone;
    }
    const std::string& text = texts[FindRuleSet(policy, *ruleSetIndex).Index];
    if (text.empty())
        throw Failure("rule set " + std::to_string(*ruleSetIndex) + " has no rule " + std::to_string(*ruleIndex));
    console.Out(text + (isJson && !ruleIndex ? "\n" : ""));
    return ExitDone;
}

int Macros(Session& session)
{
    const Policy policy = session.Look(LeaveOut);
    if (!session.Options().Json)
    {
        for (const MacroRecord& macro : *policy.Macros)
            session.Terminal().Out(MacroText(session.Terminal(), macro));
        if (policy.Macros->empty())
            session.Terminal().Out("no macros\n");
        return ExitDone;
    }
    Json json = MacrosAsJson(*policy.Macros);
    for (size_t i = 0; i < json.size(); ++i)
        json[i]["line"] = MacroLine((*policy.Macros)[i]);
    session.Terminal().Out(json.dump(2) + "\n");
    return ExitDone;
}

namespace
{

/// The results, as text or as JSON.
struct Found
{
    size_t Hits = 0;
    std::string Text;
    Json List = Json::array();
};

void Add(Found& found, const Console& console, const Hit& hit, bool isFirstOfSet)
{
    ++found.Hits;
    Json& entry = found.List.emplace_back();
    if (hit.Macro != nullptr)
        entry["macro"] = NarrowToUtf8(hit.Macro->Name);
    if (hit.RuleSet != nullptr)
        entry["ruleSet"] = hit.RuleSet->Index;
    if (hit.Rule != nullptr)
        entry["rule"] = uint16_t{hit.Rule->wRuleIndex};
    entry["where"] = hit.Where;
    if (hit.RuleSet != nullptr && isFirstOfSet)
        found.Text += RuleSetTitle(console, *hit.RuleSet) + "\n";
    if (hit.Rule != nullptr)
        found.Text += RuleText(console, *hit.Rule);
    if (hit.Macro != nullptr)
        found.Text += MacroText(console, *hit.Macro);
}

} // namespace

int FindCommand(Session& session, const std::string& query, bool withAny)
{
    if (const std::string mistake = QueryMistake(query); !mistake.empty())
        throw Failure("\"" + query + "\" cannot be searched for: " + mistake, ExitUsage);
    Console& console = session.Terminal();
    std::map<uint16_t, Found> found; // by rule set; macros under 0
    const auto look = [&](const Policy& soFar, RuleSetRecord ruleSet)
    {
        Policy one;
        one.Macros = soFar.Macros; // a rule that names one of them is found by it
        const uint16_t index = ruleSet.Index;
        if (index != 0)
            one.RuleSets.push_back(std::move(ruleSet));
        Found& here = found[index] = {};
        for (const Hit& hit : Find(one, query, withAny))
        {
            if ((hit.Macro != nullptr) == (index == 0))
                Add(here, console, hit, here.Hits == 0);
        }
    };
    const Policy policy = session.Look(look);
    look(policy, {});
    Found all;
    const auto append = [&](Found& part)
    {
        all.Hits += part.Hits;
        all.Text += part.Text;
        all.List.insert(all.List.end(), part.List.begin(), part.List.end());
    };
    for (const RuleSetRecord& ruleSet : policy.RuleSets)
        append(found[ruleSet.Index]);
    append(found[0]);
    console.Out(session.Options().Json ? all.List.dump(2) + "\n"
                : all.Hits == 0        ? "no match\n"
                                       : all.Text + Count(all.Hits, "hit") + "\n");
    return ExitDone;
}

int Active(Session& session)
{
    const Policy policy = session.Look(LeaveOut);
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
            (found == policy.RuleSets.end() ? "(no such rule set)" : Printable(ToUtf8(found->Name))) + "\n");
    }
    if (policy.Active->empty())
        session.Terminal().Out("no rule set is active\n");
    return ExitDone;
}

} // namespace Tool
