// Records as JSON.
#include <algorithm>
#include <cstddef>
#include <cstring>

#include <nlohmann/json.hpp>

#include "common/srclib/KxComn_Record.h"
#include "policy/ItemText.h"
#include "policy/RecordText.h"
#include "policy/RuleFields.h"
#include "policy/RuleJson.h"
#include "rules/Normalise.h"

namespace KxPolicy
{
namespace
{

using KxCommon::Record::Load;
using KxCommon::Record::Store;

constexpr size_t kRawBytesPerLine = 32;
constexpr size_t kRawGap = 3; // equal bytes between two differences that are written instead of starting a new line

/// What differs between the record and the result of the named fields, as lines "offset: bytes".
void AddRaw(Json& json, const void* record, const void* named, size_t begin, size_t end)
{
    const uint8_t* const actual = static_cast<const uint8_t*>(record);
    const uint8_t* const given = static_cast<const uint8_t*>(named);
    for (size_t i = begin; i < end; ++i)
    {
        if (actual[i] == given[i])
            continue;
        size_t last = i;
        for (size_t j = i; j < end && j <= last + kRawGap && j < i + kRawBytesPerLine; ++j)
            last = actual[j] != given[j] ? j : last;
        json["raw"].push_back(std::to_string(i) + ": " + HexText(actual + i, last - i + 1));
        i = last;
    }
}

Json KeywordJson(Keywords names, uint32_t value)
{
    const std::string_view name = KeywordName(names, value);
    return name.empty() ? Json(value) : Json(name);
}

// Each of these returns what is written for a field, and stores in `given` what a reader will make of it. If a text
// says less than the record, or cannot be read back, "raw" makes up for it.

template <class Number>
Json NumberJson(const uint8_t* field, uint8_t* given)
{
    Store(given, Load<Number>(field));
    return Load<Number>(field);
}

template <class Item>
Json ItemJson(std::string text, void* given, bool (*parse)(std::string_view, Item&, std::string&))
{
    Item item{};
    std::string why;
    static_cast<void>(parse(text, item, why));
    Store(given, item);
    return text;
}

Json TextJson(std::string text, void* given, size_t room, bool (*put)(void*, size_t, std::string_view, std::string&))
{
    std::string why;
    static_cast<void>(put(given, room, text, why));
    return text;
}

/// Writes a rule's fields as members and builds the record that a reader will make of them.
class RuleWriter
{
public:
    explicit RuleWriter(const PFW_RULE& rule)
        : m_Actual(reinterpret_cast<const uint8_t*>(&rule)), m_Given(DefaultRule(rule.dwKind)),
          m_GivenBytes(reinterpret_cast<uint8_t*>(&m_Given))
    {
    }

    Json Write()
    {
        for (const RuleField& field : CommonFields())
            Add(field);
        for (const RuleField& field : KindFields(m_Given.dwKind))
            Add(field);
        AddRaw(m_Json, m_Actual, m_GivenBytes, 0, sizeof(PFW_RULE));
        return std::move(m_Json);
    }

private:
    void Add(const RuleField& field)
    {
        if (field.When == Presence::Sometimes && !HoldsAnything(field))
            return;
        if (field.Type == FieldType::Extension)
        {
            m_Json[field.Name] = Extension(field);
            return;
        }
        Json list;
        for (size_t i = 0; i < field.Count; ++i)
            list.push_back(One(field, m_Actual + field.Places[i], m_GivenBytes + field.Places[i]));
        m_Json[field.Name] = field.Count > 1 ? std::move(list) : std::move(list[0]);
        if (field.Type == FieldType::Application && Normalise::IsSystemRule(m_Given))
            SetSystem();
    }

    /// Whether the field must be written for a reader to get it right.
    bool HoldsAnything(const RuleField& field) const
    {
        const uint8_t* const at = m_Actual + field.Places[0];
        size_t bytes = field.Type == FieldType::Word ? 2 : 4;
        if (field.Type == FieldType::WideText || field.Type == FieldType::Application)
            return !WideFieldText(at, field.Room).empty();
        if (field.Type == FieldType::Text)
            return !NarrowFieldText(at, field.Room).empty();
        if (field.Type == FieldType::Extension)
            return !IsZero(at, 4) || !IsZero(m_Actual + field.Places[1], 4) || !IsZero(m_Actual + field.Places[2], 2) ||
                   !NarrowFieldText(m_Actual + field.Places[3], field.Room).empty();
        if (field.Type == FieldType::Hash)
            bytes = field.Room;
        for (size_t i = 0; i < field.Count; ++i)
        {
            // Compared with the given record, not with zero: the application may already have set the switch.
            if (std::memcmp(m_Actual + field.Places[i], m_GivenBytes + field.Places[i], bytes) != 0)
                return true;
        }
        return false;
    }

    static Json One(const RuleField& field, const uint8_t* from, uint8_t* given)
    {
        switch (field.Type)
        {
        case FieldType::Word:
            return NumberJson<uint16_t>(from, given);
        case FieldType::Keyword:
            return KeywordJson(field.Names, NumberJson<uint32_t>(from, given));
        case FieldType::Switch:
            if (const Json number = NumberJson<uint32_t>(from, given); number <= 1)
                return number == 1;
            return NumberJson<uint32_t>(from, given);
        case FieldType::Hash:
            std::memcpy(given, from, field.Room);
            return HexText(from, field.Room);
        case FieldType::Address:
            return ItemJson(AddressText(Load<RULE_ADDR>(from)), given, ParseAddress);
        case FieldType::Port:
            return ItemJson(PortText(Load<RULE_PORT>(from)), given, ParsePort);
        case FieldType::Text:
            return TextJson(NarrowFieldText(from, field.Room), given, field.Room, PutNarrow);
        case FieldType::WideText:
        case FieldType::Application:
            return TextJson(WideFieldText(from, field.Room), given, field.Room, PutWide);
        default:
            return NumberJson<uint32_t>(from, given);
        }
    }

    Json Extension(const RuleField& field)
    {
        const auto number = [&]<class Number>(size_t place, Number)
        { return NumberJson<Number>(m_Actual + field.Places[place], m_GivenBytes + field.Places[place]); };
        return {{"flag", number(0, uint32_t{})},
                {"value", number(1, uint32_t{})},
                {"shortValue", number(2, uint16_t{})},
                {"text", TextJson(NarrowFieldText(m_Actual + field.Places[3], field.Room),
                                  m_GivenBytes + field.Places[3], field.Room, PutNarrow)}};
    }

    void SetSystem()
    {
        for (const RuleField& field : KindFields(m_Given.dwKind))
        {
            if (field.Name == kSystemField)
                Store(m_GivenBytes + field.Places[0], uint32_t{1});
        }
    }

    const uint8_t* m_Actual;
    PFW_RULE m_Given;
    uint8_t* m_GivenBytes;
    Json m_Json = Json::object();
};

Json ItemAsJson(const MACRO_ITEM& item)
{
    MACRO_ITEM given;
    std::memset(&given, 0, sizeof given); // all of the union, not its first member alone
    uint8_t* const to = reinterpret_cast<uint8_t*>(&given.Addr);
    given.dwItemType = item.dwItemType;
    Json json = Json::object();
    if (item.dwItemType == KXRULE_ITEM_ADDR)
        json["address"] = ItemJson(AddressText(item.Addr), to, ParseAddress);
    else if (item.dwItemType == KXRULE_ITEM_PORT)
        json["port"] = ItemJson(PortText(item.Port), to, ParsePort);
    else if (item.dwItemType == KXRULE_ITEM_TEXT)
        json["text"] = TextJson(NarrowFieldText(&item.szText, sizeof item.szText), to, sizeof item.szText, PutNarrow);
    else
        json["type"] = uint32_t{item.dwItemType};
    AddRaw(json, &item, &given, offsetof(MACRO_ITEM, Addr), sizeof item);
    return json;
}

Json MacroAsJson(const MacroRecord& macro)
{
    PFW_MACRO actual{};
    PFW_MACRO given{};
    std::memcpy(&actual.szName, macro.Name.data(), std::min(macro.Name.size(), size_t{KXRULE_MACRO_NAME_BYTES - 1}));
    Json json = {{"name", TextJson(NarrowFieldText(&actual.szName, sizeof actual.szName), &given.szName,
                                   sizeof given.szName, PutNarrow)}};
    AddRaw(json, &actual, &given, kMacroNameBegin, kMacroNameEnd);
    Json& items = json["items"] = Json::array();
    for (const MACRO_ITEM& item : macro.Items)
        items.push_back(ItemAsJson(item));
    return json;
}

} // namespace

Json RuleAsJson(const PFW_RULE& rule)
{
    return RuleWriter(rule).Write();
}

bool HasUnexplainedBytes(const PFW_RULE& rule)
{
    return RuleAsJson(rule).contains("raw");
}

Json RuleSetAsJson(const RuleSetRecord& ruleSet)
{
    PFW_RULESET actual{};
    PFW_RULESET given{};
    std::memcpy(&actual.wszName, ruleSet.Name.data(),
                std::min(ruleSet.Name.size(), size_t{KXRULE_RULESET_NAME_UNITS - 1}) * sizeof(KXWCHAR));
    Json json = {{"index", ruleSet.Index},
                 {"name", TextJson(WideFieldText(&actual.wszName, KXRULE_RULESET_NAME_UNITS), &given.wszName,
                                   KXRULE_RULESET_NAME_UNITS, PutWide)}};
    AddRaw(json, &actual, &given, kRuleSetNameBegin, kRuleSetNameEnd);
    Json& rules = json["rules"] = Json::array();
    for (const PFW_RULE& rule : ruleSet.Rules)
        rules.push_back(RuleAsJson(rule));
    return json;
}

Json MacrosAsJson(const std::vector<MacroRecord>& macros)
{
    Json json = Json::array();
    for (const MacroRecord& macro : macros)
        json.push_back(MacroAsJson(macro));
    return json;
}

std::string RuleToJson(const PFW_RULE& rule)
{
    std::string text;
    AppendJsonText(text, RuleAsJson(rule));
    return text + "\n";
}

std::string PolicyToJson(const Policy& policy)
{
    Json json = {{"version", kPolicyVersion}};
    if (policy.Active)
        json["active"] = *policy.Active;
    if (policy.Macros)
        json["macros"] = MacrosAsJson(*policy.Macros);
    json["ruleSets"] = Json::array();
    std::string text;
    AppendJsonText(text, json);
    // One rule set at a time: JSON values are several times as large as their text.
    text.resize(text.size() - std::string_view("]\n}").size());
    for (const RuleSetRecord& ruleSet : policy.RuleSets)
    {
        text += &ruleSet == &policy.RuleSets.front() ? "\n    " : ",\n    ";
        AppendJsonText(text, RuleSetAsJson(ruleSet), 2);
    }
    return text + (policy.RuleSets.empty() ? "]\n}\n" : "\n  ]\n}\n");
}

} // namespace KxPolicy
