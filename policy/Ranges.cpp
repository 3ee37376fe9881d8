// What address and port items span, and which rules cover others.
#include "policy/Ranges.h"

#include <algorithm>
#include <cstring>

#include "common/srclib/KxComn_Record.h"
#include "policy/ItemText.h"

namespace KxPolicy
{
namespace
{

using Bytes = std::array<uint8_t, 16>;

Bytes AddressBytes(uint32_t family, const PFW_ADDR& address) noexcept
{
    Bytes bytes{};
    if (family == KXRULE_FAMILY_IPV6)
    {
        std::memcpy(bytes.data(), address.abIPv6, bytes.size());
        return bytes;
    }
    const uint32_t value = address.dwIPv4;
    for (size_t i = 0; i < 4; ++i)
        bytes[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
    return bytes;
}

Bytes PrefixMask(uint32_t length) noexcept
{
    Bytes mask{};
    for (size_t i = 0; i < mask.size() && length > 8 * i; ++i)
        mask[i] = length >= 8 * i + 8 ? 0xFF : static_cast<uint8_t>(0xFF00 >> (length - 8 * i));
    return mask;
}

/// A one after a zero.
bool HasGaps(const Bytes& mask, size_t size) noexcept
{
    bool ended = false;
    for (size_t bit = 0; bit < 8 * size; ++bit)
    {
        const bool one = (mask[bit / 8] >> (7 - bit % 8) & 1) != 0;
        if (one && ended)
            return true;
        ended = !one;
    }
    return false;
}

size_t FamilyBytes(uint32_t family) noexcept
{
    return family == KXRULE_FAMILY_IPV6 ? 16 : 4;
}

bool IsNegated(const RULE_ADDR& item) noexcept
{
    return item.dwNot != 0;
}

bool IsAny(const RULE_ADDR& item) noexcept
{
    return item.dwType == KXRULE_ADDR_ANY;
}

/// Items whose meaning is not the range from their first to their last address.
bool IsRagged(const RULE_ADDR& item) noexcept
{
    return item.dwType == KXRULE_ADDR_MASK &&
           HasGaps(AddressBytes(item.dwFamily, item.Addr2), FamilyBytes(item.dwFamily));
}

bool SameBytes(const void* a, const void* b, size_t size) noexcept
{
    return std::memcmp(a, b, size) == 0;
}

bool IsAny(const RULE_PORT& item) noexcept
{
    return item.nType == KXRULE_PORT_ANY || item.nType == KXRULE_PORT_NONE;
}

/// The ports of an item as a sorted list of ranges that do not touch, negation resolved.
std::vector<PortRange> PortSet(const RULE_PORT& item)
{
    std::vector<PortRange> ranges = RangesOf(item);
    std::sort(ranges.begin(), ranges.end(), [](const PortRange& a, const PortRange& b) { return a.First < b.First; });
    std::vector<PortRange> merged;
    for (const PortRange& range : ranges)
    {
        if (!merged.empty() && range.First <= merged.back().Last + 1)
            merged.back().Last = std::max(merged.back().Last, range.Last);
        else
            merged.push_back(range);
    }
    if (item.dwNot == 0 || item.nType == KXRULE_PORT_LIST || merged.size() != 1)
        return merged;
    std::vector<PortRange> rest;
    if (merged[0].First > 0)
        rest.push_back({0, static_cast<uint16_t>(merged[0].First - 1)});
    if (merged[0].Last < UINT16_MAX)
        rest.push_back({static_cast<uint16_t>(merged[0].Last + 1), UINT16_MAX});
    return rest;
}

bool CoversProtocol(uint32_t outer, uint32_t inner) noexcept
{
    return outer == inner || outer == KXRULE_PROTOCOL_ANY ||
           (outer == KXRULE_PROTOCOL_TCPUDP && (inner == KXRULE_PROTOCOL_TCP || inner == KXRULE_PROTOCOL_UDP));
}

} // namespace

std::optional<AddressRange> RangeOf(const RULE_ADDR& item) noexcept
{
    const uint32_t type = item.dwType;
    const uint32_t family = item.dwFamily;
    const bool known = family == KXRULE_FAMILY_IPV4 || family == KXRULE_FAMILY_IPV6;
    if (type == KXRULE_ADDR_ANY || type == KXRULE_ADDR_NAME || !known)
        return std::nullopt;
    AddressRange range{family, AddressBytes(family, item.Addr1), {}};
    range.Last = range.First;
    if (type == KXRULE_ADDR_RANGE)
    {
        range.Last = AddressBytes(family, item.Addr2);
        if (range.Last < range.First)
            std::swap(range.First, range.Last);
    }
    else if (type == KXRULE_ADDR_MASK || type == KXRULE_ADDR_PREFIX)
    {
        const Bytes mask = type == KXRULE_ADDR_MASK ? AddressBytes(family, item.Addr2) : PrefixMask(item.Addr2.dwIPv4);
        for (size_t i = 0; i < FamilyBytes(family); ++i)
        {
            range.First[i] &= mask[i];
            range.Last[i] = static_cast<uint8_t>(range.First[i] | ~mask[i]);
        }
    }
    return range;
}

std::vector<PortRange> RangesOf(const RULE_PORT& item)
{
    const uint16_t first = item.wPort1;
    const uint16_t last = item.wPort2;
    if (item.nType == KXRULE_PORT_SINGLE)
        return {{first, first}};
    if (item.nType == KXRULE_PORT_RANGE)
        return {{std::min(first, last), std::max(first, last)}};
    std::vector<PortRange> ranges;
    if (item.nType != KXRULE_PORT_LIST)
        return ranges;
    std::string_view list = KxCommon::Record::Text(&item.szList, sizeof item.szList);
    while (!list.empty())
    {
        const size_t end = std::min(list.find(','), list.size());
        RULE_PORT part{};
        std::string why;
        if (!ParsePort(list.substr(0, end), part, why) || part.dwNot != 0 ||
            (part.nType != KXRULE_PORT_SINGLE && part.nType != KXRULE_PORT_RANGE))
            return {};
        ranges.push_back(RangesOf(part).front());
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    return ranges;
}

bool Overlap(const AddressRange& a, const AddressRange& b) noexcept
{
    return a.Family == b.Family && a.First <= b.Last && b.First <= a.Last;
}

bool Covers(const RULE_ADDR& outer, const RULE_ADDR& inner) noexcept
{
    if (IsAny(outer) || SameBytes(&outer, &inner, sizeof outer))
        return true;
    const std::optional<AddressRange> large = RangeOf(outer);
    const std::optional<AddressRange> small = RangeOf(inner);
    if (!large || !small || IsRagged(outer) || IsRagged(inner) || large->Family != small->Family)
        return false;
    const auto contains = [](const AddressRange& a, const AddressRange& b)
    { return a.First <= b.First && b.Last <= a.Last; };
    if (IsNegated(outer))
        return IsNegated(inner) ? contains(*small, *large) : !Overlap(*large, *small);
    return !IsNegated(inner) && contains(*large, *small);
}

bool Covers(const RULE_PORT& outer, const RULE_PORT& inner)
{
    if (IsAny(outer) || SameBytes(&outer, &inner, sizeof outer))
        return true;
    const std::vector<PortRange> large = PortSet(outer);
    const std::vector<PortRange> small = PortSet(inner);
    return !IsAny(inner) && !small.empty() &&
           std::all_of(small.begin(), small.end(),
                       [&large](const PortRange& part)
                       {
                           return std::any_of(large.begin(), large.end(),
                                              [&part](const PortRange& whole)
                                              { return whole.First <= part.First && part.Last <= whole.Last; });
                       });
}

bool Covers(const PFW_RULE& earlier, const PFW_RULE& later)
{
    if (earlier.dwKind != KXRULE_KIND_ACCESS || later.dwKind != KXRULE_KIND_ACCESS || earlier.dwActive == 0 ||
        later.dwActive == 0 || earlier.Access.dwExtFlag != 0 ||
        !CoversProtocol(earlier.Access.dwProtocol, later.Access.dwProtocol))
        return false;
    for (size_t i = 0; i < 2; ++i)
    {
        if (!Covers(earlier.Access.Addr[i], later.Access.Addr[i]) ||
            !Covers(earlier.Access.Port[i], later.Access.Port[i]))
            return false;
    }
    const KxCommon::WideString application =
        KxCommon::Record::WideText(&earlier.Access.wszAppName, KXRULE_APP_NAME_UNITS);
    return application.empty() ||
           KxCommon::String::EqualNoCase(application,
                                         KxCommon::Record::WideText(&later.Access.wszAppName, KXRULE_APP_NAME_UNITS));
}

} // namespace KxPolicy
