// The report page, and what it warns of.
#include "tools/kxrule/report/Report.h"

#include <cstdlib>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "policy/RuleJson.h"
#include "rules/Macro.h"
#include "tests/support/RecordBuilder.h"

namespace
{

Tool::Policy Workstation()
{
    std::ifstream file("examples/workstation.json", std::ios::binary);
    const std::string json{std::istreambuf_iterator<char>(file), {}};
    Tool::Policy policy;
    std::vector<Tool::Diagnostic> errors;
    EXPECT_TRUE(Tool::ReadPolicy(json, policy, errors));
    return policy;
}

std::string PageOf(const Tool::Policy& policy)
{
    const auto macroLine = [](const Tool::MacroRecord& macro)
    {
        std::string line;
        static_cast<void>(CMacro(macro.Name, macro.Items).GetMacroString(line));
        return line;
    };
    return Tool::ReportPage({policy, "C:\\Rules & more", "2024-05-17 12:00", macroLine});
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
    const std::string hostile = "</td></style><script>alert(1)</script>&lt;\"'\x01";
    PFW_RULE rule = Build::Access(1, KXW("C:\\<b>&\"'.exe"));
    Build::SetText(&rule.wszDescription, KXRULE_DESCRIPTION_UNITS,
                   KxCommon::WideString(hostile.begin(), hostile.end()));
    policy.RuleSets.push_back({900, KxCommon::WideString(hostile.begin(), hostile.end()), {rule}});
    policy.Active->push_back(900);
    policy.Macros->push_back({"<i>", {Build::Item(hostile)}});

    const std::string page = PageOf(policy);
    EXPECT_EQ(Occurrences(page, "<tr class=\"rule"), 85u);
    EXPECT_EQ(Occurrences(page, "<details class=\"set\""), 8u);
    EXPECT_NE(page.find("Unterwegs – hôtels, cafés, 駅"), std::string::npos);
    EXPECT_NE(page.find("ACCESS,TCPUDP,,!10.20.0.10:10.20.0.11,,53|853,REJECT"), std::string::npos);
    EXPECT_NE(page.find("C:\\Rules &amp; more"), std::string::npos);
    // Nothing but the page's own script and style, and nothing from elsewhere.
    EXPECT_EQ(Occurrences(page, "<script"), 1u);
    EXPECT_EQ(Occurrences(page, "</style"), 1u);
    for (const char* const foreign :
         {"http:", "https:", "src=", "url(", "@import", "\\<b>", "<i>", "alert(1)</", "\x01"})
        EXPECT_EQ(page.find(foreign), std::string::npos) << foreign;

    if (const char* const file = std::getenv("KX_REPORT_PAGE"))
        std::ofstream(file, std::ios::binary) << page;
    if (const char* const file = std::getenv("KX_EXPORTED_POLICY"))
        std::ofstream(file, std::ios::binary) << Tool::PolicyToJson(policy);
}

TEST(Report, TheExampleHasNoRuleInVain)
{
    for (const Tool::Warning& warning : Tool::FindWarnings(Workstation()))
        EXPECT_EQ(warning.Kind, Tool::WarningKind::NoHash) << warning.RuleSetIndex << " " << warning.RuleIndex;
}

TEST(Report, Warns)
{
    // A rule set of one rule that accepts, and what else there is to say of the rule.
    const auto set = [](int index, int rule, const std::string& more)
    {
        return "{\"index\": " + std::to_string(index) +
               ", \"name\": \"\", \"rules\": [{\"index\": " + std::to_string(rule) + R"(, "kind": "access")" +
               (more.find("action") == std::string::npos ? R"(, "action": "accept")" : "") + more + "}]}";
    };
    const std::string web = R"(, "ports": ["any", 80])";
    const std::string hash = R"(, "hash": "0102030405060708090a0b0c0d0e0f1011121314")";
    const std::string rescue =
        R"(, "protocol": 4294967295, "description": "This is a rescue rule. This rule file had been broken/deleted.")";
    const struct
    {
        std::string Active, RuleSets;
        const char* Warnings; // rule set/rule and what is said of it
    } cases[] = {
        {"", "", ""},
        {"", set(1, 3, web), "0 No rule set is active."},
        {"7", "", "7 is active but does not exist."},
        {"1", set(1, 3, ""), "1/3 accepts everything from anybody to anybody."},
        {"1", set(1, 3, web + R"(, "application": "C:/a")"),
         "1/3 is bound to a program without a hash: it also matches whatever replaces it."},
        {"1", set(1, 3, web + R"(, "application": "C:/a")" + hash), ""},
        {"2, 1", set(1, 3, web) + "," + set(2, 4, R"(, "ports": ["any", "1-99"])"), // in the order of the active list
         "1/3 is redundant: the same is decided before it by 2/4"},
        {"1, 2", set(1, 3, web) + "," + set(2, 4, web + R"(, "active": false)"), ""},
        {"1, 2, 3",
         set(1, 3, R"(, "ports": ["any", "1-80"], "action": "drop")") + "," + set(2, 4, R"(, "ports": ["any", "@m"])") +
             "," + set(3, 5, R"(, "ports": ["any", "80,81"])"), // by a union, and a macro
         "3/5 never takes effect, although it says otherwise (accept): everything is decided before it by 1/3 2/4"},
        {"1", set(1, 3, web) + "," + set(2, 4, web), ""}, // sets that are not active take nothing
        {"1", set(1, 30000, rescue),
         "1/30000 is a rescue rule: the rules of this set were damaged and must be replaced."},
    };
    for (const auto& c : cases)
    {
        Tool::Policy policy;
        std::vector<Tool::Diagnostic> errors;
        ASSERT_TRUE(
            Tool::ReadPolicy(R"({"version": 1, "macros": [{"name": "m", "items": [{"port": "81"}]}], "active": [)" +
                                 c.Active + "], \"ruleSets\": [" + c.RuleSets + "]}",
                             policy, errors))
            << c.RuleSets;
        std::string warnings;
        for (const Tool::Warning& warning : Tool::FindWarnings(policy))
            warnings += (warnings.empty() ? "" : "; ") + std::to_string(warning.RuleSetIndex) +
                        (warning.HasRule ? "/" + std::to_string(warning.RuleIndex) : "") + " " + warning.Text;
        for (const Tool::Warning& warning : Tool::FindWarnings(policy))
        {
            for (const Tool::RuleRef& by : warning.By)
                warnings += " " + std::to_string(by.RuleSet->Index) + "/" + std::to_string(by.Rule->wRuleIndex);
        }
        EXPECT_EQ(warnings, c.Warnings) << c.Active << c.RuleSets;
    }
}
