// The store as one HTML page.
#include "tools/kxrule/report/Report.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <map>
#include <set>

#include <utf8.h>

#include "common/srclib/KxComn_Record.h"
#include "policy/ItemText.h"
#include "policy/RecordText.h"
#include "policy/RuleFields.h"
#include "policy/RulesText.h"
#include "policy/Utf8.h"
#include "policy/Words.h"
#include "tools/kxrule/report/ReportScript.h"
#include "tools/kxrule/report/ReportStyle.h"

namespace Tool
{
namespace
{

using KxCommon::Record::Load;

constexpr size_t kMostLive = 2000;  // rules; of more the rows are text until they are looked at
constexpr size_t kMostRows = 2000;  // of the matrix
constexpr size_t kFewWarnings = 12; // more than these are folded
constexpr size_t kFewLinks = 4;     // to the rules that cover one

/// Marks that turn the direction of a line around, and whatever else nobody sees.
bool IsUnseen(uint32_t codePoint) noexcept
{
    static constexpr uint32_t kRanges[][2] = {{0, 0x1F},        {0x7F, 0x9F},     {0xAD, 0xAD},     {0x61C, 0x61C},
                                              {0x200B, 0x200F}, {0x2028, 0x202E}, {0x2060, 0x206F}, {0xFEFF, 0xFEFF}};
    return std::any_of(std::begin(kRanges), std::end(kRanges),
                       [codePoint](const uint32_t(&range)[2])
                       { return codePoint >= range[0] && codePoint <= range[1]; });
}

/// Text between tags. What nobody would see is named.
std::string Escaped(std::string_view text)
{
    const std::string valid = utf8::replace_invalid(text);
    std::string out;
    for (auto at = valid.begin(); at != valid.end();)
    {
        const uint32_t codePoint = utf8::unchecked::next(at);
        char name[40];
        std::snprintf(name, sizeof name, "<b class=code>U+%04X</b>", static_cast<unsigned>(codePoint));
        if (IsUnseen(codePoint))
            out += name;
        else if (codePoint == '&' || codePoint == '<' || codePoint == '>')
            out += codePoint == '&' ? "&amp;" : codePoint == '<' ? "&lt;" : "&gt;";
        else
            utf8::append(codePoint, std::back_inserter(out));
    }
    return out;
}

/// A rule as the columns of the tables.
struct Row
{
    std::string Kind;
    std::string Action;
    std::string Protocol;
    std::vector<std::string> Addresses;
    std::vector<std::string> Ports;
    std::string Application;
    std::string Description;
    bool IsWhole = true; // they say everything
};

bool IsAny(const std::string& item)
{
    return item == "any" || item == "none";
}

Row Describe(const PFW_RULE& rule)
{
    const uint8_t* const record = reinterpret_cast<const uint8_t*>(&rule);
    Row row;
    row.Kind = KeywordText(kKinds, rule.dwKind);
    row.Description = WideFieldText(&rule.wszDescription, KXRULE_DESCRIPTION_UNITS);
    row.IsWhole = rule.dwKind == KXRULE_KIND_ACCESS;
    for (const RuleField& field : KindFields(rule.dwKind))
    {
        const std::string_view name = field.Name;
        const uint8_t* const at = record + field.Places[0];
        for (size_t i = 0; i < field.Count && field.Type == FieldType::Address; ++i)
            row.Addresses.push_back(AddressText(Load<RULE_ADDR>(record + field.Places[i])));
        for (size_t i = 0; i < field.Count && field.Type == FieldType::Port; ++i)
            row.Ports.push_back(PortText(Load<RULE_PORT>(record + field.Places[i])));
        if (name == "action" || name == "natType")
            row.Action = KeywordText(field.Names, Load<uint32_t>(at));
        else if (name == "protocol" || name == "appProtocol")
            row.Protocol = KeywordText(field.Names, Load<uint32_t>(at));
        else if (field.Type == FieldType::Application)
            row.Application = WideFieldText(at, field.Room);
        else if (field.Type == FieldType::Extension)
            row.IsWhole = row.IsWhole && Load<uint32_t>(at) == 0;
    }
    return row;
}

const char* ActionClass(std::string_view action) noexcept
{
    if (action == "accept")
        return " class=accept";
    if (action == "drop" || action == "reject" || action == "reset")
        return " class=deny";
    return action == "ask" ? " class=ask" : "";
}

std::string RuleId(const RuleSetRecord& ruleSet, const PFW_RULE& rule, char between)
{
    return std::to_string(ruleSet.Index) + between + std::to_string(uint16_t{rule.wRuleIndex});
}

std::string Link(const RuleRef& rule)
{
    return "<a href=#" + RuleId(*rule.RuleSet, *rule.Rule, '-') + ">" + RuleId(*rule.RuleSet, *rule.Rule, '/') + "</a>";
}

std::string Links(const std::vector<RuleRef>& rules)
{
    std::string links;
    for (size_t i = 0; i < std::min(rules.size(), kFewLinks); ++i)
        links += (i == 0 ? " " : ", ") + Link(rules[i]) + " " + Escaped(Describe(*rules[i].Rule).Action);
    return links + (rules.size() > kFewLinks ? " and " + Count(rules.size() - kFewLinks, "more rule") : "");
}

std::string LowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return text;
}

std::string FileName(const std::string& path)
{
    return path.substr(path.find_last_of("\\/") + 1);
}

class Page
{
public:
    explicit Page(const ReportInput& input)
        : m_Input(input), m_Store(input.Store), m_Warnings(FindWarnings(input.Store))
    {
        for (const Warning& warning : m_Warnings)
        {
            if (warning.Kind == WarningKind::Covered || warning.Kind == WarningKind::Redundant)
                m_Marks[{warning.RuleSetIndex, warning.RuleIndex}] = &warning;
        }
        for (const RuleSetRecord& ruleSet : m_Store.RuleSets)
        {
            m_Rules += ruleSet.Rules.size();
            for (const PFW_RULE& rule : ruleSet.Rules)
            {
                const std::string path = LowerCase(Describe(rule).Application);
                m_Paths[FileName(path)].insert(path);
            }
        }
        for (const MacroRecord& macro : m_Store.Macros.value_or(std::vector<MacroRecord>()))
            m_MacroIds.try_emplace(NameOf(macro), m_MacroIds.size() + 1);
    }

    std::string Write()
    {
        Head();
        Warnings();
        Matrix();
        RuleSets();
        Macros();
        m_Out += "</main>\n<script>" + std::string(kReportScript) + "</script>\n</body>\n</html>\n";
        return std::move(m_Out);
    }

private:
    void Tile(size_t number, const std::string& what)
    {
        m_Out += "<li><b>" + std::to_string(number) + "</b>" + what + "</li>\n";
    }

    /// Rows between the tags of the element that they belong to, or in large pages as text after it.
    void Rows(const std::string& begin, const std::string& rows, const std::string& end)
    {
        m_Out += m_Rules <= kMostLive ? begin + rows + end
                                      : begin + end + "<script type=\"text/plain\">" + rows + "</script>\n";
    }

    /// What rows of a large page have in common: its number there, between brackets that the text of a row never has.
    std::string Part(std::string html)
    {
        if (m_Rules <= kMostLive)
            return html;
        const auto [part, isNew] = m_PartNumbers.try_emplace(std::move(html), m_Parts.size());
        if (isNew)
            m_Parts.push_back(&part->first);
        return "<" + std::to_string(part->second) + ">";
    }

    void Head()
    {
        const std::string title =
            "Firewall rules" + (m_Input.Machine.empty() ? "" : " of <bdi>" + Escaped(m_Input.Machine) + "</bdi>");
        size_t active = 0;
        for (const RuleSetRecord& ruleSet : m_Store.RuleSets)
            active += IsActive(m_Store, ruleSet.Index) ? 1 : 0;
        // Only the page's own script runs, whatever the texts of the store contain.
        m_Out +=
            "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
            "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
            "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'unsafe-inline'; "
            "script-src 'unsafe-inline'\">\n<title>Firewall rules</title>\n<style>" +
            std::string(kReportStyle) +
            "</style>\n</head>\n<body>\n<a class=\"skip\" href=\"#rules\">Skip to the rules</a>\n<header>\n"
            "<h1>" +
            title + "</h1>\n<p class=\"dim\"><bdi>" + Escaped(m_Input.Source) + "</bdi>, " + Escaped(m_Input.Time) +
            "</p>\n<ul class=\"tiles\">\n";
        Tile(m_Store.RuleSets.size(), "rule sets, " + std::to_string(active) + " active");
        Tile(m_Rules, "rules");
        Tile(m_Store.Macros ? m_Store.Macros->size() : 0, "macros");
        // Programs without a hash are what every import leaves; they are told, but do not lead.
        Tile(static_cast<size_t>(std::count_if(m_Warnings.begin(), m_Warnings.end(),
                                               [](const Warning& warning)
                                               { return warning.Kind != WarningKind::NoHash; })),
             "warnings");
        m_Out += "</ul>\n<nav aria-label=\"Sections\"><ul><li><a href=\"#warnings\">Warnings</a></li><li><a "
                 "href=\"#matrix\">Who may talk to what</a></li><li><a href=\"#rules\">Rules</a></li><li><a "
                 "href=\"#macros\">Macros</a></li></ul></nav>\n";
        if (m_Rules > kMostLive)
            m_Out += "<noscript><p>Of more than " + std::to_string(kMostLive) +
                     " rules, a script shows the rows. This browser does not run it.</p></noscript>\n";
        m_Out += "</header>\n<main>\n";
    }

    void Warnings()
    {
        static constexpr std::pair<WarningKind, const char*> kGroups[] = {
            {WarningKind::NothingActive, "Nothing is active"},
            {WarningKind::NotThere, "Active rule sets that do not exist"},
            {WarningKind::Rescue, "Rescue rules"},
            {WarningKind::AnyToAny, "Rules that accept everything"},
            {WarningKind::Covered, "Rules that never take effect, although they say otherwise"},
            {WarningKind::Redundant, "Redundant rules: the same is decided before"},
            {WarningKind::Unchecked, "Rules that could not be checked"},
            {WarningKind::Mistake, "What is hardly meant"},
            {WarningKind::NoHash, "Programs without a hash"}};
        m_Out += "<section aria-labelledby=\"warnings\">\n<h2 id=\"warnings\">Warnings</h2>\n";
        m_Out += m_Warnings.empty() ? "<p>Nothing to report.</p>\n" : "";
        for (const auto& [kind, title] : kGroups)
            WarningGroup(kind, title);
        m_Out += "<p class=\"dim\">Whether a rule takes effect is checked of access rules that are on. One that is not "
                 "certain to match, because of an extension or a name that no macro explains, covers no other. Rule "
                 "sets that are not active are checked each for itself.</p>\n</section>\n";
    }

    void WarningGroup(WarningKind kind, const char* title)
    {
        std::string entries;
        size_t count = 0;
        for (const Warning& warning : m_Warnings)
        {
            if (warning.Kind != kind)
                continue;
            ++count;
            const std::string set = std::to_string(warning.RuleSetIndex);
            const std::string rule = std::to_string(warning.RuleIndex);
            entries += "<li>";
            if (warning.HasRule)
                entries.append("<a href=#" + set + "-").append(rule + ">").append(set).append("/" + rule + "</a> ");
            else if (warning.RuleSetIndex != 0)
                entries += "Rule set " + set + " ";
            entries += Escaped(warning.Text) + Links(warning.By) + "\n";
        }
        if (count > 0)
            Rows("<details" + std::string(count <= kFewWarnings && kind != WarningKind::NoHash ? " open" : "") +
                     "><summary><h3>" + title + "</h3><span class=\"badge\">" + std::to_string(count) +
                     "</span></summary>\n<ul>\n",
                 entries, "</ul>");
        m_Out += count > 0 ? "</details>\n" : "";
    }

    /// What becomes of traffic to each service, by the rules that decide about it.
    void Matrix()
    {
        const Decider decider(m_Store);
        m_Out +=
            "<section aria-labelledby=\"matrix\">\n<h2 id=\"matrix\">Who may talk to what</h2>\n<p class=\"dim\">"
            "What becomes of traffic to each service, by program and peer. Rule sets are asked in this order:</p>\n";
        Order();
        m_Out += "<p class=\"dim\">In each the rules are asked by ascending index, and the first that matches decides. "
                 "“Less” is what rules before it decide otherwise. Only access rules that are on decide.</p>\n";
        if (decider.Count() == 0)
        {
            m_Out += "<p>No rule is active.</p>\n</section>\n";
            return;
        }
        size_t left = 0;
        const std::vector<Service> services = FindServices(decider, kMostRows, left);
        // Services of which the same is to be said share their rows, at the place of the first.
        std::vector<std::pair<std::string, std::string>> groups; // name, rows
        std::map<std::string, size_t> known;
        for (const Service& service : services)
        {
            std::string rows = ServiceRows(service);
            const auto [at, isNew] = known.try_emplace(service.Protocol + rows, groups.size());
            if (isNew)
                groups.emplace_back(service.Protocol + (service.Ports.empty() ? "" : " ") + service.Ports,
                                    std::move(rows));
            else
                groups[at->second].first += ", " + service.Ports;
        }
        std::string body;
        for (auto& [name, rows] : groups)
        {
            const auto count = std::erase(rows, '\n');
            body += "<tbody><tr><th scope=rowgroup rowspan=" + std::to_string(count) + ">";
            body.append(name).append(rows) += '\n';
        }
        Rows("<table class=\"cards matrix\">\n<thead><tr><th scope=\"col\">Service</th><th "
             "scope=\"col\">Program</th><th "
             "scope=\"col\">Allowed</th><th scope=\"col\">Refused</th><th scope=\"col\">Asked</th><th "
             "scope=\"col\">No rule</th></tr></thead>\n",
             body, "</table>\n");
        if (left > 0)
            m_Out += "<p>" + Count(left, "service") + " more, after " + services.back().Protocol + " " +
                     services.back().Ports + ", are not shown; kxrule explain tells about each.</p>\n";
        m_Out += "</section>\n";
    }

    /// The rows of a service without their first cell, a line each. Programs that fare like all others have none.
    std::string ServiceRows(const Service& service)
    {
        struct Fare
        {
            std::string Said, Programs, Cells;
        };
        std::vector<Fare> fares;
        std::string others;
        std::string othersCells;
        for (const ServiceRow& row : service.Rows)
        {
            std::string said;
            std::string cells;
            const DecidingRule* own = nullptr;
            for (size_t verdict = 0; verdict < std::size(row.Shares); ++verdict)
                ShareCell(row, verdict, said, cells, own);
            if (row.Program == nullptr)
            {
                others = said;
                othersCells = cells;
            }
            else if (said != others)
            {
                auto fare =
                    std::find_if(fares.begin(), fares.end(), [&said](const Fare& one) { return one.Said == said; });
                if (fare == fares.end())
                    fare = fares.insert(fare, {said, "", cells});
                fare->Programs += (fare->Programs.empty() ? "" : ", ") + ProgramName(*row.Program) +
                                  (own == nullptr ? "" : " " + Link(own->Which));
            }
        }
        std::string text;
        for (const Fare& fare : fares)
            text += (text.empty() ? "<td>" : "<tr><td>") + fare.Programs + fare.Cells + "</td>\n";
        return text + (text.empty() ? "<td>any program" : "<tr><td>other programs") + othersCells + "</td>\n";
    }

    /// Appends a cell to cells, and what it says without links to said. The first rule for the program itself is own.
    void ShareCell(const ServiceRow& row, size_t verdict, std::string& said, std::string& cells,
                   const DecidingRule*& own)
    {
        static constexpr const char* kClasses[] = {" class=accept", " class=deny", " class=ask", ""};
        bool isFirst = true;
        for (const auto& shares : row.Shares)
            isFirst = isFirst && (&shares == &row.Shares[verdict] || shares.empty());
        isFirst = isFirst && row.Shares[verdict].size() == 1 && !row.IsUndecided;
        std::string items;
        for (const Share& share : row.Shares[verdict])
        {
            const bool isRest = share.Rule.IsRest;
            std::string text = Peers(share.Rule, isRest && !isFirst ? "everything else" : "everything");
            if (text != "everything else" && text != "everything" && !share.Less.empty())
            {
                constexpr size_t kFewLess = 4;
                std::string less;
                for (size_t i = 0; i < std::min(share.Less.size(), kFewLess); ++i)
                    less += (i == 0 ? " less " : ", ") + Peers(share.Less[i], "everything");
                text += less + (share.Less.size() > kFewLess
                                    ? " and " + std::to_string(share.Less.size() - kFewLess) + " more"
                                    : "");
            }
            said += text + "\n";
            items += "<li>" + text + " " + Link(share.Rule.Which);
            if (own == nullptr && !Describe(*share.Rule.Which.Rule).Application.empty())
                own = &share.Rule;
        }
        if (row.More[verdict] > 0)
            items += "<li>and " + std::to_string(row.More[verdict]) + " more";
        const bool isLast = verdict + 1 == std::size(row.Shares);
        if (isLast && row.IsUndecided)
            items += !row.IsComplete                                    ? "<li>too many parts to tell"
                     : said.find_first_not_of('|') == std::string::npos ? "<li>everything"
                                                                        : "<li>everything else";
        said += "|";
        cells += "<td" + std::string(items.empty() ? "" : kClasses[verdict]) + ">" +
                 (items.empty() ? "" : "<ul>" + items + "</ul>");
    }

    /// Where the traffic comes from and goes to that a rule decides about.
    std::string Peers(const DecidingRule& rule, const char* everything) const
    {
        const Row row = Describe(*rule.Which.Rule);
        std::string text = rule.IsCertain ? "" : "perhaps ";
        if (IsAny(row.Addresses[0]) && IsAny(row.Addresses[1]))
            text += everything;
        if (!IsAny(row.Addresses[0]))
            text += "from " + Item(row.Addresses[0]) + (IsAny(row.Addresses[1]) ? "" : " ");
        if (!IsAny(row.Addresses[1]))
            text += "to " + Item(row.Addresses[1]);
        return text + (IsAny(row.Ports[0]) ? "" : ", from port " + Item(row.Ports[0]));
    }

    std::string ProgramName(const PFW_RULE& rule) const
    {
        const std::string path = Describe(rule).Application;
        const std::string name = FileName(path);
        return "<bdi>" + Escaped(m_Paths.at(LowerCase(name)).size() > 1 ? path : name) + "</bdi>";
    }

    static std::string NameOf(const MacroRecord& macro)
    {
        return NarrowFieldText(macro.Name.c_str(), macro.Name.size() + 1);
    }

    /// An address or a port; one that names a macro unfolds it.
    std::string Item(const std::string& text) const
    {
        const auto macro = text.starts_with('@') ? m_MacroIds.find(text.substr(1)) : m_MacroIds.end();
        return macro == m_MacroIds.end()
                   ? Escaped(text)
                   : "<button popovertarget=m" + std::to_string(macro->second) + ">" + Escaped(text) + "</button>";
    }

    /// The rule sets of the active list, linked.
    void Order()
    {
        std::string order;
        for (const uint16_t index : m_Store.Active.value_or(std::vector<uint16_t>()))
        {
            const auto ruleSet = std::find_if(m_Store.RuleSets.begin(), m_Store.RuleSets.end(),
                                              [index](const RuleSetRecord& one) { return one.Index == index; });
            const std::string number = std::to_string(index);
            order += "<li>";
            if (ruleSet == m_Store.RuleSets.end())
                order += number + " (does not exist)";
            else
                order.append("<a href=#set-" + number + ">")
                    .append(number + " " + Escaped(ToUtf8(ruleSet->Name)) + "</a>");
        }
        m_Out += order.empty() ? "<p>None is active.</p>\n" : "<ol class=\"order\">" + order + "</ol>\n";
    }

    void RuleSets()
    {
        m_Out +=
            "<section aria-labelledby=\"rules\">\n<h2 id=\"rules\">Rules</h2>\n<div class=\"search\" role=\"search\" "
            "hidden><label for=\"search\">Search rules </label><input id=\"search\" type=\"search\" "
            "autocomplete=\"off\" spellcheck=\"false\"> <span id=\"count\" role=\"status\"></span></div>\n";
        for (const RuleSetRecord& ruleSet : m_Store.RuleSets)
            RuleSet(ruleSet);
        m_Out += "</section>\n<script type=\"text/plain\" id=\"parts\">";
        for (const std::string* const part : m_Parts)
            m_Out += *part + "\n";
        m_Out += "</script>\n";
    }

    void RuleSet(const RuleSetRecord& ruleSet)
    {
        const bool active = IsActive(m_Store, ruleSet.Index);
        const std::string index = std::to_string(ruleSet.Index);
        std::string head = "<details class=\"set\" id=\"set-" + index + "\"" + (active ? " open" : "") +
                           ">\n<summary><h3>" + index + " " + Escaped(ToUtf8(ruleSet.Name)) +
                           "</h3><span class=\"badge" + (active ? " on\">active" : "\">not active") +
                           "</span><span class=\"badge\">" + Count(ruleSet.Rules.size(), "rule") +
                           "</span></summary>\n<table class=\"cards\">\n<thead><tr>";
        for (const char* const name :
             {"Rule", "Action", "Kind", "Protocol", "From", "To", "Ports", "Program", "Description"})
            head += "<th scope=\"col\">" + std::string(name) + "</th>";
        std::string rows;
        for (const PFW_RULE& rule : ruleSet.Rules)
            rows += RuleRow(ruleSet, rule);
        Rows(head + "</tr></thead>\n<tbody>\n", rows, "</tbody>\n</table>\n");
        m_Out += "</details>\n";
    }

    /// A line; the script cuts there.
    std::string RuleRow(const RuleSetRecord& ruleSet, const PFW_RULE& rule)
    {
        const Row row = Describe(rule);
        const auto marked = m_Marks.find({ruleSet.Index, uint16_t{rule.wRuleIndex}});
        const auto items = [this](const std::vector<std::string>& texts, size_t first, const char* between)
        {
            std::string joined;
            for (size_t i = first; i < texts.size(); ++i)
                joined += (i == first ? "" : between) + Item(texts[i]);
            return joined;
        };
        const bool hasSourcePort = row.Ports.size() != 2 || !IsAny(row.Ports[0]);
        const bool hasPorts = !std::all_of(row.Ports.begin(), row.Ports.end(), IsAny);
        std::string text = "<tr id=" + RuleId(ruleSet, rule, '-') +
                           (marked != m_Marks.end() ? " class=idle"
                            : rule.dwActive == 0    ? " class=off"
                                                    : "") +
                           "><td>" + std::to_string(uint16_t{rule.wRuleIndex}) + (rule.dwActive == 0 ? " (off)" : "");
        text += Part("<td" + std::string(ActionClass(row.Action)) + ">" + Escaped(row.Action) + "<td>" +
                     Escaped(row.Kind) + "<td>" + Escaped(row.Protocol)) +
                "<td>" + (row.Addresses.empty() ? "" : Item(row.Addresses[0])) + "<td>" +
                items(row.Addresses, 1, " becomes ") + "<td>" +
                (hasPorts ? items(row.Ports, hasSourcePort ? 0 : 1, " → ") : "");
        text += Part("<td>" + Escaped(row.Application)); // a statement of its own: parts are numbered in order
        text += "<td>" + Escaped(row.Description);
        if (marked != m_Marks.end())
            text += " <b class=badge>" +
                    std::string(marked->second->Kind == WarningKind::Covered ? "never takes effect" : "redundant") +
                    "</b> by " + Link(marked->second->By.front());
        // The columns of an access rule say what its line would.
        if (!row.IsWhole)
            text += "<div class=line>" + Escaped(RuleToText(rule, true)) + "</div>";
        return text + "\n";
    }

    void Macros()
    {
        m_Out += "<section aria-labelledby=\"macros\">\n<h2 id=\"macros\">Macros</h2>\n";
        if (m_MacroIds.empty())
        {
            m_Out += "<p>There are none.</p>\n</section>\n";
            return;
        }
        m_Out +=
            "<table class=\"cards\">\n<thead><tr><th scope=\"col\">Name</th><th scope=\"col\">Items</th></tr></thead>\n"
            "<tbody>\n";
        std::map<size_t, std::string> unfolded;
        for (const MacroRecord& macro : *m_Store.Macros)
        {
            std::string items;
            for (const MACRO_ITEM& item : macro.Items)
            {
                const uint32_t type = item.dwItemType;
                items += (items.empty() ? "" : ", ") + (type == KXRULE_ITEM_ADDR   ? Item(AddressText(item.Addr))
                                                        : type == KXRULE_ITEM_PORT ? Item(PortText(item.Port))
                                                        : type == KXRULE_ITEM_TEXT
                                                            ? Escaped(NarrowFieldText(&item.szText, sizeof item.szText))
                                                            : "type " + std::to_string(type));
            }
            m_Out += "<tr><th scope=\"row\">" + Escaped(NameOf(macro)) + "</th><td>" + items + "<div class=\"line\">" +
                     Escaped(m_Input.MacroLine(macro)) + "</div></td></tr>\n";
            std::string& all = unfolded[m_MacroIds.at(NameOf(macro))];
            all += (all.empty() ? "<b>" + Escaped(NameOf(macro)) + "</b><br>" : ", ") + items;
        }
        m_Out += "</tbody>\n</table>\n</section>\n";
        for (const auto& [id, items] : unfolded)
            m_Out += "<div popover id=m" + std::to_string(id) + ">" + items + "</div>\n";
    }

    const ReportInput& m_Input;
    const Policy& m_Store;
    const std::vector<Warning> m_Warnings;
    std::map<std::pair<uint16_t, uint16_t>, const Warning*> m_Marks; // of the rows of rules
    std::map<std::string, std::set<std::string>> m_Paths;            // of programs, by the names of their files
    std::map<std::string, size_t> m_MacroIds;
    std::map<std::string, size_t> m_PartNumbers;
    std::vector<const std::string*> m_Parts;
    size_t m_Rules = 0;
    std::string m_Out;
};

} // namespace

std::string ReportPage(const ReportInput& input)
{
    return Page(input).Write();
}

} // namespace Tool
