// report: the store as one page for a browser.
#include <algorithm>

#include "policy/Utf8.h"
#include "tools/kxrule/commands/Commands.h"
#include "tools/kxrule/report/Report.h"

namespace Tool
{
namespace
{

std::string Now()
{
    SYSTEMTIME now{};
    ::GetLocalTime(&now);
    char text[32] = {};
    std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u", now.wYear, now.wMonth, now.wDay, now.wHour,
                  now.wMinute);
    return text;
}

/// One that is there.
const PFW_RULE& FindRule(const Policy& policy, uint16_t ruleSetIndex, uint16_t ruleIndex)
{
    const std::vector<PFW_RULE>& rules = FindRuleSet(policy, ruleSetIndex).Rules;
    return *std::lower_bound(rules.begin(), rules.end(), ruleIndex,
                             [](const PFW_RULE& rule, uint16_t index) { return rule.wRuleIndex < index; });
}

} // namespace

int Report(Session& session, const std::string& file)
{
    session.OpenToLook();
    const Policy store = session.Read();
    const ReportInput input{store, ToUtf8(session.Directory()), Now(),
                            [&store](uint16_t ruleSetIndex, uint16_t ruleIndex)
                            { return RuleLine(FindRule(store, ruleSetIndex, ruleIndex)); },
                            MacroLine};
    WriteTextFile(session, file, ReportPage(input));
    return ExitDone;
}

} // namespace Tool
