// Reads policies, rule sets, rules and macros from JSON.
#include <algorithm>
#include <array>

#include "common/srclib/KxComn_Record.h"
#include "policy/ItemText.h"
#include "policy/JsonReader.h"
#include "policy/RecordText.h"
#include "rules/Normalise.h"

namespace KxPolicy
{
namespace
{

using KxCommon::Record::Store;

class Reader : public JsonReader
{
public:
    using JsonReader::JsonReader;
    void ReadPolicy(JsonValue value, Policy& policy);
    void ReadRuleSet(JsonValue value, const Path& path, RuleSetRecord& ruleSet);
    void ReadRule(JsonValue value, const Path& path, PFW_RULE& rule);

private:
    void ReadOfNoKind(JsonValue rule, const Path& path);
    std::optional<uint32_t> ReadKind(JsonValue rule, const Path& path);
    void ReadVersion(JsonValue value, const Path& path);
    void ReadActive(JsonValue value, const Path& path, std::vector<uint16_t>& active);
    void ReadMacro(JsonValue value, const Path& path, MacroRecord& macro);
    void ReadItem(JsonValue value, const Path& path, MACRO_ITEM& item);
    void ReadRules(JsonValue value, const Path& path, RuleSetRecord& ruleSet);
    void ReadRuleSets(JsonValue value, const Path& path, std::vector<RuleSetRecord>& ruleSets);
};

/// The kind determines what else a rule may have. Without it the other members cannot be checked.
std::optional<uint32_t> Reader::ReadKind(JsonValue rule, const Path& path)
{
    std::optional<JsonValue> member;
    if (!rule.Is(Kind::Object))
    {
        Expected(rule, path, "a rule as an object");
        return std::nullopt;
    }
    rule.ForEachMember(
        [&member](JsonValue name, JsonValue value)
        {
            if (!member && name.Text() == "kind")
                member = value;
        });
    if (member)
        return ReadKeyword(*member, path.Member("kind"), kKinds);
    Report(rule.Offset(), path, "\"kind\" is missing; expected " + KeywordNames(kKinds));
    return std::nullopt;
}

/// Checks what does not depend on the kind: that each name is that of a field, and the values of unambiguous names.
void Reader::ReadOfNoKind(JsonValue rule, const Path& path)
{
    std::vector<RuleField> fields(CommonFields().begin(), CommonFields().end());
    for (const Keyword& kind : kKinds)
        fields.insert(fields.end(), KindFields(kind.Value).begin(), KindFields(kind.Value).end());
    rule.ForEachMember(
        [&](JsonValue name, JsonValue value)
        {
            const std::string text = name.Text();
            const auto named = [&text](const RuleField& field) { return text == field.Name; };
            const auto field = std::find_if(fields.begin(), fields.end(), named);
            PFW_RULE unused{};
            if (field == fields.end() && text != "raw")
                Report(name.Offset(), path, std::string(name.Raw()) + " is not a member of a rule of any kind");
            else if (text != "kind" && text != "raw" && std::count_if(fields.begin(), fields.end(), named) == 1)
                ReadField(*field, value, path.Member(text), reinterpret_cast<uint8_t*>(&unused));
        });
}

void Reader::ReadRule(JsonValue value, const Path& path, PFW_RULE& rule)
{
    const std::optional<uint32_t> kind = ReadKind(value, path);
    if (!kind)
        return value.Is(Kind::Object) ? ReadOfNoKind(value, path) : void();
    std::vector<RuleField> fields(CommonFields().begin(), CommonFields().end());
    fields.insert(fields.end(), KindFields(*kind).begin(), KindFields(*kind).end());
    std::vector<std::string_view> names(fields.size());
    std::transform(fields.begin(), fields.end(), names.begin(), [](const RuleField& field) { return field.Name; });
    names.push_back("raw");
    const Members members = ReadMembers(value, path, names, "a rule of kind " + KeywordText(kKinds, *kind));

    rule = DefaultRule(*kind);
    uint8_t* const record = reinterpret_cast<uint8_t*>(&rule);
    for (size_t i = 0; i < fields.size(); ++i)
    {
        if (members[i])
            ReadField(fields[i], *members[i], path.Member(fields[i].Name), record);
        else if (fields[i].When == Presence::Always)
            Report(value.Offset(), path, "\"" + std::string(fields[i].Name) + "\" is missing");
        else if (fields[i].Name == kSystemField && Normalise::IsSystemRule(rule)) // as the library treats it
            Store(record + fields[i].Places[0], uint32_t{1});
    }
    if (members.back())
        ReadRaw(*members.back(), path.Member("raw"), record, sizeof rule.wRuleIndex, sizeof rule);
    if (rule.dwKind == KXRULE_KIND_ACCESS && Normalise::HasBlankPortList(rule))
        Report(value.Offset(), path, "a port list is empty or blank, which the library refuses (-10064)");
}

void Reader::ReadRules(JsonValue value, const Path& path, RuleSetRecord& ruleSet)
{
    std::array<bool, 65536> used{};
    if (value.Is(Kind::Array))
        ruleSet.Rules.reserve(std::min(value.ItemCount(), size_t{KXRULE_MAX_RULES}));
    ReadArray(value, path, "rules", KXRULE_MAX_RULES, "a rule set holds",
              [&](JsonValue item, const Path& where)
              {
                  PFW_RULE rule{};
                  const size_t before = Reported();
                  ReadRule(item, where, rule);
                  const uint16_t index = rule.wRuleIndex;
                  if (Reported() > before)
                      return;
                  if (used[index])
                      Report(item.Offset(), where, "the rule set already has a rule " + std::to_string(index));
                  used[index] = true;
                  ruleSet.Rules.push_back(rule);
              });
    const auto isBefore = [](const PFW_RULE& a, const PFW_RULE& b)
    { return uint16_t{a.wRuleIndex} < uint16_t{b.wRuleIndex}; };
    // Nearly always they are: sorting would move each, of three kilobytes, ten times.
    if (!std::is_sorted(ruleSet.Rules.begin(), ruleSet.Rules.end(), isBefore))
        std::stable_sort(ruleSet.Rules.begin(), ruleSet.Rules.end(), isBefore);
}

void Reader::ReadRuleSet(JsonValue value, const Path& path, RuleSetRecord& ruleSet)
{
    const Members members = ReadMembers(value, path, {"index", "name", "rules", "raw"}, "a rule set");
    if (!value.Is(Kind::Object))
        return;
    if (members[0])
        ruleSet.Index = static_cast<uint16_t>(
            ReadNumber(*members[0], path.Member("index"), 1, KXRULE_MAX_RULESET_INDEX).value_or(0));
    else
        Report(value.Offset(), path, "\"index\" is missing");
    PFW_RULESET head{};
    if (members[1])
        ReadWide(*members[1], path.Member("name"), &head.wszName, KXRULE_RULESET_NAME_UNITS);
    else
        Report(value.Offset(), path, "\"name\" is missing");
    if (members[3])
        ReadRaw(*members[3], path.Member("raw"), &head, kRuleSetNameBegin, kRuleSetNameEnd);
    ruleSet.Name = KxCommon::Record::WideText(&head.wszName, KXRULE_RULESET_NAME_UNITS - 1);
    if (members[2])
        ReadRules(*members[2], path.Member("rules"), ruleSet);
}

void Reader::ReadRuleSets(JsonValue value, const Path& path, std::vector<RuleSetRecord>& ruleSets)
{
    std::array<bool, 65536> used{};
    ReadArray(value, path, "rule sets", KXRULE_MAX_RULESETS, "a store holds",
              [&](JsonValue item, const Path& where)
              {
                  RuleSetRecord ruleSet;
                  ReadRuleSet(item, where, ruleSet);
                  if (ruleSet.Index != 0 && used[ruleSet.Index])
                      Report(item.Offset(), where, "rule set " + std::to_string(ruleSet.Index) + " already exists");
                  used[ruleSet.Index] = true;
                  ruleSets.push_back(std::move(ruleSet));
              });
    std::stable_sort(ruleSets.begin(), ruleSets.end(),
                     [](const RuleSetRecord& a, const RuleSetRecord& b) { return a.Index < b.Index; });
}

void Reader::ReadItem(JsonValue value, const Path& path, MACRO_ITEM& item)
{
    const Members members = ReadMembers(value, path, {"address", "port", "text", "type", "raw"}, "a macro item");
    if (!value.Is(Kind::Object))
        return;
    if (std::count_if(members.begin(), members.begin() + 4, [](const auto& member) { return member.has_value(); }) != 1)
        return Report(value.Offset(), path, "expected one of address, port, text, or a type as a number");
    static constexpr RuleField kItemAddress = {"address", FieldType::Address, Presence::Always, {4}, 1, 0, {}};
    static constexpr RuleField kItemPort = {"port", FieldType::Port, Presence::Always, {4}, 1, 0, {}};
    uint8_t* const record = reinterpret_cast<uint8_t*>(&item);
    if (members[0])
    {
        item.dwItemType = KXRULE_ITEM_ADDR;
        ReadField(kItemAddress, *members[0], path.Member("address"), record);
    }
    else if (members[1])
    {
        item.dwItemType = KXRULE_ITEM_PORT;
        ReadField(kItemPort, *members[1], path.Member("port"), record);
    }
    else if (members[2])
    {
        item.dwItemType = KXRULE_ITEM_TEXT;
        ReadNarrow(*members[2], path.Member("text"), &item.szText, sizeof item.szText);
    }
    else
    {
        item.dwItemType = ReadNumber(*members[3], path.Member("type"), 0, UINT32_MAX).value_or(0);
    }
    if (members[4])
        ReadRaw(*members[4], path.Member("raw"), record, sizeof item.dwItemType, sizeof item);
}

void Reader::ReadMacro(JsonValue value, const Path& path, MacroRecord& macro)
{
    const Members members = ReadMembers(value, path, {"name", "items", "raw"}, "a macro");
    if (!value.Is(Kind::Object))
        return;
    PFW_MACRO head{};
    if (members[0])
        ReadNarrow(*members[0], path.Member("name"), &head.szName, sizeof head.szName);
    else
        Report(value.Offset(), path, "\"name\" is missing");
    if (members[2])
        ReadRaw(*members[2], path.Member("raw"), &head, kMacroNameBegin, kMacroNameEnd);
    macro.Name = KxCommon::Record::Text(&head.szName, sizeof head.szName - 1);
    if (members[1])
        ReadArray(*members[1], path.Member("items"), "items",
                  [&](JsonValue item, const Path& where)
                  {
                      MACRO_ITEM record{};
                      ReadItem(item, where, record);
                      macro.Items.push_back(record);
                  });
}

void Reader::ReadActive(JsonValue value, const Path& path, std::vector<uint16_t>& active)
{
    ReadArray(value, path, "rule set indexes",
              [&](JsonValue item, const Path& where)
              {
                  if (const auto index = ReadNumber(item, where, 1, KXRULE_MAX_RULESET_INDEX))
                      active.push_back(static_cast<uint16_t>(*index));
              });
}

void Reader::ReadVersion(JsonValue value, const Path& path)
{
    uint32_t number = 0;
    const bool isNumber = value.Is(Kind::Number) && ParseNumber(value.Raw(), UINT32_MAX, number);
    if (isNumber && number > kPolicyVersion)
        Report(value.Offset(), path,
               "the file has version " + std::to_string(number) +
                   " of this format, which needs a newer kxrule; this one reads version " +
                   std::to_string(kPolicyVersion));
    else if (!isNumber || number != kPolicyVersion)
        Expected(value, path, std::to_string(kPolicyVersion));
}

void Reader::ReadPolicy(JsonValue value, Policy& policy)
{
    const Path root;
    const Members members =
        ReadMembers(value, root, {"$schema", "version", "active", "macros", "ruleSets"}, "a policy");
    // Without it "{}" would be a policy, and so would half a file that happens to be JSON.
    if (!members[1] && value.Is(Kind::Object))
        Report(value.Offset(), root,
               "\"version\" is missing; this format has version " + std::to_string(kPolicyVersion));
    policy.HasRuleSets = members[4].has_value();
    if (members[1])
        ReadVersion(*members[1], root.Member("version"));
    if (members[2])
        ReadActive(*members[2], root.Member("active"), policy.Active.emplace());
    if (members[3])
    {
        std::vector<MacroRecord>& macros = policy.Macros.emplace();
        ReadArray(*members[3], root.Member("macros"), "macros",
                  [&](JsonValue item, const Path& where) { ReadMacro(item, where, macros.emplace_back()); });
    }
    if (members[4])
        ReadRuleSets(*members[4], root.Member("ruleSets"), policy.RuleSets);
}

} // namespace

bool ReadPolicy(std::string_view json, Policy& policy, std::vector<Diagnostic>& diagnostics)
{
    Reader reader(json);
    return reader.ReadAll(diagnostics, [&](JsonValue root) { reader.ReadPolicy(root, policy); });
}

bool ReadRule(std::string_view json, PFW_RULE& rule, std::vector<Diagnostic>& diagnostics)
{
    Reader reader(json);
    return reader.ReadAll(diagnostics, [&](JsonValue root) { reader.ReadRule(root, {}, rule); });
}

} // namespace KxPolicy
