// The report page, and what it warns of.
#include "tools/kxrule/report/Report.h"

#include <cstdlib>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "policy/RuleJson.h"
#include "rules/Macro.h"
#include "tests/support/ParsedPolicy.h"
#include "tests/support/RecordBuilder.h"

namespace
{

Tool::Policy Workstation()
{
    std::ifstream file("examples/workstation.json", std::ios::binary);
    const std::string json{std::istreambuf_iterator<char>(file), {}};
    return ParsedPolicy(json);
}

std::string PageOf(const Tool::Policy& policy)
{
    const auto macroLine = [](const Tool::MacroRecord& macro)
    {
        std::string line;
        static_cast<void>(CMacro(macro.Name, macro.Items).GetMacroString(line));
        return line;
    };
    return Tool::ReportPage({policy, "PC-7", "C:\\Rules & more", "2024-05-17 12:00", macroLine});
}

size_t Occurrences(const std::string& text, const std::string& what)
{
    size_t count = 0;
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at)
        ++count;
    return count;
}

} // namespace

// Leaves the page for a browser and the policy for a schema validator where they are asked for.
TEST(Report, ShowsAWholePolicy)
{
    Tool::Policy policy = Workstation();
    for (const Tool::Warning& warning : Tool::FindWarnings(policy))
        EXPECT_EQ(warning.Kind, Tool::WarningKind::NoHash) << warning.RuleSetIndex << " " << warning.RuleIndex;
    const std::string hostile = "</td></style><script>alert(1)</script>&lt;\"'\x01";
    PFW_RULE rule = Build::Access(1, KXW("C:\\<b>&\"'.exe"));
    Build::SetText(&rule.wszDescription, KXRULE_DESCRIPTION_UNITS,
                   KxCommon::WideString(hostile.begin(), hostile.end()));
    policy.RuleSets.push_back({900, KxCommon::WideString(hostile.begin(), hostile.end()), {rule}});
    policy.Active->push_back(900);
    policy.Macros->push_back({"<i>", {Build::Item(hostile)}});

    const std::string page = PageOf(policy);
    EXPECT_EQ(Occurrences(page, "\n<tr id="), 85u);
    EXPECT_EQ(Occurrences(page, "<details class=\"set\""), 8u);
    EXPECT_NE(page.find("Unterwegs – hôtels, cafés, 駅"), std::string::npos);
    EXPECT_NE(page.find("C:\\Rules &amp; more"), std::string::npos);
    // Nothing but the page's own script and style, and nothing from elsewhere.
    EXPECT_EQ(Occurrences(page, "<script"), 2u); // one is text
    EXPECT_EQ(Occurrences(page, "</style"), 1u);
    for (const char* const foreign :
         {"http:", "https:", "src=", "url(", "@import", "\\<b>", "<i>", "alert(1)</", "\x01"})
        EXPECT_EQ(page.find(foreign), std::string::npos) << foreign;

    if (const char* const file = std::getenv("KX_REPORT_PAGE"))
        std::ofstream(file, std::ios::binary) << page;
    if (const char* const file = std::getenv("KX_EXPORTED_POLICY"))
        std::ofstream(file, std::ios::binary) << Tool::PolicyToJson(policy);
}

// What each place of the page says, and in which class.
TEST(Report, SaysInEachPlace)
{
    Tool::Policy policy = ParsedPolicy(
        R"({"version": 1, "macros": [{"name": "m", "items": [{"port": "81"}, {"address": "10.9.0.0/16"}, {"text": "note"}]}],
            "active": [2, 1], "ruleSets": [{"index": 1, "name": "one\u202e", "rules": [
            {"index": 1, "kind": "access", "protocol": "tcp", "addresses": ["any", "10.9.1.0/24"],
             "ports": ["any", "80-90"], "action": "accept", "description": "<&>"},
            {"index": 2, "kind": "access", "protocol": "tcp", "addresses": ["fe80::/10", "@m"], "ports": ["1024", "@m"],
             "action": "drop", "active": false},
            {"index": 3, "kind": "access", "protocol": "tcp", "ports": ["any", "85"], "action": "ask",
             "application": "C:\\a\\x.exe"},
            {"index": 4, "kind": "access", "protocol": "tcp", "ports": ["any", "85"], "action": "ask",
             "application": "C:\\b\\x.exe"},
            {"index": 5, "kind": "access", "protocol": "tcp", "action": "reset"},
            {"index": 6, "kind": "access", "protocol": "tcp", "ports": ["any", 80], "action": "reject"},
            {"index": 7, "kind": "stream", "appProtocol": "http", "action": "drop"}]},
            {"index": 2, "name": "two", "rules": [
            {"index": 1, "kind": "access", "protocol": "tcp", "addresses": ["any", "10.9.1.7"], "action": "drop"}]},
            {"index": 3, "name": "", "rules": []}]})");
    const std::string page = PageOf(policy);
    const std::string allowed = "<td class=accept><ul><li>to 10.9.1.0/24 less to 10.9.1.7 <a href=#1-1>1/1</a></ul>";
    const std::string refused = "<td class=deny><ul><li>to 10.9.1.7 <a href=#2-1>2/1</a>";
    const std::string rest = refused + "<li>everything else <a href=#1-5>1/5</a></ul><td><td></td>";
    const std::string macro = "<button popovertarget=m1>@m</button>";
    const std::string texts[] = {
        "of <bdi>PC-7</bdi>", "<bdi>C:\\Rules &amp; more</bdi>, 2024-05-17 12:00", "<b>3</b>rule sets, 2 active",
        "<b>8</b>rules", "<b>1</b>macros", "<b>1</b>warnings", // without those of no hash
        "otherwise</h3><span class=\"badge\">1</span></summary>\n<ul>\n<li><a href=#1-6>1/6</a> reject, decided before "
        "by "
        "<a href=#2-1>2/1</a> drop, <a href=#1-1>1/1</a> accept, <a href=#1-5>1/5</a> reset\n</ul>",
        "<details><summary><h3>Programs without a hash</h3><span class=\"badge\">2</span>",
        // The order, and the services: parted by number, joined where they fare alike.
        "<li><a href=#set-2>2 two</a><li><a href=#set-1>1 one<b class=code>U+202E</b></a></ol>",
        "rowspan=1>TCP 80, 81-84, 86-90<td>any program" + allowed + rest,
        "rowspan=2>TCP 85<td><bdi>C:\\a\\x.exe</bdi> <a href=#1-3>1/3</a>, <bdi>C:\\b\\x.exe</bdi> <a "
        "href=#1-4>1/4</a>" +
            allowed + refused + "</ul><td class=ask><ul><li>everything else <a href=#1-3>1/3</a></ul><td></td>" +
            "<tr><td>other programs" + allowed + rest,
        ">TCP other ports<td>any program<td><td class=deny><ul><li>everything <a href=#1-5>1/5</a></ul><td><td></td>",
        ">UDP<td>any program<td><td><td><td><ul><li>everything</ul></td>",
        // The rules.
        "id=\"set-1\" open>", "<span class=\"badge on\">active</span><span class=\"badge\">7 rules</span>",
        "id=\"set-3\">\n<summary><h3>3 </h3><span class=\"badge\">not active</span><span class=\"badge\">0 "
        "rules</span>",
        "<tr id=1-1><td>1<td "
        "class=accept>accept<td>access<td>tcp<td>any<td>10.9.1.0/24<td>80-90<td><td>&lt;&amp;&gt;\n",
        "<tr id=1-2 class=off><td>2 (off)<td class=deny>drop<td>access<td>tcp<td>fe80::/10<td>" + macro +
            "<td>1024 → " + macro + "<td><td>\n",
        "<td class=ask>ask<td>access<td>tcp<td>any<td>any<td>85<td>C:\\a\\x.exe<td>\n",
        "<tr id=1-6 class=idle><td>6<td class=deny>reject<td>access<td>tcp<td>any<td>any<td>80<td><td> <b "
        "class=badge>never takes effect</b> by <a href=#2-1>2/1</a>\n",
        "<td>stream<td>http<td>any<td>any<td><td><td><div class=line>STREAM,HTTP,,,0,DROP,0:0:,</div>\n",
        "<th scope=\"row\">m</th><td>81, 10.9.0.0/16, note<div class=\"line\">m=81,10.9.0.0/16,note</div>",
        "<div popover id=m1><b>m</b><br>81, 10.9.0.0/16, note</div>"};
    for (const std::string& text : texts)
        EXPECT_TRUE(page.find(text) != std::string::npos) << text;
    // More than 2,000 rules are text, with what they have in common apart; the text has the same rows.
    EXPECT_EQ(page.find("<noscript>"), std::string::npos);
    policy.RuleSets[2].Rules.assign(1993, policy.RuleSets[0].Rules[2]);
    const std::string large = PageOf(policy);
    EXPECT_NE(large.find("<tbody>\n</tbody>\n</table>\n<script type=\"text/plain\"><tr id=1-1><td>1<0><td>any<td>"
                         "10.9.1.0/24<td>80-90<1><td>&lt;&amp;&gt;\n"),
              std::string::npos);
    EXPECT_NE(large.find("id=\"parts\"><td class=accept>accept<td>access<td>tcp\n<td>\n"), std::string::npos);
    EXPECT_NE(large.find("<noscript>"), std::string::npos);
}

TEST(Report, Warns)
{
    using Kind = Tool::WarningKind;
    const std::string one = "active 1\nset 1 a\n3", both = "active 1 2\nset 1 a\n3", second = "\nset 2 a\n4";
    const std::string any = " ACCESS,ANY,,,,,ACCEPT", web = " ACCESS,ANY,,,,80,ACCEPT", program = "  application=C:/a";
    const std::string hash = "  hash=0102030405060708090a0b0c0d0e0f1011121314";
    const std::pair<std::string, const char*> cases[] = {
        // policy, rule set/rule and what is said of it
        {"active\nset 1 a\n3" + web, "0 No rule set is active."},
        {"active 7\n", "7 is active but does not exist."},
        {one + any, "1/3 accepts everything from anybody to anybody."},
        {one + web + program, "0 C:/a has no hash: what replaces it is matched too by 1/3"},
        {"active 2 1\nset 1 a\n3" + web + second + " ACCESS,ANY,,,,1:99,ACCEPT", // in the order of the active list
         "1/3 redundant: accept, decided before by 2/4"},
        {both + web + second + web + "  (off)", ""},
        {"active 1 2 3\nset 1 a\n3 ACCESS,ANY,,,,1:80,DROP" + second + " ACCESS,ANY,,,,m,ACCEPT" +
             "\nset 3 a\n5 ACCESS,ANY,,,,80|81,ACCEPT", // by a union, and a macro
         "3/5 in vain: accept, decided before by 1/3 2/4"},
        {one + web + program + hash + second + any, "2/4 accepts everything from anybody to anybody."},
        {both + web + program + hash + second + web, ""}, // for one program
        {one + web + second + web, ""},                   // sets that are not active take nothing
        {"active 1\nset 1 a\n30000 ACCESS  protocol=4294967295  action=accept  description=\"This is a rescue rule. "
         "This rule file had been broken/deleted.\"",
         "1/30000 is a rescue rule: the rules of this set were damaged and must be replaced."},
    };
    for (const auto& [text, expected] : cases)
    {
        const Tool::Policy policy = ParsedPolicy("rules 1\nmacro m\nport=81\n" + text);
        std::string warnings;
        for (const Tool::Warning& warning : Tool::FindWarnings(policy))
        {
            warnings += (warnings.empty() ? "" : "; ") + std::to_string(warning.RuleSetIndex) +
                        (warning.HasRule ? "/" + std::to_string(warning.RuleIndex) : "") + " " +
                        (warning.Kind == Kind::Covered     ? "in vain: "
                         : warning.Kind == Kind::Redundant ? "redundant: "
                                                           : "") +
                        warning.Text;
            for (const Tool::RuleRef& by : warning.By)
                warnings += " " + std::to_string(by.RuleSet->Index) + "/" + std::to_string(by.Rule->wRuleIndex);
        }
        EXPECT_EQ(warnings, expected) << text;
    }
}
