// Reads values of a JSON tree into records.
#include "policy/JsonReader.h"

#include <algorithm>
#include <cstring>

#include "common/srclib/KxComn_Record.h"
#include "policy/ItemText.h"
#include "policy/RecordText.h"

namespace KxPolicy
{
namespace
{

using KxCommon::Record::Store;

/// A value as a diagnostic shows it.
std::string Shown(JsonValue value)
{
    constexpr size_t kMost = 60;
    if (value.Is(JsonTree::Kind::Array))
        return "an array";
    if (value.Is(JsonTree::Kind::Object))
        return "an object";
    std::string raw(value.Raw());
    if (raw.size() <= kMost)
        return raw;
    size_t end = kMost;
    while ((static_cast<unsigned char>(raw[end]) & 0xC0) == 0x80) // within a character
        ++end;
    return raw.substr(0, end) + "...";
}

} // namespace

JsonReader::JsonReader(std::string_view json) : m_Tree(json) {}

void JsonReader::Report(size_t offset, const Path& path, std::string text)
{
    if (m_Found.size() >= kMostDiagnostics)
    {
        m_Found.push_back({offset, {}, "there is more; what follows is not read"});
        throw TooMany();
    }
    m_Found.push_back({offset, path.Text(), std::move(text)});
}

void JsonReader::Expected(JsonValue value, const Path& path, const std::string& what)
{
    Report(value.Offset(), path, "expected " + what + ", found " + Shown(value));
}

bool JsonReader::Finish(std::vector<Diagnostic>& diagnostics)
{
    std::stable_sort(m_Found.begin(), m_Found.end(),
                     [](const Found& a, const Found& b) { return a.Offset < b.Offset; });
    Locator locator(m_Tree.Text());
    diagnostics.clear();
    for (Found& found : m_Found)
    {
        const Place place = locator.Find(found.Offset);
        diagnostics.push_back({place.Line, place.Column, std::move(found.Path), std::move(found.Text)});
    }
    return diagnostics.empty();
}

JsonReader::Members JsonReader::ReadMembers(JsonValue value, const Path& path,
                                            const std::vector<std::string_view>& names, const std::string& what)
{
    Members members(names.size());
    if (!value.Is(Kind::Object))
    {
        Expected(value, path, what + " as an object with " + Joined(names));
        return members;
    }
    value.ForEachMember(
        [&](JsonValue name, JsonValue member)
        {
            const std::string text = name.Text();
            const size_t known = static_cast<size_t>(std::find(names.begin(), names.end(), text) - names.begin());
            if (known == names.size())
                Report(name.Offset(), path,
                       Shown(name) + " is not a member of " + what + "; expected " + Joined(names));
            else if (members[known])
                Report(name.Offset(), path, Shown(name) + " appears twice");
            else
                members[known] = member;
        });
    return members;
}

std::optional<uint32_t> JsonReader::ReadNumber(JsonValue value, const Path& path, uint32_t least, uint32_t most,
                                               const std::string& orElse)
{
    uint32_t number = 0;
    if (value.Is(Kind::Number) && ParseNumber(value.Raw(), most, number) && number >= least)
        return number;
    Expected(value, path,
             orElse + (orElse.empty() ? "" : " or ") + "a whole number from " + std::to_string(least) + " to " +
                 std::to_string(most));
    return std::nullopt;
}

std::optional<uint32_t> JsonReader::ReadKeyword(JsonValue value, const Path& path, Keywords names)
{
    if (value.Is(Kind::String))
    {
        if (const Keyword* const keyword = FindKeyword(names, value.Text()))
            return keyword->Value;
    }
    return ReadNumber(value, path, 0, UINT32_MAX, KeywordNames(names));
}

std::optional<std::string> JsonReader::ReadText(JsonValue value, const Path& path, const char* what)
{
    if (value.Is(Kind::String))
        return value.Text();
    Expected(value, path, what);
    return std::nullopt;
}

void JsonReader::ReadNarrow(JsonValue value, const Path& path, void* field, size_t room)
{
    std::string why;
    const std::optional<std::string> text = ReadText(value, path, "a text");
    if (text && !PutNarrow(field, room, *text, why))
        Report(value.Offset(), path, why);
}

void JsonReader::ReadWide(JsonValue value, const Path& path, void* field, size_t room)
{
    std::string why;
    const std::optional<std::string> text = ReadText(value, path, "a text");
    if (text && !PutWide(field, room, *text, why))
        Report(value.Offset(), path, why);
}

void JsonReader::ReadHash(JsonValue value, const Path& path, uint8_t* to)
{
    std::string bytes;
    if (value.Is(Kind::String) && ParseHex(value.Text(), bytes) && bytes.size() == KXRULE_HASH_BYTES)
        std::copy(bytes.begin(), bytes.end(), to);
    else
        Expected(value, path, "the hash as 40 hexadecimal digits");
}

void JsonReader::ReadExtension(const RuleField& field, JsonValue value, const Path& path, uint8_t* record)
{
    const Members members = ReadMembers(value, path, {"flag", "value", "shortValue", "text"}, "an extension");
    // A rule that has an extension is meant to use it.
    const uint32_t flag = members[0] ? ReadNumber(*members[0], path.Member("flag"), 0, UINT32_MAX).value_or(1) : 1;
    Store(record + field.Places[0], flag);
    if (members[1])
        Store(record + field.Places[1], ReadNumber(*members[1], path.Member("value"), 0, UINT32_MAX).value_or(0));
    if (members[2])
        Store(record + field.Places[2],
              static_cast<uint16_t>(ReadNumber(*members[2], path.Member("shortValue"), 0, UINT16_MAX).value_or(0)));
    if (members[3])
        ReadNarrow(*members[3], path.Member("text"), record + field.Places[3], field.Room);
}

void JsonReader::ReadOne(const RuleField& field, JsonValue value, const Path& path, uint8_t* to)
{
    std::string why;
    switch (field.Type)
    {
    case FieldType::Word:
        if (const auto number = ReadNumber(value, path, 0, UINT16_MAX))
            Store(to, static_cast<uint16_t>(*number));
        return;
    case FieldType::DoubleWord:
        if (const auto number = ReadNumber(value, path, 0, UINT32_MAX))
            Store(to, *number);
        return;
    case FieldType::Switch:
        if (value.Is(Kind::True) || value.Is(Kind::False))
            Store(to, uint32_t{value.Is(Kind::True)});
        else if (const auto number = ReadNumber(value, path, 0, UINT32_MAX, "true, false"))
            Store(to, *number);
        return;
    case FieldType::Keyword:
        if (const auto number = ReadKeyword(value, path, field.Names))
            Store(to, *number);
        return;
    case FieldType::Address:
    {
        RULE_ADDR item{};
        if (!value.Is(Kind::String) || !ParseAddress(value.Text(), item, why))
            Expected(value, path, kAddressForms + (why.empty() ? why : " (" + why + ")"));
        Store(to, item);
        return;
    }
    case FieldType::Port:
    {
        // A port alone may also be written as a number.
        RULE_PORT item{};
        const bool written = value.Is(Kind::String) || value.Is(Kind::Number);
        if (!written || !ParsePort(value.Is(Kind::String) ? value.Text() : std::string(value.Raw()), item, why))
            Expected(value, path, kPortForms + (why.empty() ? why : " (" + why + ")"));
        Store(to, item);
        return;
    }
    case FieldType::Text:
        return ReadNarrow(value, path, to, field.Room);
    case FieldType::WideText:
    case FieldType::Application:
        return ReadWide(value, path, to, field.Room);
    case FieldType::Hash:
        return ReadHash(value, path, to);
    case FieldType::Extension:
        return;
    }
}

void JsonReader::ReadField(const RuleField& field, JsonValue value, const Path& path, uint8_t* record)
{
    if (field.Type == FieldType::Extension)
        return ReadExtension(field, value, path, record);
    if (field.Count == 1)
        return ReadOne(field, value, path, record + field.Places[0]);
    if (!value.Is(Kind::Array) || value.ItemCount() != field.Count)
    {
        const std::string found = value.Is(Kind::Array) ? std::to_string(value.ItemCount()) : Shown(value);
        return Report(value.Offset(), path, "expected an array of " + std::to_string(field.Count) + ", found " + found);
    }
    size_t index = 0;
    value.ForEachItem(
        [&](JsonValue item)
        {
            ReadOne(field, item, path.Item(index), record + field.Places[index]);
            ++index;
        });
}

void JsonReader::ReadRaw(JsonValue value, const Path& path, void* record, size_t begin, size_t end)
{
    ReadArray(value, path, "lines \"offset: bytes\"",
              [&](JsonValue item, const Path& where)
              {
                  const std::string text = item.Is(Kind::String) ? item.Text() : std::string();
                  const size_t colon = std::min(text.find(':'), text.size());
                  uint32_t offset = 0;
                  std::string bytes;
                  if (!ParseNumber(text.substr(0, colon), UINT16_MAX, offset) || colon == text.size() ||
                      !ParseHex(text.substr(colon + 1), bytes) || bytes.empty() || offset < begin || offset > end ||
                      bytes.size() > end - offset)
                      return Expected(item, where,
                                      "\"offset: hexadecimal bytes\" within " + std::to_string(begin) + " and " +
                                          std::to_string(end));
                  std::memcpy(static_cast<uint8_t*>(record) + offset, bytes.data(), bytes.size());
              });
}

} // namespace KxPolicy
