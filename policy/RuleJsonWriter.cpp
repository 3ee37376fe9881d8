// Records as JSON.
#include <algorithm>
#include <cstring>

#include "common/srclib/KxComn_Record.h"
#include "policy/ItemText.h"
#include "policy/JsonTree.h"
#include "policy/RecordText.h"
#include "policy/RuleFields.h"
#include "policy/RuleJson.h"
#include "policy/Utf8.h"

namespace KxPolicy
{
namespace
{

using KxCommon::Record::Load;
using KxCommon::Record::Store;

constexpr size_t kRawBytesPerLine = 32;
constexpr size_t kRawGap = 3; // equal bytes between two differences that are written rather than a new line begun

/// Objects and arrays over several lines, or within one.
class Writer
{
public:
    explicit Writer(std::string& out, size_t depth = 0) : m_Out(out), m_Depth(depth) {}

    void Open(char bracket)
    {
        m_Out += bracket;
        ++m_Depth;
        m_First = true;
    }
    void Close(char bracket)
    {
        --m_Depth;
        if (!m_First)
            NewLine();
        m_Out += bracket;
        m_First = false;
    }
    /// Begins the next element of an array.
    void Next()
    {
        if (!m_First)
            m_Out += ',';
        m_First = false;
        NewLine();
    }
    /// Begins the next member of an object.
    void Name(std::string_view name)
    {
        Next();
        AppendJsonString(m_Out, name);
        m_Out += ": ";
    }
    void Text(std::string_view text) { AppendJsonString(m_Out, text); }
    void Plain(std::string_view text) { m_Out += text; }
    void Number(uint64_t number) { m_Out += std::to_string(number); }

private:
    void NewLine()
    {
        m_Out += '\n';
        m_Out.append(2 * m_Depth, ' ');
    }

    std::string& m_Out;
    size_t m_Depth;
    bool m_First = true;
};

/// What differs between the record and what the named fields have given, as lines "offset: bytes".
std::vector<std::string> RawLines(const void* record, const void* named, size_t begin, size_t end)
{
    const uint8_t* const actual = static_cast<const uint8_t*>(record);
    const uint8_t* const given = static_cast<const uint8_t*>(named);
    std::vector<std::string> lines;
    for (size_t i = begin; i < end; ++i)
    {
        if (actual[i] == given[i])
            continue;
        size_t last = i;
        for (size_t j = i; j < end && j <= last + kRawGap && j < i + kRawBytesPerLine; ++j)
            last = actual[j] != given[j] ? j : last;
        lines.push_back(std::to_string(i) + ": " + HexText(actual + i, last - i + 1));
        i = last;
    }
    return lines;
}

void WriteRaw(Writer& writer, const std::vector<std::string>& lines)
{
    if (lines.empty())
        return;
    writer.Name("raw");
    writer.Open('[');
    for (const std::string& line : lines)
    {
        writer.Next();
        writer.Text(line);
    }
    writer.Close(']');
}

void WriteKeyword(Writer& writer, Keywords names, uint32_t value)
{
    const std::string_view name = KeywordName(names, value);
    if (name.empty())
        writer.Number(value);
    else
        writer.Text(name);
}

// What a reader makes of a text that has just been written. A text that says less than the record, or nothing that can
// be read, is made up for by "raw".

RULE_ADDR AddressGivenBy(std::string_view text)
{
    RULE_ADDR item{};
    std::string why;
    static_cast<void>(ParseAddress(text, item, why));
    return item;
}

RULE_PORT PortGivenBy(std::string_view text)
{
    RULE_PORT item{};
    std::string why;
    static_cast<void>(ParsePort(text, item, why));
    return item;
}

void PutGiven(void* field, size_t room, std::string_view text)
{
    std::string why;
    static_cast<void>(PutNarrow(field, room, text, why));
}

void PutWideGiven(void* field, size_t room, std::string_view text)
{
    std::string why;
    static_cast<void>(PutWide(field, room, text, why));
}

/// Writes a record's fields and keeps, beside it, the record that a reader will make of them.
class FieldWriter
{
public:
    FieldWriter(Writer& writer, const PFW_RULE& rule)
        : m_Writer(writer), m_Actual(reinterpret_cast<const uint8_t*>(&rule)), m_Given(DefaultRule(rule.dwKind)),
          m_GivenBytes(reinterpret_cast<uint8_t*>(&m_Given))
    {
    }

    void Write(const RuleField& field)
    {
        if (field.When == Presence::Sometimes && !HoldsAnything(field))
            return;
        m_Writer.Name(field.Name);
        if (field.Type == FieldType::Extension)
            return Extension(field);
        if (field.Count > 1)
            m_Writer.Plain("[");
        for (size_t i = 0; i < field.Count; ++i)
        {
            m_Writer.Plain(i > 0 ? ", " : "");
            One(field, field.Places[i]);
        }
        if (field.Count > 1)
            m_Writer.Plain("]");
    }

    void Raw() { WriteRaw(m_Writer, RawLines(m_Actual, m_GivenBytes, 0, sizeof(PFW_RULE))); }

private:
    /// Whether a reader that finds nothing about the field would be wrong.
    bool HoldsAnything(const RuleField& field) const
    {
        size_t bytes = field.Type == FieldType::Word ? 2 : 4;
        if (field.Type == FieldType::WideText || field.Type == FieldType::Application)
            return !WideFieldText(m_Actual + field.Places[0], field.Room).empty();
        if (field.Type == FieldType::Text)
            return !NarrowFieldText(m_Actual + field.Places[0], field.Room).empty();
        if (field.Type == FieldType::Extension)
            return !IsZero(m_Actual + field.Places[0], 4) || !IsZero(m_Actual + field.Places[1], 4) ||
                   !IsZero(m_Actual + field.Places[2], 2) ||
                   !NarrowFieldText(m_Actual + field.Places[3], field.Room).empty();
        if (field.Type == FieldType::Hash)
            bytes = field.Room;
        for (size_t i = 0; i < field.Count; ++i)
        {
            // Compared with the given record, not with zero: an application may have set the switch already.
            if (std::memcmp(m_Actual + field.Places[i], m_GivenBytes + field.Places[i], bytes) != 0)
                return true;
        }
        return false;
    }

    void Copy(uint16_t place, size_t bytes) { std::memcpy(m_GivenBytes + place, m_Actual + place, bytes); }

    void One(const RuleField& field, uint16_t place)
    {
        const uint8_t* const from = m_Actual + place;
        uint8_t* const to = m_GivenBytes + place;
        switch (field.Type)
        {
        case FieldType::Word:
            m_Writer.Number(Load<uint16_t>(from));
            return Copy(place, 2);
        case FieldType::DoubleWord:
            m_Writer.Number(Load<uint32_t>(from));
            return Copy(place, 4);
        case FieldType::Switch:
            if (Load<uint32_t>(from) <= 1)
                m_Writer.Plain(Load<uint32_t>(from) == 0 ? "false" : "true");
            else
                m_Writer.Number(Load<uint32_t>(from));
            return Copy(place, 4);
        case FieldType::Keyword:
            WriteKeyword(m_Writer, field.Names, Load<uint32_t>(from));
            return Copy(place, 4);
        case FieldType::Hash:
            m_Writer.Text(HexText(from, field.Room));
            return Copy(place, field.Room);
        case FieldType::Address:
            Store(to, AddressGivenBy(Text(AddressText(Load<RULE_ADDR>(from)))));
            return;
        case FieldType::Port:
            Store(to, PortGivenBy(Text(PortText(Load<RULE_PORT>(from)))));
            return;
        case FieldType::Text:
            PutGiven(to, field.Room, Text(NarrowFieldText(from, field.Room)));
            return;
        case FieldType::WideText:
        case FieldType::Application:
        {
            const std::string text = Text(WideFieldText(from, field.Room));
            PutWideGiven(to, field.Room, text);
            if (field.Type == FieldType::Application && text == kSystemApplication)
                SetSystem();
            return;
        }
        case FieldType::Extension:
            return;
        }
    }

    std::string Text(std::string text)
    {
        m_Writer.Text(text);
        return text;
    }

    void Extension(const RuleField& field)
    {
        m_Writer.Plain("{\"flag\": ");
        m_Writer.Number(Load<uint32_t>(m_Actual + field.Places[0]));
        m_Writer.Plain(", \"value\": ");
        m_Writer.Number(Load<uint32_t>(m_Actual + field.Places[1]));
        m_Writer.Plain(", \"shortValue\": ");
        m_Writer.Number(Load<uint16_t>(m_Actual + field.Places[2]));
        m_Writer.Plain(", \"text\": ");
        Copy(field.Places[0], 4);
        Copy(field.Places[1], 4);
        Copy(field.Places[2], 2);
        PutGiven(m_GivenBytes + field.Places[3], field.Room,
                 Text(NarrowFieldText(m_Actual + field.Places[3], field.Room)));
        m_Writer.Plain("}");
    }

    void SetSystem()
    {
        for (const RuleField& field : KindFields(m_Given.dwKind))
        {
            if (field.Name == kSystemField)
                Store(m_GivenBytes + field.Places[0], uint32_t{1});
        }
    }

    Writer& m_Writer;
    const uint8_t* m_Actual;
    PFW_RULE m_Given;
    uint8_t* m_GivenBytes;
};

void WriteRule(Writer& writer, const PFW_RULE& rule)
{
    writer.Open('{');
    FieldWriter fields(writer, rule);
    for (const RuleField& field : CommonFields())
        fields.Write(field);
    for (const RuleField& field : KindFields(rule.dwKind))
        fields.Write(field);
    fields.Raw();
    writer.Close('}');
}

void WriteRuleSet(Writer& writer, const RuleSetRecord& ruleSet)
{
    PFW_RULESET actual{};
    PFW_RULESET given{};
    std::memcpy(&actual.wszName, ruleSet.Name.data(),
                std::min(ruleSet.Name.size(), size_t{KXRULE_RULESET_NAME_UNITS - 1}) * sizeof(KXWCHAR));
    const std::string name = WideFieldText(&actual.wszName, KXRULE_RULESET_NAME_UNITS);
    PutWideGiven(&given.wszName, KXRULE_RULESET_NAME_UNITS, name);

    writer.Open('{');
    writer.Name("index");
    writer.Number(ruleSet.Index);
    writer.Name("name");
    writer.Text(name);
    WriteRaw(writer, RawLines(&actual, &given, kRuleSetNameBegin, kRuleSetNameEnd));
    writer.Name("rules");
    writer.Open('[');
    for (const PFW_RULE& rule : ruleSet.Rules)
    {
        writer.Next();
        WriteRule(writer, rule);
    }
    writer.Close(']');
    writer.Close('}');
}

/// An item's member, and the item that a reader will make of it.
std::string ItemMember(const MACRO_ITEM& item, MACRO_ITEM& given)
{
    given.dwItemType = item.dwItemType;
    const std::string_view type = KeywordName(kItemTypes, item.dwItemType);
    if (type.empty())
        return "\"type\": " + std::to_string(item.dwItemType);
    std::string text;
    switch (item.dwItemType)
    {
    case KXRULE_ITEM_ADDR:
        text = AddressText(item.Addr);
        given.Addr = AddressGivenBy(text);
        break;
    case KXRULE_ITEM_PORT:
        text = PortText(item.Port);
        given.Port = PortGivenBy(text);
        break;
    default:
        text = NarrowFieldText(&item.szText, sizeof item.szText);
        PutGiven(&given.szText, sizeof given.szText, text);
    }
    std::string member;
    AppendJsonString(member, type);
    member += ": ";
    AppendJsonString(member, text);
    return member;
}

void WriteItem(Writer& writer, const MACRO_ITEM& item)
{
    MACRO_ITEM given{};
    const std::string member = ItemMember(item, given);
    const std::vector<std::string> raw = RawLines(&item, &given, 0, sizeof item);
    if (raw.empty())
    {
        writer.Plain("{" + member + "}");
        return;
    }
    writer.Open('{');
    writer.Next();
    writer.Plain(member);
    WriteRaw(writer, raw);
    writer.Close('}');
}

void WriteMacro(Writer& writer, const MacroRecord& macro)
{
    PFW_MACRO actual{};
    PFW_MACRO given{};
    std::memcpy(&actual.szName, macro.Name.data(), std::min(macro.Name.size(), size_t{KXRULE_MACRO_NAME_BYTES - 1}));
    const std::string name = NarrowFieldText(&actual.szName, sizeof actual.szName);
    PutGiven(&given.szName, sizeof given.szName, name);

    writer.Open('{');
    writer.Name("name");
    writer.Text(name);
    WriteRaw(writer, RawLines(&actual, &given, kMacroNameBegin, kMacroNameEnd));
    writer.Name("items");
    writer.Open('[');
    for (const MACRO_ITEM& item : macro.Items)
    {
        writer.Next();
        WriteItem(writer, item);
    }
    writer.Close(']');
    writer.Close('}');
}

std::string Finished(std::string text)
{
    text += '\n';
    return text;
}

} // namespace

std::string RuleToJson(const PFW_RULE& rule)
{
    std::string out;
    Writer writer(out);
    WriteRule(writer, rule);
    return Finished(std::move(out));
}

bool HasUnexplainedBytes(const PFW_RULE& rule)
{
    return RuleToJson(rule).find("\n  \"raw\": [") != std::string::npos;
}

std::string RuleSetToJson(const RuleSetRecord& ruleSet)
{
    std::string out;
    Writer writer(out);
    WriteRuleSet(writer, ruleSet);
    return Finished(std::move(out));
}

std::string PolicyToJson(const Policy& policy)
{
    std::string out;
    Writer writer(out);
    writer.Open('{');
    writer.Name("version");
    writer.Number(kPolicyVersion);
    if (policy.Active)
    {
        writer.Name("active");
        writer.Plain("[");
        for (size_t i = 0; i < policy.Active->size(); ++i)
            writer.Plain((i > 0 ? ", " : "") + std::to_string((*policy.Active)[i]));
        writer.Plain("]");
    }
    if (policy.Macros)
    {
        writer.Name("macros");
        writer.Open('[');
        for (const MacroRecord& macro : *policy.Macros)
        {
            writer.Next();
            WriteMacro(writer, macro);
        }
        writer.Close(']');
    }
    writer.Name("ruleSets");
    writer.Open('[');
    for (const RuleSetRecord& ruleSet : policy.RuleSets)
    {
        writer.Next();
        WriteRuleSet(writer, ruleSet);
    }
    writer.Close(']');
    writer.Close('}');
    return Finished(std::move(out));
}

} // namespace KxPolicy
