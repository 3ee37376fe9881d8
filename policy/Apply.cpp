// Applies the differences between a store and a policy to the store.
#include "policy/Apply.h"

#include <algorithm>

#include "policy/ResultCodes.h"
#include "rules/Normalise.h"

namespace KxPolicy
{
namespace
{

std::string RuleName(uint16_t ruleSetIndex, uint16_t ruleIndex)
{
    return "rule " + std::to_string(ruleIndex) + " of rule set " + std::to_string(ruleSetIndex);
}

/// Rule 0 cannot be deleted alone.
bool NeedsEmptying(const RuleSetChange& change)
{
    return std::any_of(change.Rules.begin(), change.Rules.end(),
                       [](const RuleChange& rule) { return rule.Index == 0 && rule.Before; });
}

/// Some changes require deleting the whole set and adding it again: a new name, and a rule that is refused when added
/// alone but accepted with its set.
bool NeedsNewSet(const RuleSetChange& change)
{
    if (!change.NameBefore || !change.NameAfter)
        return false;
    if (*change.NameBefore != *change.NameAfter)
        return true;
    const bool all = NeedsEmptying(change);
    return std::any_of(change.Rules.begin(), change.Rules.end(),
                       [](const RuleChange& rule) { return rule.After && Normalise::HasBlankPortList(*rule.After); }) ||
           (all && std::any_of(change.RulesAfter.begin(), change.RulesAfter.end(),
                               [](const PFW_RULE* rule) { return Normalise::HasBlankPortList(*rule); }));
}

void AddRuleSet(PolicyStore& store, const RuleSetChange& change)
{
    std::vector<unsigned char> block = RuleSetBytes(change.Index, *change.NameAfter, change.RulesAfter);
    Check(store.AddRuleSet(change.Index, reinterpret_cast<PFW_RULESET*>(block.data())),
          "adding rule set " + std::to_string(change.Index));
}

void DeleteRuleSet(PolicyStore& store, uint16_t index)
{
    Check(store.DeleteRuleSet(index), "deleting rule set " + std::to_string(index));
}

/// Changes single rules, in memory only: nothing reaches a file before the store is written.
void ChangeRules(PolicyStore& store, const RuleSetChange& change)
{
    if (NeedsEmptying(change))
    {
        Check(store.DeleteRule(change.Index, 0), "emptying rule set " + std::to_string(change.Index));
        for (const PFW_RULE* const rule : change.RulesAfter)
            Check(store.AddRule(change.Index, rule->wRuleIndex, rule),
                  "adding " + RuleName(change.Index, rule->wRuleIndex));
        return;
    }
    // Deletions first: a full set takes no more rules.
    for (const RuleChange& rule : change.Rules)
    {
        if (rule.Before)
            Check(store.DeleteRule(change.Index, rule.Index), "deleting " + RuleName(change.Index, rule.Index));
    }
    for (const RuleChange& rule : change.Rules)
    {
        if (rule.After)
            Check(store.AddRule(change.Index, rule.Index, rule.After), "adding " + RuleName(change.Index, rule.Index));
    }
}

void ChangeMacros(PolicyStore& store, const std::vector<MacroRecord>& macros)
{
    Check(store.DeleteMacro(), "deleting the macros");
    for (const MacroRecord& macro : macros)
    {
        const std::vector<unsigned char> block = MacroBytes(macro);
        Check(store.AddMacro(reinterpret_cast<const PFW_MACRO*>(block.data())), "adding a macro");
    }
}

/// Deleting writes the master file and removes the set's file at once. By then everything else must have been written,
/// and what is deleted must have been copied.
void DeleteRuleSets(PolicyStore& store, const PolicyDiff& diff)
{
    for (const RuleSetChange& change : diff.RuleSets)
    {
        if (!change.NameAfter || NeedsNewSet(change))
            DeleteRuleSet(store, change.Index);
    }
}

} // namespace

void Check(int32_t result, const std::string& attempt)
{
    if (result < 0)
        throw StoreError(result, attempt + ": " + ResultText(result));
}

void Apply(PolicyStore& store, const Policy& before, const PolicyDiff& diff,
           const std::function<void(size_t done, size_t all)>& progress)
{
    bool deletes = false;
    for (const RuleSetChange& change : diff.RuleSets)
        deletes = deletes || !change.NameAfter || NeedsNewSet(change);
    if (deletes)
        store.CopyFiles();
    // If the limits allow it, new sets are written before old ones are removed.
    size_t added = before.RuleSets.size();
    for (const RuleSetChange& change : diff.RuleSets)
        added += change.NameBefore ? 0 : 1;
    const bool deleteFirst = added > KXRULE_MAX_RULESETS;

    size_t done = 0;
    if (deleteFirst)
        DeleteRuleSets(store, diff);
    for (const RuleSetChange& change : diff.RuleSets)
    {
        if (!change.NameBefore)
            AddRuleSet(store, change);
        else if (change.NameAfter && !NeedsNewSet(change))
            ChangeRules(store, change);
        progress(++done, diff.RuleSets.size());
    }
    if (diff.Macros)
        ChangeMacros(store, *diff.Macros);
    if (diff.Active)
        Check(store.SetActiveRuleSet(diff.Active->data(), static_cast<int32_t>(diff.Active->size())),
              "setting the active list");
    if (deletes)
    {
        if (!deleteFirst)
        {
            store.Write();
            DeleteRuleSets(store, diff);
        }
        for (const RuleSetChange& change : diff.RuleSets)
        {
            if (NeedsNewSet(change))
                AddRuleSet(store, change);
        }
    }
    store.Write();
}

} // namespace KxPolicy
