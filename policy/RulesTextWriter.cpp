// Policies and rules as lines of text.
#include <algorithm>
#include <cstring>

#include <nlohmann/json.hpp>

#include "common/srclib/KxComn_Record.h"
#include "policy/ItemText.h"
#include "policy/RecordText.h"
#include "policy/RuleFields.h"
#include "policy/RulesText.h"
#include "policy/Utf8.h"
#include "rules/RuleText.h"

namespace KxPolicy
{
namespace
{

std::string Upper(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
    return text;
}

bool IsBare(std::string_view text, bool inList)
{
    return !text.empty() && !Json::accept(text) &&
           std::all_of(text.begin(), text.end(),
                       [inList](char c)
                       {
                           return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                                  std::string_view("_.:/\\@!-").find(c) != std::string_view::npos ||
                                  (c == ',' && !inList);
                       });
}

std::string ValueText(const Json& value)
{
    if (value.is_string() && IsBare(value.get_ref<const std::string&>(), false))
        return value.get<std::string>();
    std::string list;
    for (const Json& item : value.is_array() ? value : Json::array())
    {
        const bool isBare = item.is_number() || (item.is_string() && IsBare(item.get_ref<const std::string&>(), true));
        if (!isBare)
            return value.dump();
        list += (list.empty() ? "" : ",") + (item.is_string() ? item.get<std::string>() : item.dump());
    }
    return list.empty() ? value.dump() : list;
}

/// The library's line, with IPv6 addresses where names would be, if they fit.
std::string LineText(const PFW_RULE& rule)
{
    PFW_RULE shown = rule;
    for (const RuleField& field : KindFields(rule.dwKind))
    {
        for (size_t i = 0; field.Type == FieldType::Address && i < field.Count; ++i)
        {
            uint8_t* const at = reinterpret_cast<uint8_t*>(&shown) + field.Places[i];
            const RULE_ADDR item = KxCommon::Record::Load<RULE_ADDR>(at);
            const std::string text = AddressText(item);
            RULE_ADDR named{KXRULE_ADDR_NAME, {}};
            if (item.dwType == KXRULE_ADDR_ANY || item.dwType == KXRULE_ADDR_NAME ||
                item.dwFamily != KXRULE_FAMILY_IPV6 || text.size() >= sizeof named.szName)
                continue;
            std::memcpy(named.szName, text.data(), text.size());
            KxCommon::Record::Store(at, named);
        }
    }
    RuleText::Line line;
    return RuleText::Render(shown, line) == KXRULE_OK ? NarrowToReturnableUtf8(line.View()) : std::string();
}

/// What a line means, as JSON; null if it does not express a rule.
Json Meaning(const std::string& line)
{
    PFW_RULE rule{};
    bool hasIndex = false;
    std::vector<Diagnostic> diagnostics;
    return IsRuleLine(line) && ReadAnyRule(line, rule, hasIndex, diagnostics) ? RuleAsJson(rule) : Json();
}

std::string Members(const Json& json, const Json& without, std::initializer_list<std::string_view> hidden)
{
    std::string text;
    for (auto member = json.begin(); member != json.end(); ++member)
    {
        const auto same = without.find(member.key());
        if ((same != without.end() && *same == *member) ||
            std::find(hidden.begin(), hidden.end(), member.key()) != hidden.end())
            continue;
        text += "  " + (member.key() == "active" && *member == false ? std::string(kOff)
                                                                     : member.key() + "=" + ValueText(*member));
    }
    for (auto member = without.begin(); member != without.end(); ++member)
    {
        if (!json.contains(member.key()))
            text += "  " + member.key() + "=null";
    }
    return text;
}

/// A heading's members: all except the name, the index and what follows on lines of its own.
std::string HeadingText(const char* word, const Json& json)
{
    std::string text = word;
    if (json.contains("index"))
        text += " " + json["index"].dump();
    const std::string name = ValueText(json["name"]);
    text += " " + (name.find('=') == std::string::npos ? name : json["name"].dump());
    return text + Members(json, Json::object(), {"index", "name", "items", "rules"}) + "\n";
}

} // namespace

std::string RuleToText(const PFW_RULE& rule, bool brief)
{
    const Json json = RuleAsJson(rule);
    std::string line = LineText(rule);
    Json without = Meaning(line);
    if (without.is_null())
    {
        line = Upper(KeywordText(kKinds, rule.dwKind));
        without = Json::object();
    }
    without["index"] = json["index"];
    without["kind"] = json["kind"];
    if (!without.contains("active"))
        without["active"] = true;
    return brief ? line + Members(json, without, {"description", "application", "hash", "system", "spare", "raw"})
                 : line + Members(json, without, {});
}

std::string PolicyToText(const Policy& policy)
{
    std::string text = "rules " + std::to_string(kPolicyVersion) + "\n";
    if (policy.Active)
    {
        text += "active";
        for (const uint16_t index : *policy.Active)
            text += " " + std::to_string(index);
        text += "\n";
    }
    if (policy.Macros && policy.Macros->empty())
        text += "macros\n";
    for (const Json& macro : policy.Macros ? MacrosAsJson(*policy.Macros) : Json::array())
    {
        text += "\n" + HeadingText("macro", macro);
        for (const Json& item : macro["items"])
            text += Members(item, Json::object(), {}) + "\n";
    }
    if (policy.HasRuleSets && policy.RuleSets.empty())
        text += "sets\n";
    for (const RuleSetRecord& ruleSet : policy.RuleSets)
    {
        RuleSetRecord head = ruleSet;
        head.Rules.clear();
        text += "\n" + HeadingText("set", RuleSetAsJson(head));
        for (const PFW_RULE& rule : ruleSet.Rules)
        {
            const std::string index = std::to_string(uint16_t{rule.wRuleIndex});
            text += std::string(index.size() < 7 ? 7 - index.size() : 0, ' ') + index + "  " + RuleToText(rule) + "\n";
        }
    }
    return text;
}

} // namespace KxPolicy
