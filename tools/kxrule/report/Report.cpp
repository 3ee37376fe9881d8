// The store as one HTML page.
#include "tools/kxrule/report/Report.h"

#include <algorithm>
#include <map>

#include "common/srclib/KxComn_Record.h"
#include "policy/ItemText.h"
#include "policy/RecordText.h"
#include "policy/RuleFields.h"
#include "policy/RulesText.h"
#include "policy/Utf8.h"
#include "policy/Words.h"
#include "tools/kxrule/report/ReportStyle.h"

namespace Tool
{
namespace
{

using KxCommon::Record::Load;

constexpr size_t kMostServices = 400; // rows; each of them asks every rule

/// What turns the direction of a line around, of which nothing else in it must be touched, is shown as a mark.
std::string Fenced(std::string_view text)
{
    std::string out(text);
    for (const char* const control : {"\u202A", "\u202B", "\u202C", "\u202D", "\u202E", "\u2066", "\u2067", "\u2068",
                                      "\u2069", "\u200E", "\u200F", "\u061C"})
    {
        const std::string_view found = control;
        for (size_t at = 0; (at = out.find(found, at)) != std::string::npos;)
            out.replace(at, found.size(), "\uFFFD");
    }
    return out;
}

std::string Escaped(std::string_view text)
{
    std::string out;
    for (const char c : Fenced(text))
    {
        switch (c)
        {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&#39;";
            break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) // HTML knows no other control characters
                out += "\xEF\xBF\xBD";
            else
                out += c;
        }
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
};

Row Describe(const PFW_RULE& rule)
{
    const uint8_t* const record = reinterpret_cast<const uint8_t*>(&rule);
    Row row;
    row.Kind = KeywordText(kKinds, rule.dwKind);
    row.Description = WideFieldText(&rule.wszDescription, KXRULE_DESCRIPTION_UNITS);
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
    }
    return row;
}

const char* ActionClass(std::string_view action) noexcept
{
    if (action == "accept")
        return "accept";
    if (action == "drop" || action == "reject" || action == "reset")
        return "deny";
    return action == "ask" ? "ask" : "";
}

std::string RuleId(uint16_t ruleSetIndex, uint16_t ruleIndex)
{
    return "rule-" + std::to_string(ruleSetIndex) + "-" + std::to_string(ruleIndex);
}

std::string RuleLink(uint16_t ruleSetIndex, uint16_t ruleIndex, const std::string& text)
{
    return "<a href=\"#" + RuleId(ruleSetIndex, ruleIndex) + "\">" + text + "</a>";
}

std::string FileName(const std::string& path)
{
    const size_t separator = path.find_last_of("\\/");
    return separator == std::string::npos ? path : path.substr(separator + 1);
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
                m_Marks[{warning.RuleSetIndex, warning.RuleIndex}] =
                    warning.Kind == WarningKind::Covered ? "never takes effect" : "redundant";
        }
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

    void Head()
    {
        size_t rules = 0;
        size_t active = 0;
        for (const RuleSetRecord& ruleSet : m_Store.RuleSets)
        {
            rules += ruleSet.Rules.size();
            active += IsActive(m_Store, ruleSet.Index) ? 1 : 0;
        }
        // Only the page's own script runs, whatever the texts of the store contain.
        m_Out +=
            "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
            "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
            "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'unsafe-inline'; "
            "script-src 'unsafe-inline'\">\n<title>Firewall rules</title>\n<style>" +
            std::string(kReportStyle) +
            "</style>\n</head>\n<body>\n<a class=\"skip\" href=\"#rules\">Skip to the rules</a>\n<header>\n"
            "<h1>Firewall rules</h1>\n<p class=\"dim\">" +
            Escaped(m_Input.Source) + ", " + Escaped(m_Input.Time) + "</p>\n<ul class=\"tiles\">\n";
        Tile(m_Store.RuleSets.size(), "rule sets, " + std::to_string(active) + " active");
        Tile(rules, "rules");
        Tile(m_Store.Macros ? m_Store.Macros->size() : 0, "macros");
        // Programs without a hash are what every import leaves; they are told, but do not lead.
        Tile(static_cast<size_t>(std::count_if(m_Warnings.begin(), m_Warnings.end(),
                                               [](const Warning& warning)
                                               { return warning.Kind != WarningKind::NoHash; })),
             "warnings");
        m_Out += "</ul>\n<nav aria-label=\"Sections\"><ul><li><a href=\"#warnings\">Warnings</a></li><li><a "
                 "href=\"#matrix\">Who may talk to what</a></li><li><a href=\"#rules\">Rules</a></li><li><a "
                 "href=\"#macros\">Macros</a></li></ul></nav>\n</header>\n<main>\n";
    }

    void Warnings()
    {
        static constexpr std::pair<WarningKind, const char*> kGroups[] = {
            {WarningKind::NothingActive, "Nothing is active"},
            {WarningKind::NotThere, "Active rule sets that do not exist"},
            {WarningKind::Rescue, "Rescue rules"},
            {WarningKind::AnyToAny, "Rules that accept everything"},
            {WarningKind::Covered, "Rules that never take effect"},
            {WarningKind::Redundant, "Rules that are redundant"},
            {WarningKind::NoHash, "Programs without a hash"},
            {WarningKind::Mistake, "What is hardly meant"}};
        m_Out += "<section aria-labelledby=\"warnings\">\n<h2 id=\"warnings\">Warnings</h2>\n";
        m_Out += m_Warnings.empty() ? "<p>Nothing to report.</p>\n" : "";
        for (const auto& [kind, title] : kGroups)
            WarningGroup(kind, title);
        m_Out += "</section>\n";
    }

    void WarningGroup(WarningKind kind, const char* title)
    {
        constexpr size_t kFew = 12; // more than these are folded
        std::string entries;
        size_t count = 0;
        for (const Warning& warning : m_Warnings)
        {
            if (warning.Kind != kind)
                continue;
            ++count;
            const std::string set = "Rule set " + std::to_string(warning.RuleSetIndex);
            entries += "<li>";
            if (warning.HasRule)
                entries += RuleLink(warning.RuleSetIndex, warning.RuleIndex,
                                    set + ", rule " + std::to_string(warning.RuleIndex)) +
                           " ";
            else if (warning.RuleSetIndex != 0)
                entries += set + " ";
            entries += Escaped(warning.Text);
            for (const RuleRef& by : warning.By)
                entries +=
                    (&by == &warning.By.front() ? " " : ", ") +
                    RuleLink(by.RuleSet->Index, by.Rule->wRuleIndex,
                             std::to_string(by.RuleSet->Index) + "/" + std::to_string(uint16_t{by.Rule->wRuleIndex}) +
                                 " (" + Escaped(Describe(*by.Rule).Action) + ")");
            entries += "</li>\n";
        }
        if (count > 0)
            m_Out += "<details" + std::string(count <= kFew ? " open" : "") + "><summary><h3>" + title +
                     "</h3><span class=\"badge\">" + std::to_string(count) + "</span></summary>\n<ul>\n" + entries +
                     "</ul>\n</details>\n";
    }

    /// What becomes of traffic to each service, by the rules that decide about it.
    void Matrix()
    {
        const Decider decider(m_Store);
        size_t left = 0;
        const std::vector<Service> services = FindServices(decider, kMostServices, left);
        m_Out +=
            "<section aria-labelledby=\"matrix\">\n<h2 id=\"matrix\">Who may talk to what</h2>\n<p class=\"dim\">"
            "Rule sets are asked in this order: " +
            Order() +
            ". In each the rules are asked by ascending index, and the first that matches decides. A rule is named "
            "where it decides, at least about a part.</p>\n";
        if (decider.Count() == 0)
        {
            m_Out += "<p>No rule is active.</p>\n</section>\n";
            return;
        }
        m_Out += "<table class=\"cards\">\n<thead><tr><th scope=\"col\">To</th><th scope=\"col\">Allowed</th><th "
                 "scope=\"col\">Refused</th><th scope=\"col\">Asked</th><th scope=\"col\">Otherwise</th></tr></thead>\n"
                 "<tbody>\n";
        for (const Service& service : services)
            ServiceRow(service);
        m_Out += "</tbody>\n</table>\n";
        if (left > 0)
            m_Out +=
                "<p>" + Count(left, "service") + " more could not be shown; kxrule explain tells about each.</p>\n";
        m_Out += "</section>\n";
    }

    void ServiceRow(const Service& service)
    {
        std::string cells[4];
        for (const DecidingRule& rule : service.What.Rules)
        {
            const Row row = Describe(*rule.Which.Rule);
            const std::string who = row.Application.empty() ? "anybody" : FileName(row.Application);
            cells[static_cast<size_t>(VerdictOf(*rule.Which.Rule))] +=
                "<li>" +
                RuleLink(rule.Which.RuleSet->Index, rule.Which.Rule->wRuleIndex,
                         Escaped((rule.IsCertain ? "" : "perhaps ") + who + ": " + row.Addresses[0] + " → " +
                                 row.Addresses[1] + (row.Ports[0] == "any" ? "" : ", from port " + row.Ports[0]))) +
                "</li>";
        }
        m_Out += "<tr><th scope=\"row\">" + Escaped(service.Name) + "</th>";
        static constexpr std::pair<const char*, const char*> kColumns[] = {
            {"accept", "Allowed"}, {"deny", "Refused"}, {"ask", "Asked"}};
        for (size_t i = 0; i < 3; ++i)
            Cell(kColumns[i].second,
                 cells[i].empty() ? "" : "<ul class=\"" + std::string(kColumns[i].first) + "\">" + cells[i] + "</ul>");
        Cell("Otherwise", (cells[3].empty() ? "" : "<ul>" + cells[3] + "</ul>") +
                              (!service.What.IsComplete   ? "too many parts to tell"
                               : service.What.IsUndecided ? "no rule"
                                                          : ""));
        m_Out += "</tr>\n";
    }

    /// The rule sets of the active list, linked.
    std::string Order() const
    {
        std::string order;
        for (const uint16_t index : m_Store.Active.value_or(std::vector<uint16_t>()))
            order += (order.empty() ? "" : ", ") + std::to_string(index);
        return order.empty() ? "none is active" : order;
    }

    void RuleSets()
    {
        m_Out +=
            "<section aria-labelledby=\"rules\">\n<h2 id=\"rules\">Rules</h2>\n<div class=\"search\" role=\"search\" "
            "hidden><label for=\"search\">Search rules </label><input id=\"search\" type=\"search\" "
            "autocomplete=\"off\" spellcheck=\"false\"> <span id=\"count\" role=\"status\"></span></div>\n";
        for (const RuleSetRecord& ruleSet : m_Store.RuleSets)
            RuleSet(ruleSet);
        m_Out += "</section>\n";
    }

    void RuleSet(const RuleSetRecord& ruleSet)
    {
        const bool active = IsActive(m_Store, ruleSet.Index);
        m_Out += "<details class=\"set\"" + std::string(active ? " open" : "") + ">\n<summary><h3>" +
                 std::to_string(ruleSet.Index) + " " + Escaped(ToUtf8(ruleSet.Name)) + "</h3><span class=\"badge" +
                 (active ? " on\">active" : "\">not active") + "</span><span class=\"badge\">" +
                 Count(ruleSet.Rules.size(), "rule") + "</span></summary>\n<table class=\"cards sorted\">\n<thead><tr>";
        for (const char* const head :
             {"Rule", "Action", "Kind", "Protocol", "From", "To", "Ports", "Program", "Description"})
            m_Out += "<th scope=\"col\">" + std::string(head) + "</th>";
        m_Out += "</tr></thead>\n<tbody>\n";
        for (const PFW_RULE& rule : ruleSet.Rules)
            Rule(ruleSet, rule);
        m_Out += "</tbody>\n</table>\n</details>\n";
    }

    void Cell(const char* label, const std::string& html, const std::string& attributes = {})
    {
        m_Out += "<td data-label=\"" + std::string(label) + "\"" + attributes + ">" + html + "</td>";
    }

    static std::string Joined(const std::vector<std::string>& texts, size_t first, size_t last, const char* between)
    {
        std::string text;
        for (size_t i = first; i < std::min(last, texts.size()); ++i)
            text += (text.empty() ? "" : between) + texts[i];
        return text;
    }

    void Rule(const RuleSetRecord& ruleSet, const PFW_RULE& rule)
    {
        const Row row = Describe(rule);
        const uint16_t index = rule.wRuleIndex;
        const std::string line = RuleToText(rule, true);
        const auto marked = m_Marks.find({ruleSet.Index, index});
        const bool anyPort = std::all_of(row.Ports.begin(), row.Ports.end(),
                                         [](const std::string& port) { return port == "any" || port == "none"; });
        m_Out += "<tr class=\"rule" + std::string(rule.dwActive == 0 ? " off" : "") + "\" id=\"" +
                 RuleId(ruleSet.Index, index) + "\">";
        Cell("Rule", std::to_string(index) + (rule.dwActive == 0 ? " (off)" : ""),
             " class=\"number\" data-sort=\"" + std::to_string(index) + "\"");
        Cell("Action", Escaped(row.Action), " class=\"" + std::string(ActionClass(row.Action)) + "\"");
        Cell("Kind", Escaped(row.Kind));
        Cell("Protocol", Escaped(row.Protocol));
        Cell("From", Escaped(Joined(row.Addresses, 0, 1, "")));
        Cell("To", Escaped(Joined(row.Addresses, 1, 3, " becomes ")));
        Cell("Ports", anyPort ? "" : Escaped(Joined(row.Ports, 0, 3, " → ")));
        Cell("Program", Escaped(row.Application));
        Cell("Description",
             Escaped(row.Description) +
                 (marked == m_Marks.end() ? "" : " <span class=\"badge\">" + marked->second + "</span>") +
                 "<div class=\"line\">" + Escaped(line) + "</div>");
        m_Out += "</tr>\n";
    }

    void Macros()
    {
        m_Out += "<section aria-labelledby=\"macros\">\n<h2 id=\"macros\">Macros</h2>\n";
        if (!m_Store.Macros || m_Store.Macros->empty())
        {
            m_Out += "<p>There are none.</p>\n</section>\n";
            return;
        }
        m_Out +=
            "<table class=\"cards\">\n<thead><tr><th scope=\"col\">Name</th><th scope=\"col\">Items</th></tr></thead>\n"
            "<tbody>\n";
        for (const MacroRecord& macro : *m_Store.Macros)
        {
            m_Out += "<tr><th scope=\"row\">" + Escaped(NarrowToUtf8(macro.Name)) + "</th><td data-label=\"Items\">";
            std::string items;
            for (const MACRO_ITEM& item : macro.Items)
            {
                const uint32_t type = item.dwItemType;
                items += (items.empty() ? "" : ", ") + Escaped(type == KXRULE_ITEM_ADDR   ? AddressText(item.Addr)
                                                               : type == KXRULE_ITEM_PORT ? PortText(item.Port)
                                                               : type == KXRULE_ITEM_TEXT
                                                                   ? NarrowFieldText(&item.szText, sizeof item.szText)
                                                                   : "type " + std::to_string(type));
            }
            m_Out += items + "<div class=\"line\">" + Escaped(m_Input.MacroLine(macro)) + "</div></td></tr>\n";
        }
        m_Out += "</tbody>\n</table>\n</section>\n";
    }

    const ReportInput& m_Input;
    const Policy& m_Store;
    const std::vector<Warning> m_Warnings;
    std::map<std::pair<uint16_t, uint16_t>, std::string> m_Marks; // of the rows of rules
    std::string m_Out;
};

} // namespace

std::string ReportPage(const ReportInput& input)
{
    return Page(input).Write();
}

} // namespace Tool
