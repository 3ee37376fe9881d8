// What has to change so that a store holds a policy: what tests/policy/ApplyTest.cpp does not see of it.
#include "policy/PolicyDiff.h"

#include <gtest/gtest.h>

#include "tests/support/ParsedPolicy.h"
#include "tests/support/RecordBuilder.h"

using KxPolicy::MergeMode;
using KxPolicy::Policy;
using KxPolicy::PolicyDiff;

TEST(PolicyDiff, MergesMacrosByName)
{
    // A letter is a name, a capital one the same name with an item.
    const auto macros = [](const std::string& letters)
    {
        std::string text = "rules 1\nmacros\n";
        for (const char letter : letters)
            text += std::string("macro ") + static_cast<char>(letter | 0x20) + (letter < 'a' ? "\nport=80\n" : "\n");
        return ParsedPolicy(text);
    };
    // Store, policy and what comes of them.
    const char* const cases[][3] = {{"abc", "b", "abc"},    {"abc", "Bd", "aBcd"}, {"aba", "A", "Ab"},
                                    {"aba", "AAA", "AbAA"}, {"", "ab", "ab"},      {"ab", "", "ab"}};
    for (const auto& [before, policy, expected] : cases)
    {
        Policy store = macros(before);
        if (const auto merged = KxPolicy::Compare(store, macros(policy), MergeMode::Merge).Macros)
            store.Macros = merged;
        EXPECT_EQ(KxPolicy::PolicyToText(store), KxPolicy::PolicyToText(macros(expected))) << before << " " << policy;
    }
}

TEST(PolicyDiff, TakesAComputedHashForThePolicys)
{
    Policy store;
    store.RuleSets.push_back({1, KXW("a"), {Build::Access(1, KXW("C:\\a.exe"))}});
    Policy policy = store;
    PFW_RULE& stored = store.RuleSets[0].Rules[0];
    stored.Access.abAppHash[19] = 9;
    EXPECT_TRUE(KxPolicy::Compare(store, policy, MergeMode::Replace).IsEmpty());
    PFW_RULE& wanted = policy.RuleSets[0].Rules[0];
    wanted.Access.dwAction = KXRULE_ACTION_DROP; // a change keeps the hash
    EXPECT_EQ(KxPolicy::Compare(store, policy, MergeMode::Merge).RuleSets[0].RulesAfter[0]->Access.abAppHash[19], 9);
    Build::SetText(&wanted.Access.wszAppName, KXRULE_APP_NAME_UNITS, KXW("C:\\b.exe")); // another file has another
    EXPECT_EQ(KxPolicy::Compare(store, policy, MergeMode::Merge).RuleSets[0].RulesAfter[0]->Access.abAppHash[19], 0);
}

TEST(PolicyDiff, ShowsWhatChanges)
{
    const Policy store = ParsedPolicy(R"(rules 1
active 1 2
macro m
port=80
text=a
set 1 alt
1 ACCESS,TCP,,,,80,DROP  description=first  application=C:\a.exe
2 ACCESS,TCP,,,,80,DROP
3 NAT,ANY,,,,,,,SNAT
set 2 gone
7 NAT,ANY,,,,,,,SNAT
)");
    const Policy policy = ParsedPolicy(R"(rules 1
active 1
macro m
port=81
text=a
set 1 neu
1 ACCESS,TCP,,10.0.0.1,,80,ACCEPT  description=second
2 ACCESS,TCP,,,,80,DROP,5:0:x  raw=["9: 0102","2800: ff"]
4 NAT,ANY,,,,,,,SNAT
set 3 new
0 ACCESS,TCP,,,,80,DROP  description=third
)");
    const PolicyDiff diff = KxPolicy::Compare(store, policy, MergeMode::Replace);
    EXPECT_EQ(KxPolicy::DiffText(diff), R"(~ rule set 1  "alt" becomes "neu"
  ~ rule 1  "access"  "second"
      -  "description": "first"
      +  "description": "second"
      -  "addresses": ["any", "any"]
      +  "addresses": ["any", "10.0.0.1"]
      -  "action": "drop"
      -  "application": "C:\\a.exe"
      +  "action": "accept"
  ~ rule 2  "access"
      +  "extension": {"flag": 1, "value": 5, "shortValue": 0, "text": "x"}
      +  "raw": [
      +    "9: 0102"
      +    "2800: ff"
      +  ]
  - rule 3  "nat"
  + rule 4  "nat"
- rule set 2  "gone"
  - rule 7  "nat"
+ rule set 3  "new"
  + rule 0  "access"  "third"
~ macros
      -        {"port": "80"}
      +        {"port": "81"}
~ active  [1, 2] becomes [1]
)");
    EXPECT_EQ(KxPolicy::DiffSummary(diff),
              "1 rule set added, 1 rule set changed, 1 rule set removed, 2 rules added, 2 rules changed, 2 rules "
              "removed, macros changed, active list changed");
}

TEST(PolicyDiff, KnowsTheLimits)
{
    const Policy full = ParsedPolicy(PolicyText(Numbered(2, 64, "a:") + "1a: " + Numbered(1, 1024, "s")));
    const auto excess = [&](const std::string& words)
    {
        const Policy more = ParsedPolicy(PolicyText(words));
        return KxPolicy::ExcessText(full, KxPolicy::Compare(full, more, MergeMode::Merge));
    };
    EXPECT_EQ(excess("1a: 1d"), "");
    EXPECT_EQ(excess("1a: 1025s"), "rule set 1 would hold 1025 rules; the limit is 1024");
    EXPECT_EQ(excess("65a:"), "the store would hold 65 rule sets; the limit is 64");
}
