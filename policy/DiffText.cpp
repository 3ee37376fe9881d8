// Differences between policies for people to read.
#include <algorithm>

#include "policy/PolicyDiff.h"
#include "policy/RuleJson.h"
#include "policy/Utf8.h"
#include "policy/Words.h"

namespace KxPolicy
{
namespace
{

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    for (size_t begin = 0; begin < text.size();)
    {
        const size_t end = std::min(text.find('\n', begin), text.size());
        std::string line = text.substr(begin, end - begin);
        if (!line.empty() && line.back() == ',')
            line.pop_back();
        lines.push_back(std::move(line));
        begin = end + 1;
    }
    return lines;
}

/// The lines of two texts whose members stand in the same order: those of one side alone.
void AppendLineDiff(std::string& out, const std::string& before, const std::string& after)
{
    const std::vector<std::string> from = Lines(before);
    const std::vector<std::string> to = Lines(after);
    // The longest common row of lines. Rules have a few dozen; for texts of thousands a shorter row will do.
    constexpr size_t kMost = 2000;
    const bool small = from.size() <= kMost && to.size() <= kMost;
    std::vector<std::vector<uint16_t>> common(from.size() + 1, std::vector<uint16_t>(small ? to.size() + 1 : 0));
    for (size_t i = from.size(); small && i-- > 0;)
    {
        for (size_t j = to.size(); j-- > 0;)
            common[i][j] = from[i] == to[j] ? static_cast<uint16_t>(common[i + 1][j + 1] + 1)
                                            : std::max(common[i + 1][j], common[i][j + 1]);
    }
    for (size_t i = 0, j = 0; i < from.size() || j < to.size();)
    {
        if (i < from.size() && j < to.size() && from[i] == to[j])
        {
            ++i;
            ++j;
        }
        else if (j == to.size() || (i < from.size() && (!small || common[i + 1][j] >= common[i][j + 1])))
        {
            out += "      -" + from[i++] + "\n";
        }
        else
        {
            out += "      +" + to[j++] + "\n";
        }
    }
}

/// A rule in one line: kind and description.
std::string Title(const PFW_RULE& rule)
{
    std::vector<std::string> lines = Lines(RuleToJson(rule));
    std::string title;
    for (const std::string& line : lines)
    {
        if (line.find("\"kind\":") != std::string::npos || line.find("\"description\":") != std::string::npos)
            title += "  " + line.substr(line.find(": ") + 2);
    }
    return title;
}

std::string Numbers(const std::vector<uint16_t>& numbers)
{
    std::string text;
    for (const uint16_t number : numbers)
        text += (text.empty() ? "" : ", ") + std::to_string(number);
    return "[" + text + "]";
}

std::string Macros(const std::vector<MacroRecord>& macros)
{
    Policy policy;
    policy.Macros = macros;
    return PolicyToJson(policy);
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
            const char ruleSign = !rule.Before ? '+' : !rule.After ? '-' : '~';
            out += std::string("  ") + ruleSign + " rule " + std::to_string(rule.Index) +
                   Title(rule.After ? *rule.After : *rule.Before) + "\n";
            if (rule.Before && rule.After)
                AppendLineDiff(out, RuleToJson(*rule.Before), RuleToJson(*rule.After));
        }
    }
    if (diff.Macros)
    {
        out += "~ macros\n";
        AppendLineDiff(out, Macros(diff.MacrosBefore), Macros(*diff.Macros));
    }
    if (diff.Active)
        out += "~ active  " + Numbers(diff.ActiveBefore) + " becomes " + Numbers(*diff.Active) + "\n";
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
