// What has to change so that a store holds a policy: what tests/api/PolicyTest.cpp does not see of it.
#include "policy/PolicyDiff.h"

#include <gtest/gtest.h>

#include "tests/support/RecordBuilder.h"

using KxPolicy::MergeMode;
using KxPolicy::Policy;

TEST(PolicyDiff, MergesMacrosByName)
{
    const struct
    {
        const char* Store;
        const char* Policy;
        const char* Merged;
    } cases[] = {
        {"abc", "b", "abc"},    {"abc", "Bd", "aBcd"}, {"aba", "A", "Ab"},
        {"aba", "AAA", "AbAA"}, {"", "ab", "ab"},      {"ab", "", "ab"},
    };
    // A letter is a name, a capital one the same name with an item.
    const auto macros = [](const char* letters)
    {
        Policy policy;
        policy.Macros.emplace();
        for (; *letters != '\0'; ++letters)
            policy.Macros->push_back({std::string(1, static_cast<char>(*letters | 0x20)),
                                      std::vector<MACRO_ITEM>((*letters & 0x20) == 0 ? 1 : 0)});
        return policy;
    };
    for (const auto& c : cases)
    {
        const Policy store = macros(c.Store);
        const std::optional<std::vector<KxPolicy::MacroRecord>> merged =
            KxPolicy::Compare(store, macros(c.Policy), MergeMode::Merge).Macros;
        std::string letters;
        for (const KxPolicy::MacroRecord& macro : merged ? *merged : *store.Macros)
            letters += macro.Items.empty() ? macro.Name[0] : static_cast<char>(macro.Name[0] & ~0x20);
        EXPECT_EQ(letters, c.Merged) << c.Store << " " << c.Policy;
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
