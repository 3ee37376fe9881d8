// What has to change so that a store holds a policy.
#include "policy/PolicyDiff.h"

#include <gtest/gtest.h>

#include "policy/RuleJson.h"
#include "tests/support/RecordBuilder.h"

using KxPolicy::MergeMode;
using KxPolicy::Policy;

namespace
{

Policy Read(const std::string& json)
{
    Policy policy;
    std::vector<KxPolicy::Diagnostic> errors;
    EXPECT_TRUE(KxPolicy::ReadPolicy(json, policy, errors)) << errors.front().Text << json;
    if (!policy.Active)
        policy.Active.emplace();
    if (!policy.Macros)
        policy.Macros.emplace();
    return policy;
}

/// A rule set of rules with these indexes; a letter after an index becomes part of the rule's description.
std::string Set(int index, const std::string& name, const std::vector<std::string>& rules)
{
    std::string text;
    for (const std::string& rule : rules)
        text += (text.empty() ? "" : ", ") + std::string("{\"kind\": \"nat\", \"natType\": \"snat\", \"index\": ") +
                std::to_string(std::stoi(rule)) + ", \"description\": \"" + rule + "\"}";
    return "{\"index\": " + std::to_string(index) + ", \"name\": \"" + name + "\", \"rules\": [" + text + "]}";
}

std::string Sets(const std::vector<std::string>& sets)
{
    std::string text;
    for (const std::string& set : sets)
        text += (text.empty() ? "" : ", ") + set;
    return "\"ruleSets\": [" + text + "]";
}

/// The signs and indexes of a difference, without the lines of the rules.
std::string Outline(const KxPolicy::PolicyDiff& diff)
{
    std::string text;
    for (const KxPolicy::RuleSetChange& set : diff.RuleSets)
    {
        text += std::string(!set.NameBefore                   ? "+"
                            : !set.NameAfter                  ? "-"
                            : set.NameBefore != set.NameAfter ? "="
                                                              : "~") +
                std::to_string(set.Index) + "(";
        for (const KxPolicy::RuleChange& rule : set.Rules)
            text += (!rule.Before ? "+" : !rule.After ? "-" : "~") + std::to_string(rule.Index);
        text += ")" + std::to_string(set.RulesAfter.size());
    }
    for (const KxPolicy::MacroRecord& macro : diff.Macros.value_or(std::vector<KxPolicy::MacroRecord>()))
        text += " " + macro.Name + std::to_string(macro.Items.size());
    text += diff.Macros ? " macros" : "";
    return text + (diff.Active ? " active" : "");
}

} // namespace

TEST(PolicyDiff, NamesWhatChanges)
{
    const std::string store = Sets({Set(1, "a", {"1", "2", "3"}), Set(2, "b", {"5"})}) +
                              R"(, "active": [1], "macros": [{"name": "m"}, {"name": "n"}, {"name": "m"}])";
    const struct
    {
        std::string Policy;
        const char* Merge;
        const char* Replace;
    } cases[] = {
        {store, "", ""},
        {Sets({}), "", "-1(-1-2-3)0-2(-5)0"},
        {Sets({Set(1, "a", {"2"}), Set(2, "b", {"5"})}), "", "~1(-1-3)1"},
        {Sets({Set(1, "a", {"0", "2x", "4"}), Set(2, "b", {"5"})}), "~1(+0~2+4)5", "~1(+0-1~2-3+4)3"},
        {Sets({Set(1, "x", {}), Set(2, "b", {"5"}), Set(9, "c", {"1"})}), "=1()3+9(+1)1", "=1(-1-2-3)0+9(+1)1"},
        {Sets({Set(1, "a", {"1", "2", "3"})}) + R"(, "active": [1, 1])", " active", "-2(-5)0 active"},
    };
    for (const auto& c : cases)
    {
        Policy policy;
        std::vector<KxPolicy::Diagnostic> errors;
        ASSERT_TRUE(KxPolicy::ReadPolicy("{" + c.Policy + "}", policy, errors));
        EXPECT_EQ(Outline(KxPolicy::Compare(Read("{" + store + "}"), policy, MergeMode::Merge)), c.Merge) << c.Policy;
        EXPECT_EQ(Outline(KxPolicy::Compare(Read("{" + store + "}"), policy, MergeMode::Replace)), c.Replace)
            << c.Policy;
    }
}

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
    EXPECT_EQ(KxPolicy::Compare(store, policy, MergeMode::Merge).RuleSets[0].RulesAfter[0].Access.abAppHash[19], 9);
    Build::SetText(&wanted.Access.wszAppName, KXRULE_APP_NAME_UNITS, KXW("C:\\b.exe")); // another file has another
    EXPECT_EQ(KxPolicy::Compare(store, policy, MergeMode::Merge).RuleSets[0].RulesAfter[0].Access.abAppHash[19], 0);
}
