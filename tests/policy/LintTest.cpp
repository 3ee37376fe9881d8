// What a policy may contain but probably should not.
#include "policy/Lint.h"

#include <gtest/gtest.h>

#include "policy/PolicyDiff.h"
#include "tests/support/ParsedPolicy.h"

using KxPolicy::MergeMode;
using KxPolicy::Policy;

// The store that the policy is merged into has the macro lan and the rule set 8.
TEST(Lint, FindsWhatIsHardlyMeant)
{
    const Policy store = ParsedPolicy("rules 1\nmacro lan\nset 8 b\n");
    const Policy policy = ParsedPolicy(R"(rules 1
active 1 1 8 9
macro web
address=10.1.2.3/8
port=@gone
macro web
set 1 a
1 ACCESS  protocol=47  addresses=@lan,!10.1.2.0/255.255.0.0  ports=any,@web  action=9
2 ACCESS,ICMP,10.1.0.0/16,,,80,DROP  application=C:\a.exe
3 ACCESS,TCP,10.0.0.1:10.0.0.9,fe80::1,,,DROP  application=a.exe
4 ACCESS  protocol=4294967295  addresses=@web,!fe80::1/10  action=drop  application=SYSTEM
5 9
)");
    const auto found = [&policy](const Policy& beside)
    {
        std::string text;
        for (const KxPolicy::LintFinding& finding : KxPolicy::Lint(policy, &beside))
            text += std::string(finding.Code) + ": " + finding.Where() + " " + finding.Text + "\n";
        return text;
    };
    EXPECT_EQ(found(KxPolicy::Remaining(store, policy, MergeMode::Merge)),
              R"(active-twice: active list has rule set 1 twice
no-such-rule-set: active list has rule set 9, which does not exist
host-bits: macro "web" has address bits outside the mask of 10.1.2.3/8, which are ignored
no-such-macro: macro "web" names the macro "gone", which does not exist
macro-twice: macro "web" has the same name as another macro
unknown-number: rule set 1, rule 1 has the protocol 47, which is unknown
host-bits: rule set 1, rule 1 has address bits outside the mask of !10.1.2.0/255.255.0.0, which are ignored
unknown-number: rule set 1, rule 1 has the action 9, which is unknown
icmp-ports: rule set 1, rule 2 has ports, but the protocol icmp has none
two-families: rule set 1, rule 3 has IPv4 and IPv6 addresses, between which there is no traffic
no-path: rule set 1, rule 3 is bound to "a.exe", which has no path
host-bits: rule set 1, rule 4 has address bits outside the mask of !fe80::1/10, which are ignored
unknown-number: rule set 1, rule 5 has the kind 9, which is unknown
)");
    const std::string replaced = found(KxPolicy::Remaining(store, policy, MergeMode::Replace));
    EXPECT_NE(replaced.find("active list has rule set 8"), std::string::npos) << replaced;
    EXPECT_NE(replaced.find("names the macro \"lan\""), std::string::npos) << replaced;
}
