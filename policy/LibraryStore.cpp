// The store of the rule library, through the library's functions.
#include "policy/LibraryStore.h"

#include <algorithm>
#include <new>

#include "common/srclib/KxComn_Record.h"

namespace KxPolicy
{
namespace
{

/// The result of a call of the form (buffer, size) -> needed size. Another thread may lengthen it between two calls.
template <class Unit>
std::vector<Unit> ReadAll(int32_t (*call)(Unit*, int32_t))
{
    std::vector<Unit> all;
    for (;;)
    {
        const size_t needed = static_cast<size_t>(call(all.data(), static_cast<int32_t>(all.size())));
        const bool isComplete = needed <= all.size();
        all.resize(needed);
        if (isComplete)
            return all;
    }
}

/// False if there is no such rule set, or no longer.
bool ReadRuleSet(const KXRULE_LIBRARY& library, RuleSetRecord& ruleSet)
{
    std::vector<unsigned char> block(KXRULE_RULESET_BYTES(0));
    for (int32_t room = 0;;)
    {
        PFW_RULESET* const record = reinterpret_cast<PFW_RULESET*>(block.data());
        const int32_t count = library.kxRuleGetRuleSet(ruleSet.Index, record, room);
        if (count < 0)
            return false;
        if (count <= room)
        {
            ruleSet.Name = KxCommon::Record::WideText(&record->wszName, KXRULE_RULESET_NAME_UNITS);
            ruleSet.Rules.assign(KXRULE_RULES(record), KXRULE_RULES(record) + count);
            return true;
        }
        room = count;
        block.resize(KXRULE_RULESET_BYTES(room));
    }
}

std::vector<MacroRecord> ReadMacros(const KXRULE_LIBRARY& library)
{
    std::vector<unsigned char> block;
    for (int32_t needed = library.kxRuleGetMacro(nullptr, 0); static_cast<size_t>(needed) != block.size();)
    {
        if (needed == INT32_MAX) // or more: the library copies less than that
            throw std::bad_alloc();
        block.resize(static_cast<size_t>(needed));
        needed = library.kxRuleGetMacro(block.data(), needed);
    }
    std::vector<MacroRecord> macros;
    for (size_t at = 0; at < block.size();)
    {
        PFW_MACRO* const record = reinterpret_cast<PFW_MACRO*>(block.data() + at);
        const MACRO_ITEM* const items = KXRULE_MACRO_ITEMS(record);
        const int32_t count = std::max<int32_t>(record->nItemCount, 0);
        macros.push_back({std::string(KxCommon::Record::Text(&record->szName, sizeof record->szName)),
                          std::vector<MACRO_ITEM>(items, items + count)});
        at += KXRULE_MACRO_BYTES(count);
    }
    return macros;
}

} // namespace

Policy ReadStore(const KXRULE_LIBRARY& library, const std::function<void(size_t done, size_t all)>& progress)
{
    Policy policy;
    policy.Active = ReadAll(library.kxRuleGetActiveRuleSet);
    policy.Macros = ReadMacros(library);
    const std::vector<uint16_t> indexes = ReadAll(library.kxRuleGetRuleSetIndex);
    for (size_t i = 0; i < indexes.size(); ++i)
    {
        progress(i, indexes.size());
        RuleSetRecord ruleSet;
        ruleSet.Index = indexes[i];
        if (ReadRuleSet(library, ruleSet))
            policy.RuleSets.push_back(std::move(ruleSet));
    }
    return policy;
}

int32_t LibraryStore::AddRuleSet(uint16_t index, PFW_RULESET* record)
{
    BeginChange();
    if (index != 0 && m_Library.kxRuleGetRuleSet(index, nullptr, 0) >= 0)
        return KXRULE_E_NO_RULESET;
    return m_Library.kxRuleAddRuleSet(index, record);
}

int32_t LibraryStore::DeleteRuleSet(uint16_t index)
{
    BeginChange();
    return m_Library.kxRuleDeleteRuleSet(index);
}

int32_t LibraryStore::AddRule(uint16_t ruleSetIndex, uint16_t ruleIndex, const PFW_RULE* rule)
{
    BeginChange();
    return m_Library.kxRuleAddRule(ruleSetIndex, ruleIndex, rule);
}

int32_t LibraryStore::DeleteRule(uint16_t ruleSetIndex, uint16_t ruleIndex)
{
    BeginChange();
    return m_Library.kxRuleDeleteRule(ruleSetIndex, ruleIndex);
}

int32_t LibraryStore::AddMacro(const PFW_MACRO* record)
{
    BeginChange();
    return m_Library.kxRuleAddMacro(record);
}

int32_t LibraryStore::DeleteMacro()
{
    BeginChange();
    return m_Library.kxRuleDeleteMacro();
}

int32_t LibraryStore::SetActiveRuleSet(const uint16_t* indexes, int32_t count)
{
    BeginChange();
    return m_Library.kxRuleSetActiveRuleSet(indexes, count);
}

void LibraryStore::Write()
{
    Check(m_Library.kxRuleFlush(), "writing the store");
}

} // namespace KxPolicy
