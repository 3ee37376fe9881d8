// Reads policies and rules from lines of text: headings, and what belongs to each. Each line becomes JSON text at once;
// only where the lines are is kept beside that.
#include "policy/RulesText.h"

#include <algorithm>
#include <utility>

#include "policy/ItemText.h"
#include "policy/RuleLine.h"

namespace KxPolicy
{
namespace
{

std::string Dumped(const Json& json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

/// The index after a name in front of a path, which loses both; SIZE_MAX when something else is there.
size_t TakeIndex(std::string& path, std::string_view name)
{
    uint32_t index = 0;
    const size_t end = path.find(']');
    if (!path.starts_with(name) || end == std::string::npos ||
        !ParseNumber(std::string_view(path).substr(name.size(), end - name.size()), UINT32_MAX, index))
        return SIZE_MAX;
    path.erase(0, std::min(path.find_first_not_of("].", end), path.size()));
    return index;
}

/// Adds the diagnostics of the JSON form, which have their places, to those of the lines.
bool Merge(std::vector<Diagnostic> told, std::vector<Diagnostic>& diagnostics)
{
    std::erase_if(diagnostics,
                  [&told](const Diagnostic& found) // a consequence of an error already reported
                  {
                      return std::any_of(told.begin(), told.end(),
                                         [&found](const Diagnostic& other) { return other.Line == found.Line; });
                  });
    told.insert(told.end(), diagnostics.begin(), diagnostics.end());
    std::stable_sort(told.begin(), told.end(),
                     [](const Diagnostic& a, const Diagnostic& b)
                     { return a.Line != b.Line ? a.Line < b.Line : a.Column < b.Column; });
    diagnostics = std::move(told);
    return diagnostics.empty();
}

/// Makes the JSON of a policy, and finds the lines again of which the reader of JSON has something to say.
class Translator
{
public:
    [[nodiscard]] std::string Policy(std::string_view text)
    {
        if (text.substr(0, 3) == "\xEF\xBB\xBF")
            text.remove_prefix(3);
        for (m_At.Number = 1; !text.empty(); ++m_At.Number)
        {
            const size_t end = std::min(text.find('\n'), text.size());
            m_At.Text = text.substr(0, end);
            m_Line.Begin(m_At.Text, m_At.Number, false);
            Scanner line(m_At.Text);
            if (!line.AtEnd() && line.Rest().front() != '#')
                PolicyLine(line);
            text.remove_prefix(std::min(end + 1, text.size()));
        }
        std::string policy;
        const auto add = [&policy](const char* name, const std::string& value)
        { policy += (policy.empty() ? "\"" : ",\"") + std::string(name) + "\":" + value; };
        if (!m_Version.empty())
            add("version", m_Version);
        if (m_Active.IsThere)
            add("active", m_Active.Whole());
        if (m_Macros.IsThere)
            add("macros", m_Macros.Whole());
        if (m_RuleSets.IsThere)
            add("ruleSets", m_RuleSets.Whole());
        return "{" + policy + "}";
    }

    /// Moves diagnostics of the JSON form to their places in the text.
    [[nodiscard]] bool Finish(std::vector<Diagnostic>& diagnostics)
    {
        std::vector<Diagnostic> told = std::move(m_Line.Found());
        for (Diagnostic& found : diagnostics)
        {
            std::string path = found.Path;
            ReadAgain(LineOf(path), path);
            const Place place = m_Line.Find(path);
            found.Line = place.Line;
            found.Column = place.Column;
        }
        return Merge(std::move(told), diagnostics);
    }

private:
    struct Marked
    {
        std::string_view Text;
        size_t Number = 1;
        size_t First = 0; // of the active list: its first element
    };
    /// The elements of an array, as JSON; of those that have a heading the last one is open.
    struct List
    {
        struct Section
        {
            Marked Heading;
            std::vector<Marked> Inner;
        };
        bool IsThere = false;
        std::string Json;
        std::vector<Section> Sections;

        [[nodiscard]] std::string Whole() const { return "[" + Json + (Sections.empty() ? "]" : "]}]"); }
    };

    void PolicyLine(Scanner& line)
    {
        const size_t at = line.At();
        const std::string_view word = line.Word();
        const bool isHead = m_HasHead;
        m_HasHead = true;
        if (word == "rules" && !isHead)
        {
            m_VersionLine = m_At;
            m_Version = Dumped(TakeVersion(line));
        }
        else if (!isHead)
            m_Line.Report(at, "expected \"rules " + std::to_string(kPolicyVersion) + "\" as the first line, or JSON");
        else if (word == "active")
            TakeActive(line);
        else if (word == "macros" || word == "sets")
        {
            line.Take(word.size());
            (word == "sets" ? m_RuleSets : m_Macros).IsThere = true;
        }
        else if (word == "macro" || word == "set")
            Open(word == "macro" ? m_Macros : m_RuleSets, line);
        else if (m_Open == nullptr)
            m_Line.Report(at, "expected active, macros, macro, sets or set");
        else
            Add(line);
        if (!line.AtEnd() && m_Line.Found().empty())
            m_Line.Report(line.At(), "expected the end of the line");
    }

    Json TakeVersion(Scanner& line)
    {
        line.Take(line.Word().size());
        m_Line.Remember("version", line.At());
        return BareValue(line.Take(line.Word().size()), false);
    }

    /// "active 1 2"; alone, none.
    void TakeActive(Scanner& line)
    {
        m_Active.IsThere = true;
        m_At.First = m_ActiveLines.size();
        for (line.Take(line.Word().size()); !line.AtEnd();)
        {
            m_ActiveLines.push_back(m_At);
            m_Active.Json +=
                (m_Active.Json.empty() ? "" : ",") + Dumped(BareValue(line.Take(line.Word().size()), false));
        }
    }

    Json Heading(Scanner& line, bool isMacro)
    {
        m_Line.Remember({}, line.At());
        line.Take(line.Word().size());
        Json entry = Json::object();
        const auto take = [&](const char* name)
        {
            m_Line.Remember(name, line.At());
            entry[name] = m_Line.Value(line, false);
        };
        if (!isMacro && !line.AtEnd())
            take("index");
        if (!line.AtEnd() && line.Key().empty())
            take("name");
        m_Line.Members(line, entry, 0);
        return entry;
    }

    void Open(List& list, Scanner& line)
    {
        const bool isMacro = &list == &m_Macros;
        std::string json = Dumped(Heading(line, isMacro));
        json.back() = json.size() > 2 ? ',' : ' ';
        list.Json += (list.Sections.empty() ? "" : "]},") + json + (isMacro ? "\"items\":[" : "\"rules\":[");
        list.IsThere = true;
        list.Sections.push_back({m_At, {}});
        m_Open = &list;
        m_NextIndex = 1;
    }

    Json Item(Scanner& line)
    {
        m_Line.Remember({}, line.At());
        Json item = Json::object();
        m_Line.Members(line, item, 0);
        return item;
    }

    /// To what was opened last.
    void Add(Scanner& line)
    {
        Json inner = m_Open == &m_Macros ? Item(line) : m_Line.Rule(line);
        if (m_Open != &m_Macros)
        {
            if (!inner.contains("index"))
                inner["index"] = m_NextIndex;
            m_NextIndex = inner["index"].is_number_unsigned() ? inner["index"].get<uint32_t>() + 1 : m_NextIndex;
        }
        std::vector<Marked>& lines = m_Open->Sections.back().Inner;
        m_Open->Json += (lines.empty() ? "" : ",") + Dumped(inner);
        lines.push_back(m_At);
    }

    /// The line that a path is about; what is left of the path is within it.
    const Marked& LineOf(std::string& path) const
    {
        static constexpr Marked kFirst;
        if (path == "version")
            return m_VersionLine;
        std::string rest = path;
        if (const size_t element = TakeIndex(rest, "active["); element < m_ActiveLines.size())
            return m_ActiveLines[element];
        for (const List* const list : {&m_Macros, &m_RuleSets})
        {
            const size_t index = TakeIndex(path, list == &m_Macros ? "macros[" : "ruleSets[");
            if (index >= list->Sections.size())
                continue;
            const size_t inner = TakeIndex(path, list == &m_Macros ? "items[" : "rules[");
            const auto& section = list->Sections[index];
            return inner < section.Inner.size() ? section.Inner[inner] : section.Heading;
        }
        return kFirst;
    }

    /// For the place of the value that the rest of the path is about.
    void ReadAgain(const Marked& marked, const std::string& path)
    {
        m_Line.Begin(marked.Text, marked.Number, true);
        Scanner line(marked.Text);
        const std::string_view word = line.Word();
        if (&marked == &m_VersionLine)
            static_cast<void>(TakeVersion(line));
        else if (word == "active")
        {
            std::string rest = path;
            size_t skipped = TakeIndex(rest, "active[") - marked.First;
            for (line.Take(word.size()); skipped > 0; --skipped)
                line.Take(line.Word().size());
            m_Line.Remember(path, line.At());
        }
        else if (word == "macro" || word == "set")
            static_cast<void>(Heading(line, word == "macro"));
        else if (!line.Key().empty())
            static_cast<void>(Item(line));
        else
            static_cast<void>(m_Line.Rule(line));
        m_Line.Found().clear();
    }

    LineReader m_Line;
    Marked m_At;
    bool m_HasHead = false;
    Marked m_VersionLine;
    std::string m_Version;
    List m_Active;
    std::vector<Marked> m_ActiveLines;
    List m_Macros;
    List m_RuleSets;
    List* m_Open = nullptr; // where items or rules go
    uint32_t m_NextIndex = 1;
};

} // namespace

bool ReadAnyPolicy(std::string_view text, Policy& policy, std::vector<Diagnostic>& diagnostics)
{
    const size_t first = text.find_first_not_of("\xEF\xBB\xBF \t\r\n");
    if (first == std::string_view::npos || text[first] == '{' || text[first] == '[')
        return ReadPolicy(text, policy, diagnostics);
    Translator translator;
    const std::string json = translator.Policy(text);
    static_cast<void>(ReadPolicy(json, policy, diagnostics));
    return translator.Finish(diagnostics);
}

bool ReadAnyRule(std::string_view text, PFW_RULE& rule, bool& hasIndex, std::vector<Diagnostic>& diagnostics)
{
    hasIndex = true;
    if (!IsRuleLine(text))
        return ReadRule(text, rule, diagnostics);
    text.remove_suffix(text.size() - (text.find_last_not_of("\r\n") + 1));
    LineReader reader;
    reader.Begin(text, 1, true);
    Scanner line(text);
    Json json = reader.Rule(line);
    if (!line.AtEnd() && reader.Found().empty())
        reader.Report(line.At(), "expected the end of the line");
    hasIndex = json.contains("index");
    if (!hasIndex)
        json["index"] = 0;
    diagnostics.clear();
    if (reader.Found().empty())
        static_cast<void>(ReadRule(Dumped(json), rule, diagnostics));
    for (Diagnostic& found : diagnostics)
    {
        const Place place = reader.Find(found.Path);
        found.Line = place.Line;
        found.Column = place.Column;
    }
    return Merge(std::move(reader.Found()), diagnostics);
}

} // namespace KxPolicy
