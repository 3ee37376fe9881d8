// Small changes: rules switched, set, copied, moved, renumbered; rule sets renamed; the active list edited.
#include <algorithm>
#include <functional>

#include <nlohmann/json.hpp>

#include "policy/RecordText.h"
#include "policy/RulesText.h"
#include "policy/Utf8.h"
#include "tools/kxrule/commands/Commands.h"

namespace Tool
{
namespace
{

void CheckFree(const RuleSetRecord& ruleSet, uint16_t index)
{
    for (const PFW_RULE& rule : ruleSet.Rules)
    {
        if (rule.wRuleIndex == index)
            throw Failure("rule set " + std::to_string(ruleSet.Index) + " already has a rule " + std::to_string(index));
    }
}

} // namespace

int Change(Session& session, const std::function<void(Policy& wanted)>& change)
{
    session.OpenToChange();
    Policy store = session.Read();
    Policy wanted = store;
    change(wanted);
    return ApplyPolicy(session, store, wanted, MergeMode::Replace);
}

void InsertRule(RuleSetRecord& ruleSet, PFW_RULE rule, const RulePlace& place)
{
    std::vector<PFW_RULE>& rules = ruleSet.Rules;
    const bool isBeside = place.Before || place.After;
    auto at = place.Before  ? FindRule(ruleSet, *place.Before)
              : place.After ? FindRule(ruleSet, *place.After) + 1
                            : rules.end();
    if (place.Index)
    {
        CheckFree(ruleSet, *place.Index);
        rule.wRuleIndex = *place.Index;
        at = std::find_if(rules.begin(), rules.end(),
                          [&place](const PFW_RULE& other) { return other.wRuleIndex > *place.Index; });
    }
    else
    {
        // Without a gap the rules after it move up, as far as the next gap.
        const uint32_t least =
            at == rules.begin() ? 1u : rules[static_cast<size_t>(at - rules.begin()) - 1].wRuleIndex + 1u;
        const uint32_t most = at == rules.end() ? least : std::max<uint32_t>(at->wRuleIndex, least + 1) - 1;
        const uint32_t index = isBeside ? least + (most - least) / 2 : least;
        uint32_t next = index + 1;
        for (auto after = at; after != rules.end() && after->wRuleIndex < next; ++after, ++next)
            after->wRuleIndex = static_cast<uint16_t>(next);
        if (index > UINT16_MAX || next > uint32_t{UINT16_MAX} + 1)
            throw Failure("rule set " + std::to_string(ruleSet.Index) +
                          " has no index left there; \"kxrule renumber\" makes room");
        rule.wRuleIndex = static_cast<uint16_t>(index);
    }
    rules.insert(at, rule);
}

KxCommon::WideString RuleSetName(const std::string& name)
{
    KxCommon::WideString wide = FromUtf8(name);
    if (wide.size() >= KXRULE_RULESET_NAME_UNITS)
        throw Failure("a rule set's name may have at most " + std::to_string(KXRULE_RULESET_NAME_UNITS - 1) +
                      " UTF-16 units; this one has " + std::to_string(wide.size()));
    return wide;
}

int Switch(Session& session, uint16_t ruleSetIndex, const std::vector<uint16_t>& indexes, bool on)
{
    return Change(session,
                  [&](Policy& wanted)
                  {
                      RuleSetRecord& ruleSet = FindRuleSet(wanted, ruleSetIndex);
                      for (const uint16_t index : indexes)
                      {
                          PFW_RULE& rule = *FindRule(ruleSet, index);
                          if ((rule.dwActive != 0) != on)
                              rule.dwActive = on ? 1 : 0;
                      }
                  });
}

int SetFields(Session& session, uint16_t ruleSetIndex, uint16_t ruleIndex, const std::vector<std::string>& assignments)
{
    return Change(session,
                  [&](Policy& wanted)
                  {
                      PFW_RULE& rule = *FindRule(FindRuleSet(wanted, ruleSetIndex), ruleIndex);
                      std::string line = std::to_string(ruleIndex) + "  " + RuleToText(rule);
                      for (const std::string& assignment : assignments)
                      {
                          const size_t equals = std::min(assignment.find('='), assignment.size());
                          std::string value = assignment.substr(std::min(equals + 1, assignment.size()));
                          const bool isText = value.empty() || value.find_first_of(" \t\"") != std::string::npos;
                          if (isText && !Json::accept(value)) // a text that the shell has freed of its quotes
                              value = Json(value).dump();
                          line += "  " + assignment.substr(0, equals) + "=" + value;
                      }
                      PFW_RULE changed{};
                      bool hasIndex = true;
                      std::vector<Diagnostic> diagnostics;
                      if (!ReadAnyRule(line, changed, hasIndex, diagnostics))
                          throw Failure(diagnostics.front().Path + (diagnostics.front().Path.empty() ? "" : ": ") +
                                        diagnostics.front().Text);
                      if (changed.wRuleIndex != ruleIndex || changed.dwKind != rule.dwKind)
                          throw Failure("the index can be changed with \"kxrule move\", the kind not at all");
                      rule = changed;
                  });
}

int RenameSet(Session& session, uint16_t ruleSetIndex, const std::string& name)
{
    return Change(session, [&](Policy& wanted) { FindRuleSet(wanted, ruleSetIndex).Name = RuleSetName(name); });
}

int CopyRule(Session& session, uint16_t ruleSetIndex, uint16_t ruleIndex, const CopyTarget& target)
{
    return Change(session,
                  [&](Policy& wanted)
                  {
                      RuleSetRecord& from = FindRuleSet(wanted, ruleSetIndex);
                      const auto found = FindRule(from, ruleIndex);
                      const PFW_RULE rule = *found;
                      if (target.Move)
                          from.Rules.erase(found);
                      InsertRule(FindRuleSet(wanted, target.RuleSet.value_or(ruleSetIndex)), rule, target.Place);
                  });
}

int Renumber(Session& session, uint16_t ruleSetIndex, uint16_t step)
{
    return Change(session,
                  [&](Policy& wanted)
                  {
                      RuleSetRecord& ruleSet = FindRuleSet(wanted, ruleSetIndex);
                      if (ruleSet.Rules.size() * step > UINT16_MAX)
                          throw Failure("the indexes would exceed 65535; use a smaller --step");
                      uint32_t index = 0;
                      for (PFW_RULE& rule : ruleSet.Rules)
                          rule.wRuleIndex = static_cast<uint16_t>(index += step);
                  });
}

int EditActive(Session& session, const std::vector<uint16_t>& indexes, const ActiveEdit& edit)
{
    return Change(session,
                  [&](Policy& wanted)
                  {
                      std::vector<uint16_t>& active = *wanted.Active;
                      const auto isGiven = [&indexes](uint16_t index)
                      { return std::find(indexes.begin(), indexes.end(), index) != indexes.end(); };
                      for (const uint16_t index : indexes)
                      {
                          static_cast<void>(FindRuleSet(wanted, index));
                          if (edit.Remove && std::find(active.begin(), active.end(), index) == active.end())
                              throw Failure("rule set " + std::to_string(index) + " is not active");
                      }
                      if (edit.Before && isGiven(*edit.Before))
                          throw Failure("a rule set cannot be placed before itself", ExitUsage);
                      std::erase_if(active, isGiven);
                      if (edit.Remove)
                          return;
                      const auto at =
                          edit.Before ? std::find(active.begin(), active.end(), *edit.Before) : active.end();
                      if (edit.Before && at == active.end())
                          throw Failure("rule set " + std::to_string(*edit.Before) + " is not active");
                      active.insert(at, indexes.begin(), indexes.end());
                  });
}

} // namespace Tool
