// A rule's record: taken over, put in order, handed out. The layout is in api/include/KxPfwRule.h.
#include "rules/Rule.h"

#include <algorithm>
#include <cstring>

#include "common/srclib/KxComn_Record.h"
#include "common/srclib/KxComn_Trace.h"
#include "rules/RuleText.h"

// Both access layouts keep addresses and ports in the same places; Normalise and HasBlankPortList rely on it.
static_assert(offsetof(PFW_RULE, Access.Addr) == offsetof(PFW_RULE, Access2.Addr));
static_assert(offsetof(PFW_RULE, Access.Port) == offsetof(PFW_RULE, Access2.Port));

namespace
{

void OrderRange(RULE_ADDR& item) noexcept
{
    if (item.dwType != KXRULE_ADDR_RANGE)
        return;
    const PFW_ADDR low = item.Addr1;
    const PFW_ADDR high = item.Addr2;
    switch (item.dwFamily)
    {
    case KXRULE_FAMILY_IPV4: // four bytes change places, the other twelve are carried where they are
    {
        const uint32_t first = low.dwIPv4, second = high.dwIPv4;
        item.Addr1.dwIPv4 = std::min(first, second);
        item.Addr2.dwIPv4 = std::max(first, second);
        break;
    }
    case KXRULE_FAMILY_IPV6:
        if (std::memcmp(low.abIPv6, high.abIPv6, sizeof low.abIPv6) > 0)
        {
            item.Addr1 = high;
            item.Addr2 = low;
        }
        break;
    }
}

void OrderRange(RULE_PORT& item) noexcept
{
    const uint16_t low = item.wPort1;
    const uint16_t high = item.wPort2;
    if (item.nType == KXRULE_PORT_RANGE && low > high)
    {
        item.wPort1 = high;
        item.wPort2 = low;
    }
}

bool IsBlankList(const RULE_PORT& item) noexcept
{
    if (item.nType != KXRULE_PORT_LIST)
        return false;
    const std::string_view list = KxCommon::Record::Text(item.szList, sizeof item.szList);
    return std::all_of(list.begin(), list.end(), [](char byte) { return static_cast<signed char>(byte) <= 32; });
}

} // namespace

CRule::CRule() noexcept
{
    std::memset(&m_Rule, 0, sizeof m_Rule);
}

CRule::CRule(const PFW_RULE& record) : m_Rule(record)
{
    TakeOver();
}

void CRule::TakeOver()
{
    const uint32_t kind = m_Rule.dwKind;
    if (kind != KXRULE_KIND_ACCESS && kind != KXRULE_KIND_ACCESS2)
        return;
    Normalise();
    static_cast<void>(FillHash()); // a rule whose application cannot be hashed today is still a rule
}

int32_t CRule::GetRule(PFW_RULE* out) const
{
    if (out == nullptr)
    {
        KX_TRACE(KxCommon::kTraceError, "CRule::GetRule(): Pointer to rule structure (parameter) is NULL.");
        return KXRULE_E_NULL_POINTER;
    }
    *out = m_Rule;
    return KXRULE_OK;
}

int32_t CRule::GetRuleString(std::string& line) const
{
    return RuleText::Render(m_Rule, line);
}

bool CRule::HasBlankPortList(const PFW_RULE& record) noexcept
{
    return IsBlankList(record.Access.Port[0]) || IsBlankList(record.Access.Port[1]);
}

void CRule::Normalise() noexcept
{
    for (RULE_ADDR& item : m_Rule.Access.Addr)
        OrderRange(item);
    for (RULE_PORT& item : m_Rule.Access.Port)
        OrderRange(item);
    if (m_Rule.dwKind == KXRULE_KIND_ACCESS)
        m_Rule.Access.wszAppName[KXRULE_APP_NAME_UNITS - 1] = 0;
    else
        m_Rule.Access2.wszAppName[KXRULE_APP_NAME_UNITS - 1] = 0;
}
