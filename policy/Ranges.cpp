// What address and port items mean, as sets.
#include "policy/Ranges.h"

#include "common/srclib/KxComn_Record.h"
#include "policy/ItemText.h"

namespace KxPolicy
{
namespace
{

constexpr uint32_t kMostPorts = UINT16_MAX;
constexpr size_t kMostGapBits = 12; // a mask with this many bits in its gaps means 4096 ranges
constexpr size_t kMostDepth = 8;    // of macros that name other macros

AddressValue ValueOf(uint32_t family, const PFW_ADDR& address) noexcept
{
    if (family == KXRULE_FAMILY_IPV4)
        return {family, 0, address.dwIPv4};
    AddressValue value{family, 0, 0};
    for (size_t i = 0; i < 8; ++i)
    {
        value.High = value.High << 8 | address.abIPv6[i];
        value.Low = value.Low << 8 | address.abIPv6[8 + i];
    }
    return value;
}

Range<AddressValue> Whole(uint32_t family) noexcept
{
    if (family == KXRULE_FAMILY_IPV4)
        return {{family, 0, 0}, {family, 0, UINT32_MAX}};
    return {{family, 0, 0}, {family, UINT64_MAX, UINT64_MAX}};
}

bool HasBit(const AddressValue& value, uint32_t bit) noexcept
{
    return ((bit < 64 ? value.Low : value.High) >> bit % 64 & 1) != 0;
}

void SetBit(AddressValue& value, uint32_t bit) noexcept
{
    (bit < 64 ? value.Low : value.High) |= uint64_t{1} << bit % 64;
}

AddressValue PrefixMask(uint32_t family, uint32_t length) noexcept
{
    AddressValue mask{family, 0, 0};
    const uint32_t bits = family == KXRULE_FAMILY_IPV4 ? 32 : 128;
    for (uint32_t i = 0; i < std::min(length, bits); ++i)
        SetBit(mask, bits - 1 - i);
    return mask;
}

/// The zero bits at the end of a mask make one range, those in its gaps many.
std::optional<AddressSet> Masked(const AddressValue& address, const AddressValue& mask)
{
    const uint32_t bits = address.Family == KXRULE_FAMILY_IPV4 ? 32 : 128;
    uint32_t open = 0;
    while (open < bits && !HasBit(mask, open))
        ++open;
    std::vector<uint32_t> gaps;
    for (uint32_t bit = open; bit < bits; ++bit)
    {
        if (!HasBit(mask, bit))
            gaps.push_back(bit);
    }
    if (gaps.size() > kMostGapBits)
        return std::nullopt;
    AddressSet set;
    for (size_t filling = 0; filling < size_t{1} << gaps.size(); ++filling)
    {
        AddressValue first{address.Family, address.High & mask.High, address.Low & mask.Low};
        for (size_t i = 0; i < gaps.size(); ++i)
        {
            if ((filling >> i & 1) != 0)
                SetBit(first, gaps[i]);
        }
        AddressValue last = first;
        for (uint32_t bit = 0; bit < open; ++bit)
            SetBit(last, bit);
        set.push_back({first, last});
    }
    return set;
}

bool IsNegated(const RULE_ADDR& item) noexcept
{
    return item.dwType != KXRULE_ADDR_ANY && item.dwType != KXRULE_ADDR_NAME && item.dwNot != 0;
}

bool IsNegated(const RULE_PORT& item) noexcept
{
    return (item.nType == KXRULE_PORT_SINGLE || item.nType == KXRULE_PORT_RANGE) && item.dwNot != 0;
}

/// What a negated item is subtracted from.
AddressSet WholeOf(const RULE_ADDR& item)
{
    return {Whole(item.dwFamily)};
}

NumberSet WholeOf(const RULE_PORT&)
{
    return {{0, kMostPorts}};
}

std::optional<NumberSet> ListSet(std::string_view list)
{
    NumberSet ranges;
    while (!list.empty())
    {
        const size_t end = std::min(list.find(','), list.size());
        RULE_PORT part{};
        std::string why;
        if (!ParsePort(list.substr(0, end), part, why) || part.dwNot != 0 ||
            (part.nType != KXRULE_PORT_SINGLE && part.nType != KXRULE_PORT_RANGE))
            return std::nullopt;
        const NumberSet set = *SetOf(part);
        ranges.insert(ranges.end(), set.begin(), set.end());
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    return ranges.empty() ? std::nullopt : std::optional(Merged(std::move(ranges)));
}

std::optional<AddressSet> WithoutNegation(const RULE_ADDR& item)
{
    const uint32_t type = item.dwType;
    const uint32_t family = item.dwFamily;
    if (type == KXRULE_ADDR_ANY)
        return EveryAddress();
    if (type == KXRULE_ADDR_NAME || (family != KXRULE_FAMILY_IPV4 && family != KXRULE_FAMILY_IPV6))
        return std::nullopt;
    const AddressValue first = ValueOf(family, item.Addr1);
    const AddressValue second = ValueOf(family, item.Addr2);
    switch (type)
    {
    case KXRULE_ADDR_MASK:
        return Masked(first, second);
    case KXRULE_ADDR_PREFIX:
        return Masked(first, PrefixMask(family, item.Addr2.dwIPv4));
    case KXRULE_ADDR_RANGE:
        return AddressSet{{std::min(first, second), std::max(first, second)}};
    default:
        return AddressSet{{first, first}};
    }
}

std::optional<NumberSet> WithoutNegation(const RULE_PORT& item)
{
    const uint32_t first = item.wPort1;
    const uint32_t last = item.wPort2;
    switch (item.nType)
    {
    case KXRULE_PORT_SINGLE:
        return NumberSet{{first, first}};
    case KXRULE_PORT_RANGE:
        return NumberSet{{std::min(first, last), std::max(first, last)}};
    case KXRULE_PORT_LIST:
        return ListSet(KxCommon::Record::Text(&item.szList, sizeof item.szList));
    case KXRULE_PORT_NONE:
    case KXRULE_PORT_ANY:
        return WholeOf(item);
    default:
        return std::nullopt;
    }
}

template <class Item>
auto ItemSet(const Item& item) -> decltype(WithoutNegation(item))
{
    auto set = WithoutNegation(item);
    return set && IsNegated(item) ? Difference(WholeOf(item), *set) : set;
}

std::string_view NameOf(const RULE_ADDR& item) noexcept
{
    return item.dwType == KXRULE_ADDR_NAME ? KxCommon::Record::Text(&item.szName, sizeof item.szName)
                                           : std::string_view();
}

std::string_view NameOf(const RULE_PORT& item) noexcept
{
    return item.nType == KXRULE_PORT_NAME ? KxCommon::Record::Text(&item.szList, sizeof item.szList)
                                          : std::string_view();
}

bool Take(const MACRO_ITEM& from, RULE_ADDR& item) noexcept
{
    item = from.Addr;
    return from.dwItemType == KXRULE_ITEM_ADDR;
}

bool Take(const MACRO_ITEM& from, RULE_PORT& item) noexcept
{
    item = from.Port;
    return from.dwItemType == KXRULE_ITEM_PORT;
}

} // namespace

AddressSet EveryAddress()
{
    return {Whole(KXRULE_FAMILY_IPV4), Whole(KXRULE_FAMILY_IPV6)};
}

NumberSet EveryNumber()
{
    return {{0, UINT32_MAX}};
}

std::optional<AddressSet> SetOf(const RULE_ADDR& item)
{
    return ItemSet(item);
}

std::optional<NumberSet> SetOf(const RULE_PORT& item)
{
    return ItemSet(item);
}

Names::Names(const Policy& policy)
{
    if (!policy.Macros)
        return;
    for (const MacroRecord& macro : *policy.Macros)
        m_Macros[macro.Name].push_back(&macro);
}

template <class Item>
auto Names::SetAt(const Item& item, size_t depth) const -> decltype(KxPolicy::SetOf(item))
{
    const std::string_view name = NameOf(item);
    if (name.empty())
        return KxPolicy::SetOf(item);
    const auto named = m_Macros.find(name);
    if (named == m_Macros.end() || depth == kMostDepth)
        return std::nullopt;
    std::decay_t<decltype(*KxPolicy::SetOf(item))> with, without, whole;
    const auto add = [](auto& to, const auto& set) { to.insert(to.end(), set.begin(), set.end()); };
    for (const MacroRecord* const macro : named->second)
    {
        for (const MACRO_ITEM& entry : macro->Items)
        {
            Item part;
            if (!Take(entry, part))
                continue;
            const bool isNegated = IsNegated(part);
            const auto set = isNegated ? WithoutNegation(part) : SetAt(part, depth + 1);
            if (!set)
                return std::nullopt;
            add(isNegated ? without : with, *set);
            if (isNegated)
                add(whole, WholeOf(part));
        }
    }
    if (with.empty() && without.empty())
        return std::nullopt;
    return Difference(Merged(with.empty() ? whole : with), Merged(without));
}

std::optional<AddressSet> Names::SetOf(const RULE_ADDR& item) const
{
    return SetAt(item, 0);
}

std::optional<NumberSet> Names::SetOf(const RULE_PORT& item) const
{
    return SetAt(item, 0);
}

} // namespace KxPolicy
