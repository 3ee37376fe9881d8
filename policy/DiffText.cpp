// Differences between policies as readable text.
#include <algorithm>

#include <nlohmann/json.hpp>

#include "policy/PolicyDiff.h"
#include "policy/RuleJson.h"
#include "policy/Utf8.h"
#include "policy/Words.h"

namespace KxPolicy
{
namespace
{

/// The lines of a text, without the commas between members.
std::vector<std::string> Lines(std::string_view text)
{
    std::vector<std::string> lines;
    while (!text.empty())
    {
        const size_t end = std::min(text.find('\n'), text.size());
        lines.emplace_back(text.substr(0, end - (end > 0 && text[end - 1] == ',' ? 1 : 0)));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

template <class Iterator>
void AppendLines(std::string& out, char sign, Iterator line, Iterator end)
{
    for (; line != end; ++line)
        out += std::string("      ") + sign + *line + "\n";
}

void AppendMember(std::string& out, char sign, const Json::iterator& member)
{
    std::string text = "  \"" + member.key() + "\": ";
    AppendJsonText(text, member.value(), 1, member.key());
    const std::vector<std::string> lines = Lines(text);
    AppendLines(out, sign, lines.begin(), lines.end());
}

/// The members that differ. Members have a fixed order, so those that both rules have are found in step.
void AppendRuleDiff(std::string& out, const PFW_RULE& before, const PFW_RULE& after)
{
    Json from = RuleAsJson(before);
    Json to = RuleAsJson(after);
    std::string removed;
    std::string added;
    for (auto i = from.begin(), j = to.begin(); i != from.end() || j != to.end();)
    {
        const bool goes = i != from.end() && (j == to.end() || !to.contains(i.key()));
        const bool comes = !goes && (i == from.end() || !from.contains(j.key()));
        if (!goes && !comes && *i == *j)
        {
            out += removed + added;
            removed.clear();
            added.clear();
            ++i, ++j;
            continue;
        }
        if (!comes)
            AppendMember(removed, '-', i++);
        if (!goes)
            AppendMember(added, '+', j++);
    }
    out += removed + added;
}

/// A rule in one line: kind and description.
std::string Title(const PFW_RULE& rule)
{
    const Json json = RuleAsJson(rule);
    return "  " + JsonLine(json["kind"]) + (json.contains("description") ? "  " + JsonLine(json["description"]) : "");
}

/// From the first line that differs to the last.
void AppendMacroDiff(std::string& out, const std::vector<MacroRecord>& before, const std::vector<MacroRecord>& after)
{
    const auto lines = [](const std::vector<MacroRecord>& macros)
    {
        std::string text = "  \"macros\": ";
        AppendJsonText(text, MacrosAsJson(macros), 1);
        return Lines(text);
    };
    const std::vector<std::string> from = lines(before);
    const std::vector<std::string> to = lines(after);
    const auto front = std::mismatch(from.begin(), from.end(), to.begin(), to.end());
    const auto back = std::mismatch(from.rbegin(), std::reverse_iterator(front.first), to.rbegin(),
                                    std::reverse_iterator(front.second));
    AppendLines(out, '-', front.first, back.first.base());
    AppendLines(out, '+', front.second, back.second.base());
}

} // namespace

std::string DiffText(const PolicyDiff& diff)
{
    std::string out;
    for (const RuleSetChange& change : diff.RuleSets)
    {
        const char sign = !change.NameBefore ? '+' : !change.NameAfter ? '-' : '~';
        out += std::string(1, sign) + " rule set " + std::to_string(change.Index) + "  \"" +
               ToUtf8(change.NameBefore ? *change.NameBefore : *change.NameAfter) + "\"";
        if (change.NameBefore && change.NameAfter && *change.NameBefore != *change.NameAfter)
            out += " becomes \"" + ToUtf8(*change.NameAfter) + "\"";
        out += "\n";
        for (const RuleChange& rule : change.Rules)
        {
            const char ruleSign = !rule.After ? '-' : !rule.Before ? '+' : '~';
            out += std::string("  ") + ruleSign + " rule " + std::to_string(rule.Index) +
                   Title(rule.After ? *rule.After : *rule.Before) + "\n";
            if (rule.Before && rule.After)
                AppendRuleDiff(out, *rule.Before, *rule.After);
        }
    }
    if (diff.Macros)
    {
        out += "~ macros\n";
        AppendMacroDiff(out, diff.MacrosBefore, *diff.Macros);
    }
    if (diff.Active)
        out += "~ active  " + JsonLine(diff.ActiveBefore) + " becomes " + JsonLine(*diff.Active) + "\n";
    return out;
}

std::string DiffSummary(const PolicyDiff& diff)
{
    size_t sets[3] = {};
    size_t rules[3] = {};
    static constexpr const char* kVerbs[] = {" added", " changed", " removed"};
    for (const RuleSetChange& change : diff.RuleSets)
    {
        ++sets[!change.NameBefore ? 0 : !change.NameAfter ? 2 : 1];
        for (const RuleChange& rule : change.Rules)
            ++rules[!rule.Before ? 0 : !rule.After ? 2 : 1];
    }
    std::string text;
    const auto append = [&text](const std::string& part) { text += (text.empty() ? "" : ", ") + part; };
    for (size_t i = 0; i < 3; ++i)
    {
        if (sets[i] > 0)
            append(Count(sets[i], "rule set") + kVerbs[i]);
    }
    for (size_t i = 0; i < 3; ++i)
    {
        if (rules[i] > 0)
            append(Count(rules[i], "rule") + kVerbs[i]);
    }
    if (diff.Macros)
        append(diff.Macros->empty() ? "macros removed" : "macros changed");
    if (diff.Active)
        append("active list changed");
    return text.empty() ? "nothing changed" : text;
}

} // namespace KxPolicy
