// Access rules are normalised before they are stored; rules of other kinds stay as they are.
#include "rules/Normalise.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "common/srclib/KxComn_Names.h"
#include "common/srclib/KxComn_Record.h"

// Both access layouts have addresses and ports in the same places.
static_assert(offsetof(PFW_RULE, Access.Addr) == offsetof(PFW_RULE, Access2.Addr));
static_assert(offsetof(PFW_RULE, Access.Port) == offsetof(PFW_RULE, Access2.Port));

namespace
{

constexpr KXWCHAR kSystem[] = KXW("SYSTEM"); // compared including its terminator

void OrderRange(RULE_ADDR& item) noexcept
{
    if (item.dwType != KXRULE_ADDR_RANGE)
        return;
    const PFW_ADDR low = item.Addr1;
    const PFW_ADDR high = item.Addr2;
    switch (item.dwFamily)
    {
    case KXRULE_FAMILY_IPV4: // four bytes are exchanged, the other twelve stay where they are
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

template <class Block>
void NormaliseApplication(Block& block) noexcept
{
    block.wszAppName[KXRULE_APP_NAME_UNITS - 1] = 0;
    if (std::memcmp(&block.wszAppName, kSystem, sizeof kSystem) != 0)
        return;
    block.dwSystem = 1;
    std::memset(block.abAppHash, 0, sizeof block.abAppHash);
}

bool IsBlankList(const RULE_PORT& item) noexcept
{
    if (item.nType != KXRULE_PORT_LIST)
        return false;
    const std::string_view list = KxCommon::Record::Text(item.szList, sizeof item.szList);
    return std::all_of(list.begin(), list.end(), [](char byte) { return static_cast<signed char>(byte) <= 32; });
}

} // namespace

namespace Normalise
{

bool IsAccessRule(const PFW_RULE& rule) noexcept
{
    return rule.dwKind == KXRULE_KIND_ACCESS || rule.dwKind == KXRULE_KIND_ACCESS2;
}

void NormaliseRule(PFW_RULE& rule) noexcept
{
    if (!IsAccessRule(rule))
        return;
    for (RULE_ADDR& item : rule.Access.Addr)
        OrderRange(item);
    for (RULE_PORT& item : rule.Access.Port)
        OrderRange(item);
    if (rule.dwKind == KXRULE_KIND_ACCESS)
        NormaliseApplication(rule.Access);
    else
        NormaliseApplication(rule.Access2);
}

bool IsSystemRule(const PFW_RULE& rule) noexcept
{
    const void* const name = rule.dwKind == KXRULE_KIND_ACCESS ? static_cast<const void*>(&rule.Access.wszAppName)
                                                               : static_cast<const void*>(&rule.Access2.wszAppName);
    return IsAccessRule(rule) && std::memcmp(name, kSystem, sizeof kSystem) == 0;
}

bool HasBlankPortList(const PFW_RULE& rule) noexcept
{
    return IsAccessRule(rule) && (IsBlankList(rule.Access.Port[0]) || IsBlankList(rule.Access.Port[1]));
}

} // namespace Normalise
