// The library's functions over a store in memory. Its rule sets are the library's own class, so what the library
// refuses or alters is refused or altered here too. There are no files and no locks.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <sstream>
#include <type_traits>
#include <vector>

#include "api/include/KxPfwRule.h"
#include "repository/IndexMap.h"
#include "repository/RuleSet.h"
#include "rules/Normalise.h"

namespace MemoryLibrary
{

inline IndexMap<CRuleSet> g_RuleSets;
inline std::vector<uint8_t> g_Macros; // their records
inline std::vector<uint16_t> g_Active;
inline std::ostringstream g_Calls;        // that change something: "+2 -2 +2/5 -2/5 +macro -macros active write "
inline std::function<int32_t()> g_Before; // called before those; a code refuses the call

inline void Clear()
{
    g_RuleSets.Clear();
    g_Macros.clear();
    g_Active.clear();
    g_Before = [] { return KXRULE_OK; };
}

/// Notes a call by the parts of its name and makes the change, which returns a code or nothing.
template <class Change, class... Parts>
int32_t Make(const Change& change, const Parts&... name)
{
    const int32_t refused = g_Before();
    (g_Calls << ... << name) << ' ';
    if (refused != KXRULE_OK)
        return refused;
    if constexpr (std::is_void_v<decltype(change())>)
        return change(), KXRULE_OK;
    else
        return change();
}

template <class Unit>
int32_t Copy(const std::vector<Unit>& from, void* to, int32_t room)
{
    std::copy_n(from.begin(), std::min(from.size(), static_cast<size_t>(room)), static_cast<Unit*>(to));
    return static_cast<int32_t>(from.size());
}

inline int32_t AddRuleSet(uint16_t index, const PFW_RULESET& record)
{
    if (g_RuleSets.Contains(index))
        return KXRULE_E_NO_RULESET;
    if (g_RuleSets.Size() >= KXRULE_MAX_RULESETS)
        return KXRULE_E_TOO_MANY_RULESETS;
    g_RuleSets.Emplace(index, record);
    return KXRULE_OK;
}

/// change(rule set), which has to be there.
template <class Change>
int32_t InRuleSet(uint16_t index, const Change& change)
{
    CRuleSet* const ruleSet = g_RuleSets.Find(index);
    return ruleSet == nullptr ? KXRULE_E_NO_RULESET : change(*ruleSet);
}

/// Those that read a whole store and change it; the others are null.
inline KXRULE_LIBRARY Functions()
{
    KXRULE_LIBRARY all{};
    all.kxRuleGetActiveRuleSet = [](uint16_t* to, int32_t room) { return Copy(g_Active, to, room); };
    all.kxRuleGetRuleSetIndex = [](uint16_t* to, int32_t room) { return Copy(g_RuleSets.Keys(), to, room); };
    all.kxRuleGetMacro = [](void* to, int32_t room)
    { return Copy(g_Macros, to, room < static_cast<int32_t>(g_Macros.size()) ? 0 : room); };
    all.kxRuleGetRuleSet = [](uint16_t index, PFW_RULESET* to, int32_t room)
    {
        return InRuleSet(index, [&](const CRuleSet& set)
                         { return (to == nullptr ? void() : set.CopyRecord(to, room)), set.RuleCount(); });
    };
    all.kxRuleFlush = all.kxRuleWrite = [] { return Make([] {}, "write"); };
    all.kxRuleSetActiveRuleSet = [](const uint16_t* indexes, int32_t count)
    { return Make([&] { g_Active.assign(indexes, indexes + count); }, "active"); };
    all.kxRuleDeleteMacro = [] { return Make([] { g_Macros.clear(); }, "-macros"); };
    all.kxRuleAddMacro = [](const PFW_MACRO* record)
    {
        const uint8_t* const from = reinterpret_cast<const uint8_t*>(record);
        return Make([&] { g_Macros.insert(g_Macros.end(), from, from + KXRULE_MACRO_BYTES(record->nItemCount)); },
                    "+macro");
    };
    all.kxRuleAddRuleSet = [](uint16_t index, PFW_RULESET* record)
    { return Make([&] { return AddRuleSet(index, *record); }, '+', index); };
    all.kxRuleDeleteRuleSet = [](uint16_t index)
    { return Make([&] { return g_RuleSets.Erase(index) ? KXRULE_OK : KXRULE_E_NO_RULESET; }, '-', index); };
    all.kxRuleAddRule = [](uint16_t ruleSetIndex, uint16_t index, const PFW_RULE* rule)
    {
        const auto add = [&](CRuleSet& set)
        { return Normalise::HasBlankPortList(*rule) ? KXRULE_E_PORT_LIST : set.AddRule(index, CRule(*rule)); };
        return Make([&] { return InRuleSet(ruleSetIndex, add); }, '+', ruleSetIndex, '/', index);
    };
    all.kxRuleDeleteRule = [](uint16_t ruleSetIndex, uint16_t index)
    {
        const auto erase = [&](CRuleSet& set) { return set.DeleteRule(index); };
        return Make([&] { return InRuleSet(ruleSetIndex, erase); }, '-', ruleSetIndex, '/', index);
    };
    return all;
}

} // namespace MemoryLibrary
