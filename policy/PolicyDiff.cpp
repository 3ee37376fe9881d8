// Compares policies.
#include "policy/PolicyDiff.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>

#include "common/srclib/KxComn_Record.h"
#include "policy/RecordText.h"
#include "policy/Words.h"
#include "rules/Normalise.h"

namespace KxPolicy
{
namespace
{

using KxCommon::Record::Load;

/// Where access rules of the two layouts have their application.
struct ApplicationPlaces
{
    size_t Path;
    size_t Hash;
    size_t System;
};

std::optional<ApplicationPlaces> PlacesOf(const PFW_RULE& rule) noexcept
{
    if (rule.dwKind == KXRULE_KIND_ACCESS)
        return ApplicationPlaces{offsetof(PFW_RULE, Access.wszAppName), offsetof(PFW_RULE, Access.abAppHash),
                                 offsetof(PFW_RULE, Access.dwSystem)};
    if (rule.dwKind == KXRULE_KIND_ACCESS2)
        return ApplicationPlaces{offsetof(PFW_RULE, Access2.wszAppName), offsetof(PFW_RULE, Access2.abAppHash),
                                 offsetof(PFW_RULE, Access2.dwSystem)};
    return std::nullopt;
}

uint8_t* BytesOf(PFW_RULE& rule) noexcept
{
    return reinterpret_cast<uint8_t*>(&rule);
}

const uint8_t* BytesOf(const PFW_RULE& rule) noexcept
{
    return reinterpret_cast<const uint8_t*>(&rule);
}

bool Equal(const PFW_RULE& a, const PFW_RULE& b) noexcept
{
    return std::memcmp(BytesOf(a), BytesOf(b), sizeof a) == 0; // byte for byte: records have no padding
}

/// Policies rarely have hashes: one that the library has computed for the same application counts as the policy's.
void TakeOverHash(PFW_RULE& rule, const PFW_RULE& stored) noexcept
{
    const std::optional<ApplicationPlaces> places = PlacesOf(rule);
    if (!places || rule.dwKind != stored.dwKind)
        return;
    const uint8_t* const from = BytesOf(stored);
    uint8_t* const to = BytesOf(rule);
    if (Load<uint32_t>(to + places->System) == 0 && Load<uint32_t>(from + places->System) == 0 &&
        IsZero(to + places->Hash, KXRULE_HASH_BYTES) &&
        std::memcmp(from + places->Path, to + places->Path, KXRULE_APP_NAME_UNITS * sizeof(KXWCHAR)) == 0)
        std::memcpy(to + places->Hash, from + places->Hash, KXRULE_HASH_BYTES);
}

/// The changes of one rule set's rules. Both lists are ascending.
void CompareRules(const std::vector<PFW_RULE>& before, const std::vector<PFW_RULE>& wanted, MergeMode mode,
                  RuleSetChange& change, std::deque<PFW_RULE>& altered)
{
    size_t old = 0;
    const auto keepOrDrop = [&](const PFW_RULE& rule)
    {
        if (mode == MergeMode::Merge)
            change.RulesAfter.push_back(&rule);
        else
            change.Rules.push_back({rule.wRuleIndex, &rule, nullptr});
    };
    for (const PFW_RULE& given : wanted)
    {
        for (; old < before.size() && before[old].wRuleIndex < given.wRuleIndex; ++old)
            keepOrDrop(before[old]);
        const bool exists = old < before.size() && before[old].wRuleIndex == given.wRuleIndex;
        // A refreshed system rule has a hash, which adding the rule again would remove.
        const bool same = exists && Equal(before[old], given);
        PFW_RULE rule = given;
        if (!same)
            Normalise::NormaliseRule(rule);
        if (exists)
            TakeOverHash(rule, before[old]);
        const PFW_RULE* const stored = exists ? &before[old] : nullptr;
        const PFW_RULE* const after = stored != nullptr && Equal(*stored, rule) ? stored
                                      : Equal(given, rule)                      ? &given
                                                                                : &altered.emplace_back(rule);
        if (after != stored)
            change.Rules.push_back({rule.wRuleIndex, stored, after});
        change.RulesAfter.push_back(after);
        old += exists ? 1 : 0;
    }
    for (; old < before.size(); ++old)
        keepOrDrop(before[old]);
}

bool SameMacros(const std::vector<MacroRecord>& a, const std::vector<MacroRecord>& b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const MacroRecord& x, const MacroRecord& y)
                      {
                          return x.Name == y.Name && x.Items.size() == y.Items.size() &&
                                 (x.Items.empty() || std::memcmp(x.Items.data(), y.Items.data(),
                                                                 x.Items.size() * sizeof(MACRO_ITEM)) == 0);
                      });
}

/// The policy's macros replace those with the same names, one by one; the rest is appended.
std::vector<MacroRecord> MergeMacros(const std::vector<MacroRecord>& before, const std::vector<MacroRecord>& wanted)
{
    std::map<std::string, std::vector<const MacroRecord*>> byName;
    for (const MacroRecord& macro : wanted)
        byName[macro.Name].push_back(&macro);
    std::map<std::string, size_t> used;
    std::vector<MacroRecord> merged;
    for (const MacroRecord& macro : before)
    {
        const auto named = byName.find(macro.Name);
        if (named == byName.end())
            merged.push_back(macro);
        else if (size_t& next = used[macro.Name]; next < named->second.size())
            merged.push_back(*named->second[next++]);
    }
    std::map<std::string, size_t> seen;
    for (const MacroRecord& macro : wanted)
    {
        if (seen[macro.Name]++ >= used[macro.Name])
            merged.push_back(macro);
    }
    return merged;
}

const RuleSetRecord* Find(const std::vector<RuleSetRecord>& ruleSets, uint16_t index) noexcept
{
    for (const RuleSetRecord& ruleSet : ruleSets)
    {
        if (ruleSet.Index == index)
            return &ruleSet;
    }
    return nullptr;
}

} // namespace

Policy Remaining(const Policy& store, const Policy& policy, MergeMode mode)
{
    Policy remaining;
    if (mode == MergeMode::Merge || !policy.Macros)
        remaining.Macros = store.Macros;
    if (mode == MergeMode::Merge || !policy.HasRuleSets)
    {
        for (const RuleSetRecord& ruleSet : store.RuleSets)
            remaining.RuleSets.push_back({ruleSet.Index, {}, {}});
    }
    return remaining;
}

PolicyDiff Compare(const Policy& store, const Policy& policy, MergeMode mode)
{
    PolicyDiff diff;
    diff.MacrosBefore = store.Macros.value_or(std::vector<MacroRecord>());
    diff.ActiveBefore = store.Active.value_or(std::vector<uint16_t>());
    const std::vector<PFW_RULE> none;
    for (const RuleSetRecord& wanted : policy.RuleSets)
    {
        RuleSetChange change;
        change.Index = wanted.Index;
        change.NameAfter = wanted.Name;
        const RuleSetRecord* const before = Find(store.RuleSets, wanted.Index);
        if (before != nullptr)
            change.NameBefore = before->Name;
        CompareRules(before == nullptr ? none : before->Rules, wanted.Rules, mode, change, diff.Altered);
        if (change.NameBefore != change.NameAfter || !change.Rules.empty())
            diff.RuleSets.push_back(std::move(change));
    }
    for (const RuleSetRecord& stored : store.RuleSets)
    {
        if (mode == MergeMode::Merge || !policy.HasRuleSets || Find(policy.RuleSets, stored.Index) != nullptr)
            continue;
        RuleSetChange change;
        change.Index = stored.Index;
        change.NameBefore = stored.Name;
        CompareRules(stored.Rules, {}, mode, change, diff.Altered);
        diff.RuleSets.push_back(std::move(change));
    }
    std::sort(diff.RuleSets.begin(), diff.RuleSets.end(),
              [](const RuleSetChange& a, const RuleSetChange& b) { return a.Index < b.Index; });
    if (policy.Macros)
    {
        diff.Macros = mode == MergeMode::Merge ? MergeMacros(diff.MacrosBefore, *policy.Macros) : *policy.Macros;
        if (SameMacros(*diff.Macros, diff.MacrosBefore))
            diff.Macros.reset();
    }
    std::vector<uint16_t> active = policy.Active.value_or(diff.ActiveBefore);
    if (!policy.Active) // what is gone is not active either
    {
        for (const RuleSetChange& change : diff.RuleSets)
            std::erase_if(active, [&](uint16_t index) { return !change.NameAfter && index == change.Index; });
    }
    if (active != diff.ActiveBefore)
        diff.Active = std::move(active);
    return diff;
}

void DropRules(Policy& store, PolicyDiff& diff)
{
    for (RuleSetRecord& ruleSet : store.RuleSets)
    {
        const PFW_RULE* const begin = ruleSet.Rules.data();
        const PFW_RULE* const end = begin + ruleSet.Rules.size();
        for (RuleSetChange& change : diff.RuleSets)
        {
            for (const PFW_RULE*& rule : change.RulesAfter)
            {
                if (change.Index == ruleSet.Index && !std::less<>()(rule, begin) && std::less<>()(rule, end))
                    rule = &diff.Altered.emplace_back(*rule);
            }
        }
        std::vector<PFW_RULE>().swap(ruleSet.Rules);
    }
}

size_t RuleSetsAfter(const Policy& store, const PolicyDiff& diff) noexcept
{
    size_t count = store.RuleSets.size();
    for (const RuleSetChange& change : diff.RuleSets)
        count += change.NameBefore ? (change.NameAfter ? 0 : size_t(-1)) : 1;
    return count;
}

std::string ExcessText(const Policy& store, const PolicyDiff& diff)
{
    if (RuleSetsAfter(store, diff) > KXRULE_MAX_RULESETS)
        return "the store would hold " + Count(RuleSetsAfter(store, diff), "rule set") + "; the limit is " +
               std::to_string(KXRULE_MAX_RULESETS);
    for (const RuleSetChange& change : diff.RuleSets)
    {
        if (change.RulesAfter.size() > KXRULE_MAX_RULES)
            return "rule set " + std::to_string(change.Index) + " would hold " +
                   Count(change.RulesAfter.size(), "rule") + "; the limit is " + std::to_string(KXRULE_MAX_RULES);
    }
    return {};
}

bool IsEmptying(const Policy& store, const PolicyDiff& diff) noexcept
{
    return !store.RuleSets.empty() && RuleSetsAfter(store, diff) == 0;
}

PolicyDiff Inverse(const Policy& before, const PolicyDiff& diff, const Policy& now)
{
    Policy from;
    Policy to;
    for (const RuleSetChange& change : diff.RuleSets)
    {
        if (const RuleSetRecord* const ruleSet = Find(now.RuleSets, change.Index))
            from.RuleSets.push_back(*ruleSet);
        if (const RuleSetRecord* const ruleSet = Find(before.RuleSets, change.Index))
            to.RuleSets.push_back(*ruleSet);
    }
    from.Active = now.Active;
    from.Macros = now.Macros;
    to.Active = diff.Active ? before.Active : now.Active;
    if (diff.Macros)
        to.Macros = before.Macros;
    PolicyDiff inverse = Compare(from, to, MergeMode::Replace);
    inverse.Own.reserve(2);
    inverse.Own.push_back(std::move(from)); // moving the lists does not move the rules in them
    inverse.Own.push_back(std::move(to));
    return inverse;
}

} // namespace KxPolicy
