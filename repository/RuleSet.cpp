// A rule set in memory; RuleSetFile.cpp reads and writes its file.
#include "repository/RuleSet.h"

#include <algorithm>
#include <cstring>

#include "common/srclib/KxComn_Record.h"

namespace
{

constexpr size_t kNameUnits = KXRULE_RULESET_NAME_UNITS - 1; // without terminator

} // namespace

CRuleSet::CRuleSet(const PFW_RULESET& record, int32_t ruleCount)
    : m_Index(record.wRuleSetIndex), m_Name(KxCommon::Record::WideText(&record.wszName, kNameUnits))
{
    const PFW_RULE* const rules = KXRULE_RULES(&record);
    for (int32_t i = 0; i < ruleCount; ++i)
        PutRule(rules[i]);
}

int32_t CRuleSet::AddRule(uint16_t ruleIndex, const CRule& rule)
{
    if (m_Rules.Size() >= KXRULE_MAX_RULES)
        return KXRULE_E_TOO_MANY_RULES;
    if (m_Rules.Contains(ruleIndex))
        return KXRULE_E_RULE_EXISTS;
    m_Rules.Emplace(ruleIndex, rule).SetIndex(ruleIndex);
    return KXRULE_OK;
}

int32_t CRuleSet::DeleteRule(uint16_t ruleIndex) noexcept
{
    if (ruleIndex == 0)
    {
        m_Rules.Clear();
        return KXRULE_OK;
    }
    return m_Rules.Erase(ruleIndex) ? KXRULE_OK : KXRULE_E_NO_RULE;
}

void CRuleSet::PutRule(const PFW_RULE& record)
{
    m_Rules.ReplaceKeyed(KeyOf, record);
}

void CRuleSet::CopyRecord(PFW_RULESET* record, int32_t maxRules) const noexcept
{
    record->wRuleSetIndex = m_Index;
    std::memset(&record->wszName, 0, sizeof record->wszName);
    std::memcpy(&record->wszName, m_Name.data(), std::min(m_Name.size(), kNameUnits) * sizeof(KXWCHAR));
    record->nRuleCount = RuleCount();
    PFW_RULE* const rules = KXRULE_RULES(record);
    const size_t count = std::min(m_Rules.Size(), static_cast<size_t>(maxRules));
    for (size_t i = 0; i < count; ++i)
        rules[i] = m_Rules.ValueAt(i).Record();
}

int32_t CRuleSet::UpdateHash(const KXWCHAR* applicationPath, const uint8_t* hash, KXRULE_HASH_CALLBACK callback,
                             void* context, std::vector<uint16_t>& changed, CLock& recordLock)
{
    int32_t first = KXRULE_OK;
    for (size_t i = 0; i < m_Rules.Size(); ++i) // by position: a callback that breaks its contract may delete rules
    {
        const int32_t result =
            m_Rules.ValueAt(i).UpdateHash(m_Index, applicationPath, hash, callback, context, changed, recordLock);
        if (first == KXRULE_OK)
            first = result;
    }
    return first;
}
