// Reads policies and rules from lines of text.
#include "policy/RulesText.h"

#include <algorithm>
#include <map>
#include <optional>

#include <nlohmann/json.hpp>

#include "policy/ItemText.h"
#include "policy/JsonTree.h"
#include "policy/RuleFields.h"

namespace KxPolicy
{
namespace
{

constexpr std::string_view kBlank = " \t\r";
constexpr size_t kMostDiagnostics = 1000; // nobody reads more
constexpr size_t kMostNesting = 8;        // of JSON in a value; the format itself has three levels

/// What is between the commas of a rule's line: places of a field of the tables.
struct Slots
{
    const char* Member;
    uint8_t First = 0;
    uint8_t Count = 1;
};

constexpr Slots kAccess[] = {{"protocol"}, {"addresses", 0, 2}, {"ports", 0, 2}, {"action"}, {"extension"}};
constexpr Slots kNat[] = {{"protocol"}, {"addresses", 0, 3}, {"ports", 0, 3}, {"natType"}};
constexpr Slots kThrottle[] = {{"protocol"}, {"addresses", 0, 2}, {"ports", 0, 2}, {"limits", 0, 6}, {"extension"}};
constexpr Slots kStream[] = {{"appProtocol"}, {"addresses", 0, 2}, {"streamParam"},
                             {"action"},      {"extension"},       {"streamText"}};
constexpr Slots kGenStream[] = {{"protocol"}, {"addresses", 0, 2}, {"ports", 0, 2}, {"direction"}, {"params", 0, 3},
                                {"action"},   {"params", 3, 1},    {"extension"},   {"streamText"}};

std::span<const Slots> LineOf(uint32_t kind) noexcept
{
    switch (kind)
    {
    case KXRULE_KIND_ACCESS:
        return kAccess;
    case KXRULE_KIND_NAT:
        return kNat;
    case KXRULE_KIND_THROTTLE:
        return kThrottle;
    case KXRULE_KIND_STREAM:
        return kStream;
    case KXRULE_KIND_GENSTREAM:
        return kGenStream;
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

/// The parts of a line, with their places in it.
class Scanner
{
public:
    explicit Scanner(std::string_view line) : m_Line(line) { SkipBlanks(); }

    [[nodiscard]] bool AtEnd() const noexcept { return m_At == m_Line.size(); }
    [[nodiscard]] size_t At() const noexcept { return m_At; }
    [[nodiscard]] std::string_view Rest() const noexcept { return m_Line.substr(m_At); }
    void SkipBlanks() noexcept
    {
        while (m_At < m_Line.size() && IsBlank(m_Line[m_At]))
            ++m_At;
    }
    std::string_view Take(size_t count) noexcept
    {
        const std::string_view taken = m_Line.substr(m_At, count);
        m_At += taken.size();
        SkipBlanks();
        return taken;
    }
    [[nodiscard]] std::string_view Word() const noexcept
    {
        return Rest().substr(0, std::min(Rest().find_first_of(kBlank), Rest().size()));
    }
    /// A word, or JSON up to the end of its text or the last of its brackets.
    [[nodiscard]] std::string_view Value() const noexcept
    {
        const std::string_view rest = Rest();
        if (rest.empty() || std::string_view("\"[{").find(rest.front()) == std::string_view::npos)
            return Word();
        bool isText = false;
        size_t depth = 0;
        for (size_t i = 0; i < rest.size(); ++i)
        {
            const char c = rest[i];
            if (isText && c == '\\')
                ++i;
            else if (c == '"')
                isText = !isText;
            else if (!isText && (c == '[' || c == '{'))
                ++depth;
            else if (!isText && (c == ']' || c == '}'))
                --depth;
            if (depth > kMostNesting)
                return {};
            if (!isText && depth == 0)
                return rest.substr(0, i + 1);
        }
        return rest;
    }
    /// The name before "=" if a member is next.
    [[nodiscard]] std::string_view Key() const noexcept
    {
        const std::string_view rest = Rest();
        size_t length = 0;
        while (length < rest.size() &&
               ((rest[length] >= 'a' && rest[length] <= 'z') || (rest[length] >= 'A' && rest[length] <= 'Z')))
            ++length;
        return length > 0 && length < rest.size() && rest[length] == '=' ? rest.substr(0, length) : std::string_view();
    }

private:
    std::string_view m_Line;
    size_t m_At = 0;
};

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

/// A bare value: a number, true, false or null if it is one, else text; for fields of several places a list.
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

std::string Member(const std::string& path, std::string_view name)
{
    return path + (path.empty() ? "" : ".") + std::string(name);
}

/// Makes JSON of lines, and remembers where in the text each of its values came from.
class Translator
{
public:
    void Report(size_t at, std::string text)
    {
        if (m_Found.size() < kMostDiagnostics)
            m_Found.push_back({m_Line, Column(at), {}, std::move(text)});
    }

    [[nodiscard]] Json Policy(std::string_view text)
    {
        if (text.substr(0, 3) == "\xEF\xBB\xBF")
            text.remove_prefix(3);
        Json policy = Json::object();
        for (m_Line = 1; !text.empty(); ++m_Line)
        {
            const size_t end = std::min(text.find('\n'), text.size());
            m_Text = text.substr(0, end);
            Scanner line(m_Text);
            if (!line.AtEnd() && line.Rest().front() != '#')
                PolicyLine(line, policy);
            text.remove_prefix(std::min(end + 1, text.size()));
        }
        return policy;
    }

    /// A rule's members; the index only when the line has one.
    Json Rule(std::string_view text, const std::string& path)
    {
        m_Text = text;
        Scanner line(text);
        return Rule(line, path);
    }

    [[nodiscard]] bool IsGood() const noexcept { return m_Found.empty(); }

    /// Moves diagnostics of the JSON form to their places in the text.
    [[nodiscard]] bool Finish(std::vector<Diagnostic>& diagnostics)
    {
        for (Diagnostic& found : diagnostics)
        {
            std::string path = found.Path;
            while (!path.empty() && m_Places.find(path) == m_Places.end())
                path.erase(path.find_last_of(".[") == std::string::npos ? 0 : path.find_last_of(".["));
            const auto place = m_Places.find(path);
            found.Line = place == m_Places.end() ? 1 : place->second.Line;
            found.Column = place == m_Places.end() ? 1 : place->second.Column;
        }
        std::erase_if(diagnostics,
                      [this](const Diagnostic& found) // a consequence of an error already reported
                      {
                          return std::any_of(m_Found.begin(), m_Found.end(),
                                             [&found](const Diagnostic& told) { return told.Line == found.Line; });
                      });
        m_Found.insert(m_Found.end(), diagnostics.begin(), diagnostics.end());
        std::stable_sort(m_Found.begin(), m_Found.end(),
                         [](const Diagnostic& a, const Diagnostic& b)
                         { return a.Line != b.Line ? a.Line < b.Line : a.Column < b.Column; });
        diagnostics = std::move(m_Found);
        return diagnostics.empty();
    }

private:
    [[nodiscard]] size_t Column(size_t at) const
    {
        return 1 + static_cast<size_t>(std::count_if(m_Text.begin(), m_Text.begin() + static_cast<std::ptrdiff_t>(at),
                                                     [](char c) { return (c & 0xC0) != 0x80; }));
    }
    void Remember(const std::string& path, size_t at) { m_Places.try_emplace(path, Place{m_Line, Column(at)}); }

    void PolicyLine(Scanner& line, Json& policy)
    {
        const size_t at = line.At();
        const std::string_view word = line.Word();
        const bool isHead = m_HasHead;
        m_HasHead = true;
        if (word == "rules" && !isHead)
        {
            line.Take(word.size());
            Remember("version", line.At());
            policy["version"] = BareValue(line.Take(line.Word().size()), false);
        }
        else if (!isHead)
            Report(at, "expected \"rules " + std::to_string(kPolicyVersion) + "\" as the first line, or JSON");
        else if (word == "active" || word == "macros" || word == "sets")
            List(line, policy, word == "sets" ? "ruleSets" : std::string(word));
        else if (word == "macro" || word == "set")
            Heading(line, policy, word == "macro");
        else if (m_Inner == nullptr)
            Report(at, "expected active, macros, macro, sets or set");
        else if (m_InnerIsMacro)
            Item(line);
        else
            RuleOfSet(line);
        if (!line.AtEnd() && m_Found.empty())
            Report(line.At(), "expected the end of the line");
    }

    /// "active 1 2"; "macros" and "sets" alone stand for none of them.
    void List(Scanner& line, Json& policy, const std::string& member)
    {
        line.Take(line.Word().size());
        Json& list = policy[member];
        if (list.is_null())
            list = Json::array();
        for (; member == "active" && !line.AtEnd(); list.push_back(BareValue(line.Take(line.Word().size()), false)))
            Remember("active[" + std::to_string(list.size()) + "]", line.At());
    }

    void Heading(Scanner& line, Json& policy, bool isMacro)
    {
        const std::string member = isMacro ? "macros" : "ruleSets";
        m_Path = member + "[" + std::to_string(policy[member].size()) + "]";
        m_InnerIsMacro = isMacro;
        Remember(m_Path, line.At());
        line.Take(line.Word().size());
        Json entry = Json::object();
        const auto take = [&](const char* name)
        {
            Remember(m_Path + "." + name, line.At());
            entry[name] = Value(line, false);
        };
        if (!isMacro && !line.AtEnd())
            take("index");
        if (!line.AtEnd() && line.Key().empty())
            take("name");
        Members(line, m_Path, entry, 0);
        entry[isMacro ? "items" : "rules"] = Json::array();
        policy[member].push_back(std::move(entry));
        m_Inner = &policy[member].back()[isMacro ? "items" : "rules"];
        m_NextIndex = 1;
    }

    void Item(Scanner& line)
    {
        const std::string path = m_Path + ".items[" + std::to_string(m_Inner->size()) + "]";
        Remember(path, line.At());
        Json item = Json::object();
        Members(line, path, item, 0);
        m_Inner->push_back(std::move(item));
    }

    void RuleOfSet(Scanner& line)
    {
        Json rule = Rule(line, m_Path + ".rules[" + std::to_string(m_Inner->size()) + "]");
        if (!rule.contains("index"))
            rule["index"] = m_NextIndex;
        m_NextIndex = rule["index"].is_number_unsigned() ? rule["index"].get<uint32_t>() + 1 : m_NextIndex;
        m_Inner->push_back(std::move(rule));
    }

    Json Rule(Scanner& line, const std::string& path)
    {
        Json rule = Json::object();
        Remember(path, line.At());
        const std::string_view first = line.Word();
        uint32_t index = 0;
        if (ParseNumber(first, UINT32_MAX, index) && first.size() < line.Rest().size())
        {
            Remember(Member(path, "index"), line.At());
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
        Line(line.Take(LineLength(line.Rest(), *kind)), at, path, *kind, rule);
        Members(line, path, rule, *kind);
        return rule;
    }

    /// Cuts a rule's line at its commas; the last of its texts takes what is left.
    void Line(std::string_view text, size_t at, const std::string& path, uint32_t kind, Json& rule)
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
                Remember(Member(path, slots.Member) +
                             (field.Count > 1 ? "[" + std::to_string(slots.First + i) + "]" : ""),
                         at + next);
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

    Json Value(Scanner& line, bool isList)
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

    void Members(Scanner& line, const std::string& path, Json& to, uint32_t kind)
    {
        while (!line.AtEnd() && (line.Word() == kOff || !line.Key().empty()))
        {
            const bool isOff = line.Word() == kOff;
            const std::string key(isOff ? "active" : line.Key());
            Remember(Member(path, key), line.At());
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

    size_t m_Line = 1;
    std::string_view m_Text; // the line
    bool m_HasHead = false;
    bool m_InnerIsMacro = false;
    Json* m_Inner = nullptr; // where items or rules go
    std::string m_Path;      // of the macro or rule set
    uint32_t m_NextIndex = 1;
    std::map<std::string, Place> m_Places;
    std::vector<Diagnostic> m_Found;
};

} // namespace

bool ReadAnyPolicy(std::string_view text, Policy& policy, std::vector<Diagnostic>& diagnostics)
{
    const size_t first = text.find_first_not_of("\xEF\xBB\xBF \t\r\n");
    if (first == std::string_view::npos || text[first] == '{' || text[first] == '[')
        return ReadPolicy(text, policy, diagnostics);
    Translator translator;
    const std::string json = translator.Policy(text).dump(-1, ' ', false, Json::error_handler_t::replace);
    static_cast<void>(ReadPolicy(json, policy, diagnostics));
    return translator.Finish(diagnostics);
}

bool ReadAnyRule(std::string_view text, PFW_RULE& rule, bool& hasIndex, std::vector<Diagnostic>& diagnostics)
{
    hasIndex = true;
    if (!IsRuleLine(text))
        return ReadRule(text, rule, diagnostics);
    text.remove_suffix(text.size() - (text.find_last_not_of("\r\n") + 1));
    Translator translator;
    Json json = translator.Rule(text, {});
    hasIndex = json.contains("index");
    if (!hasIndex)
        json["index"] = 0;
    diagnostics.clear();
    if (translator.IsGood())
        static_cast<void>(ReadRule(json.dump(-1, ' ', false, Json::error_handler_t::replace), rule, diagnostics));
    return translator.Finish(diagnostics);
}

bool IsRuleLine(std::string_view text)
{
    Scanner line(text);
    uint32_t index = 0;
    if (ParseNumber(line.Word(), UINT32_MAX, index))
        line.Take(line.Word().size());
    const size_t end = line.Rest().find_first_of(", ");
    return end != std::string_view::npos && KindOf(line.Rest().substr(0, end)).has_value();
}

} // namespace KxPolicy
