// lint: what in a file or in the store is probably not intended.
#include <map>

#include <nlohmann/json.hpp>

#include "policy/Lint.h"
#include "policy/Words.h"
#include "tools/kxrule/commands/Commands.h"
#include "tools/kxrule/console/Columns.h"

namespace Tool
{

int LintCommand(Session& session, const std::string& file)
{
    std::vector<LintFinding> findings;
    if (!file.empty())
    {
        Policy policy;
        if (!ReadPolicyFile(session, file, policy))
            return ExitFailed;
        findings = Lint(policy);
    }
    else
    {
        std::map<uint16_t, std::vector<LintFinding>> ofSets;
        const Policy store = session.Look(
            [&ofSets](const Policy& soFar, const RuleSetRecord& ruleSet)
            {
                std::vector<LintFinding>& found = ofSets[ruleSet.Index];
                found.clear();
                LintRules(ruleSet.Index, ruleSet.Rules, {&*soFar.Macros}, found);
            });
        findings = Lint(store);
        for (const RuleSetRecord& ruleSet : store.RuleSets)
            findings.insert(findings.end(), ofSets[ruleSet.Index].begin(), ofSets[ruleSet.Index].end());
    }
    Console& console = session.Terminal();
    if (session.Options().Json)
    {
        console.Out(FindingsAsJson(findings).dump(2) + "\n");
        return findings.empty() ? ExitDone : ExitFailed;
    }
    for (const LintFinding& finding : findings)
        console.Out(finding.Where() + " " + Printable(finding.Text) + "\n");
    console.Out(findings.empty() ? "no findings\n" : Count(findings.size(), "finding") + "\n");
    return findings.empty() ? ExitDone : ExitFailed;
}

} // namespace Tool
