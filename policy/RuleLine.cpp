// One line as JSON, which is then read as every policy is.
#include "policy/RuleLine.h"

#include <algorithm>
#include <optional>

#include "policy/ItemText.h"
#include "policy/RuleFields.h"
#include "policy/RulesText.h"

namespace KxPolicy
{
namespace
{

/// What is between the commas of a rule's line: places of a field of the tables.
struct Slots
{
    const char* Member;
    uint8_t First = 0;
    uint8_t Count = 1;
};

constexpr Slots kAccessLine[] = {{"protocol"}, {"addresses", 0, 2}, {"ports", 0, 2}, {"action"}, {"extension"}};
constexpr Slots kNatLine[] = {{"protocol"}, {"addresses", 0, 3}, {"ports", 0, 3}, {"natType"}};
constexpr Slots kThrottleLine[] = {{"protocol"}, {"addresses", 0, 2}, {"ports", 0, 2}, {"limits", 0, 6}, {"extension"}};
constexpr Slots kStreamLine[] = {{"appProtocol"}, {"addresses", 0, 2}, {"streamParam"},
                                 {"action"},      {"extension"},       {"streamText"}};
constexpr Slots kGenStreamLine[] = {{"protocol"}, {"addresses", 0, 2}, {"ports", 0, 2}, {"direction"}, {"params", 0, 3},
                                    {"action"},   {"params", 3, 1},    {"extension"},   {"streamText"}};

std::span<const Slots> LineOf(uint32_t kind) noexcept
{
    switch (kind)
    {
    case KXRULE_KIND_ACCESS:
        return kAccessLine;
    case KXRULE_KIND_NAT:
        return kNatLine;
    case KXRULE_KIND_THROTTLE:
        return kThrottleLine;
    case KXRULE_KIND_STREAM:
        return kStreamLine;
    case KXRULE_KIND_GENSTREAM:
        return kGenStreamLine;
    default:
        return {};
    }
}

const RuleField* FieldOf(uint32_t kind, std::string_view name) noexcept
{
    for (const std::span<const RuleField> fields : {CommonFields(), KindFields(kind)})
    {
        for (const RuleField& field : fields)
        {
            if (field.Name == name)
                return &field;
        }
    }
    return nullptr;
}

std::optional<uint32_t> KindOf(std::string_view word)
{
    uint32_t kind = 0;
    if (const Keyword* const keyword = FindKeyword(kKinds, word))
        return keyword->Value;
    return ParseNumber(word, UINT32_MAX, kind) ? std::optional(kind) : std::nullopt;
}

bool IsBlank(char c) noexcept
{
    return kBlank.find(c) != std::string_view::npos;
}

/// Where a rule's line ends and its members begin: before two blanks, "(off)", or a member of the kind.
size_t LineLength(std::string_view text, uint32_t kind)
{
    for (size_t i = 0; i < text.size(); ++i)
    {
        if (!IsBlank(text[i]))
            continue;
        Scanner next(text.substr(i));
        const std::string_view key = next.Key();
        if (i + 1 >= text.size() || IsBlank(text[i + 1]) || text[i] != ' ' || next.Word() == kOff || key == "raw" ||
            (!key.empty() && FieldOf(kind, key) != nullptr))
            return i;
    }
    return text.size();
}

// ----------------------------------------------------------------------------------------- from a line to JSON text --

std::string Replaced(std::string text, char from, char to)
{
    std::replace(text.begin(), text.end(), from, to);
    return text;
}

/// A line has a colon between the ends of a range, and names without a sign. What begins as an address must be one:
/// a slip must not become a name.
Json LineAddress(std::string text)
{
    if (text.empty())
        return "any";
    const bool isAddress = text.front() == '!' || text.front() == '@' || (text.front() >= '0' && text.front() <= '9') ||
                           text.find(':') != std::string::npos || text == "any" || text == "none";
    if (!isAddress)
        return "@" + text;
    const bool isRange = text.find('.') < text.find(':') && std::count(text.begin(), text.end(), ':') == 1;
    return isRange ? Replaced(text, ':', '-') : text;
}

Json LinePort(std::string text)
{
    if (text.empty())
        return "any";
    const bool isPort = std::string_view("!@").find(text.front()) != std::string_view::npos || text == "any" ||
                        text == "none" || text.find_first_not_of("0123456789:|-") == std::string::npos;
    return isPort ? Replaced(Replaced(text, ':', '-'), '|', ',') : "@" + text;
}

/// A line has signed numbers.
Json LineNumber(const std::string& text)
{
    uint32_t number = 0;
    if (!text.empty() && text.front() == '-' && ParseNumber(text.substr(1), 0x80000000u, number))
        return uint32_t{0} - number;
    return ParseNumber(text, UINT32_MAX, number) ? Json(number) : Json(text);
}

Json LineValue(const RuleField& field, const std::string& text)
{
    switch (field.Type)
    {
    case FieldType::Address:
        return LineAddress(text);
    case FieldType::Port:
        return LinePort(text);
    case FieldType::Text:
    case FieldType::Keyword:
        return text;
    default:
        return LineNumber(text);
    }
}

/// "value:shortValue:text".
Json LineExtension(std::string text)
{
    Json extension = Json::object();
    for (const char* const part : {"value", "shortValue"})
    {
        const size_t end = std::min(text.find(':'), text.size());
        extension[part] = LineNumber(text.substr(0, end));
        text.erase(0, end + 1);
    }
    extension["text"] = text;
    return extension;
}

bool IsEmptyExtension(const Json& extension)
{
    return extension["value"] == 0 && extension["shortValue"] == 0 && extension["text"].get<std::string_view>().empty();
}

} // namespace

Json BareValue(std::string_view text, bool isList)
{
    if (isList && text != "null")
    {
        Json list = Json::array();
        while (!text.empty())
        {
            const size_t end = std::min(text.find(','), text.size());
            list.push_back(BareValue(text.substr(0, end), false));
            text.remove_prefix(std::min(end + 1, text.size()));
        }
        return list;
    }
    return Json::accept(text) ? Json::parse(text) : Json(text);
}

void LineReader::Begin(std::string_view line, size_t number, bool isPlacing)
{
    m_Text = line;
    m_Number = number;
    m_IsPlacing = isPlacing;
    m_Places.clear();
}

void LineReader::Report(size_t at, std::string text)
{
    if (m_Found.size() < kMostDiagnostics)
        m_Found.push_back({m_Number, Column(at), {}, std::move(text)});
}

size_t LineReader::Column(size_t at) const
{
    return 1 + static_cast<size_t>(std::count_if(m_Text.begin(), m_Text.begin() + static_cast<std::ptrdiff_t>(at),
                                                 [](char c) { return (c & 0xC0) != 0x80; }));
}

void LineReader::Remember(std::string_view name, size_t at, size_t element)
{
    if (m_IsPlacing)
        m_Places.try_emplace(std::string(name) + (element == SIZE_MAX ? "" : "[" + std::to_string(element) + "]"),
                             Place{m_Number, Column(at)});
}

Place LineReader::Find(std::string path) const
{
    auto place = m_Places.find(path);
    while (place == m_Places.end() && !path.empty())
    {
        const size_t end = path.find_last_of(".[");
        path.erase(end == std::string::npos ? 0 : end);
        place = m_Places.find(path);
    }
    return place == m_Places.end() ? Place{m_Number, 1} : place->second;
}

Json LineReader::Rule(Scanner& line)
{
    Json rule = Json::object();
    Remember({}, line.At());
    const std::string_view first = line.Word();
    uint32_t index = 0;
    if (ParseNumber(first, UINT32_MAX, index) && first.size() < line.Rest().size())
    {
        Remember("index", line.At());
        rule["index"] = index;
        line.Take(first.size());
    }
    const size_t at = line.At();
    const std::string_view word =
        line.Rest().substr(0, std::min(line.Rest().find_first_of(", \t\r"), line.Rest().size()));
    const std::optional<uint32_t> kind = KindOf(word);
    if (!kind)
    {
        Report(at, "expected active, macro, set or a rule, whose first word is one of " + KeywordNames(kKinds) +
                       ", found \"" + std::string(word) + "\"");
        line.Take(line.Rest().size());
        return rule;
    }
    rule["kind"] = *kind;
    Line(line.Take(LineLength(line.Rest(), *kind)), at, *kind, rule);
    Members(line, rule, *kind);
    return rule;
}

// Cuts a rule's line at its commas; the last of its texts takes what is left.
void LineReader::Line(std::string_view text, size_t at, uint32_t kind, Json& rule)
{
    size_t next = std::min(text.find(','), text.size()) + 1;
    if (next > text.size()) // members alone
        return;
    for (const Slots& slots : LineOf(kind))
    {
        const RuleField& field = *FieldOf(kind, slots.Member);
        const bool isLast =
            &slots == &LineOf(kind).back() && (field.Type == FieldType::Extension || field.Type == FieldType::Text);
        for (size_t i = 0; i < slots.Count; ++i)
        {
            if (next > text.size())
            {
                if (field.Type != FieldType::Extension && field.Type != FieldType::Text)
                    Report(at + text.size(), "expected " + std::string(slots.Member) + " after another comma");
                return;
            }
            const size_t end = isLast ? text.size() : std::min(text.find(',', next), text.size());
            Remember(slots.Member, at + next, field.Count > 1 ? slots.First + i : SIZE_MAX);
            const std::string part(text.substr(next, end - next));
            if (field.Type == FieldType::Extension)
            {
                Json extension = LineExtension(part);
                if (isLast || !IsEmptyExtension(extension)) // a stream's line always has it
                    rule[slots.Member] = std::move(extension);
            }
            else if (field.Count > 1)
                rule[slots.Member].push_back(LineValue(field, part));
            else if (field.Type != FieldType::Text || !part.empty())
                rule[slots.Member] = LineValue(field, part);
            next = end + 1;
        }
    }
    if (next <= text.size())
        Report(at + next, "expected the end of the line");
}

Json LineReader::Value(Scanner& line, bool isList)
{
    const std::string_view text = line.Value();
    const size_t at = line.At();
    if (text.empty())
        Report(at, "expected a value");
    else if (std::string_view("\"[{").find(text.front()) == std::string_view::npos)
        return BareValue(line.Take(text.size()), isList);
    Json value = Json::parse(text, nullptr, false);
    if (!text.empty() && value.is_discarded())
        Report(at, "expected JSON");
    line.Take(text.empty() ? line.Rest().size() : text.size());
    return value.is_discarded() ? Json() : value;
}

void LineReader::Members(Scanner& line, Json& to, uint32_t kind)
{
    while (!line.AtEnd() && (line.Word() == kOff || !line.Key().empty()))
    {
        const bool isOff = line.Word() == kOff;
        const std::string key(isOff ? "active" : line.Key());
        Remember(key, line.At());
        const RuleField* const field = FieldOf(kind, key);
        if (kind != 0 && field == nullptr && key != "raw")
            Report(line.At(), "\"" + key + "\" is not a member of a rule of kind " + KeywordText(kKinds, kind));
        line.Take(isOff ? kOff.size() : key.size() + 1);
        Json value = isOff ? Json(false) : Value(line, field != nullptr && field->Count > 1);
        if (value.is_null())
            to.erase(key);
        else if (kind == 0 || field != nullptr || key == "raw")
            to[key] = std::move(value);
    }
}

bool IsRuleLine(std::string_view text)
{
    Scanner line(text);
    uint32_t index = 0;
    if (ParseNumber(line.Word(), UINT32_MAX, index))
        line.Take(line.Word().size());
    return KindOf(line.Rest().substr(0, line.Rest().find_first_of(", "))).has_value();
}

} // namespace KxPolicy
