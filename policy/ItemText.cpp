// Address and port items as text, both ways.
#include "policy/ItemText.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "policy/RecordText.h"

namespace KxPolicy
{
namespace
{

using IPv6 = std::array<uint8_t, 16>;

constexpr std::string_view kListPrefix = "list:";

IPv6 LoadIPv6(const PFW_ADDR& address) noexcept
{
    IPv6 bytes;
    std::memcpy(bytes.data(), address.abIPv6, bytes.size());
    return bytes;
}

void StoreIPv6(PFW_ADDR& address, const IPv6& bytes) noexcept
{
    std::memcpy(address.abIPv6, bytes.data(), bytes.size());
}

std::string_view CutFront(std::string_view& text, char separator) noexcept
{
    const size_t end = std::min(text.find(separator), text.size());
    const std::string_view front = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return front;
}

/// Groups of hexadecimal digits between colons; a dotted IPv4 address may stand for the last two. The empty text, as at
/// either side of "::", has no groups. False for anything else, and for more groups than there is room for.
bool ParseGroups(std::string_view text, size_t room, std::array<uint16_t, 8>& groups, size_t& count) noexcept
{
    count = 0;
    while (!text.empty())
    {
        const bool last = text.find(':') == std::string_view::npos;
        const bool trailingColon = text.back() == ':';
        const std::string_view group = CutFront(text, ':');
        uint32_t dotted = 0;
        if (last && ParseIPv4(group, dotted))
        {
            if (count + 2 > room)
                return false;
            groups[count++] = static_cast<uint16_t>(dotted >> 16);
            groups[count++] = static_cast<uint16_t>(dotted);
            return true;
        }
        if (group.empty() || group.size() > 4 || count + 1 > room || (trailingColon && text.empty()))
            return false;
        uint32_t value = 0;
        for (const char c : group)
        {
            const char lower = static_cast<char>(c >= 'A' && c <= 'F' ? c + 32 : c);
            const bool digit = lower >= '0' && lower <= '9';
            if (!digit && !(lower >= 'a' && lower <= 'f'))
                return false;
            value = value * 16 + static_cast<uint32_t>(digit ? lower - '0' : lower - 'a' + 10);
        }
        groups[count++] = static_cast<uint16_t>(value);
    }
    return true;
}

/// One address of either family.
struct Address
{
    uint32_t Family = 0;
    PFW_ADDR Value{};
};

std::optional<Address> ParseOne(std::string_view text) noexcept
{
    Address address;
    uint32_t v4 = 0;
    IPv6 v6;
    if (ParseIPv4(text, v4))
    {
        address.Family = KXRULE_FAMILY_IPV4;
        address.Value.dwIPv4 = v4;
        return address;
    }
    if (ParseIPv6(text, v6))
    {
        address.Family = KXRULE_FAMILY_IPV6;
        StoreIPv6(address.Value, v6);
        return address;
    }
    return std::nullopt;
}

std::string OneText(uint32_t family, const PFW_ADDR& address)
{
    return family == KXRULE_FAMILY_IPV6 ? IPv6Text(LoadIPv6(address)) : IPv4Text(address.dwIPv4);
}

bool ParseRange(std::string_view text, uint16_t& low, uint16_t& high) noexcept
{
    uint32_t first = 0;
    uint32_t last = 0;
    const size_t hyphen = text.find('-');
    if (hyphen == std::string_view::npos || !ParseNumber(text.substr(0, hyphen), 0xFFFF, first) ||
        !ParseNumber(text.substr(hyphen + 1), 0xFFFF, last))
        return false;
    low = static_cast<uint16_t>(first);
    high = static_cast<uint16_t>(last);
    return true;
}

std::string PrefixText(uint32_t family, uint32_t length)
{
    return std::to_string(std::min<uint32_t>(length, family == KXRULE_FAMILY_IPV4 ? 32 : 128));
}

/// True for lists that need no prefix to be recognised as such: two or more ports or ranges.
bool IsPlainList(std::string_view text) noexcept
{
    if (text.find(',') == std::string_view::npos || text.back() == ',')
        return false;
    while (!text.empty())
    {
        const std::string_view item = CutFront(text, ',');
        uint32_t port = 0;
        uint16_t low = 0;
        uint16_t high = 0;
        if (!ParseNumber(item, 0xFFFF, port) && !ParseRange(item, low, high))
            return false;
    }
    return true;
}

} // namespace

bool ParseNumber(std::string_view text, uint32_t most, uint32_t& number) noexcept
{
    if (text.empty() || text.size() > 10)
        return false;
    uint64_t value = 0;
    for (const char c : text)
    {
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + static_cast<uint64_t>(c - '0');
    }
    if (value > most)
        return false;
    number = static_cast<uint32_t>(value);
    return true;
}

bool ParseIPv4(std::string_view text, uint32_t& address) noexcept
{
    uint32_t value = 0;
    if (std::count(text.begin(), text.end(), '.') != 3)
        return false;
    for (int i = 0; i < 4; ++i)
    {
        const std::string_view part = CutFront(text, '.');
        uint32_t byte = 0;
        // A leading zero means octal to some readers and nothing to others.
        if (!ParseNumber(part, 255, byte) || (part.size() > 1 && part.front() == '0'))
            return false;
        value = value << 8 | byte;
    }
    address = value;
    return true;
}

std::string IPv4Text(uint32_t address)
{
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8)
    {
        text += std::to_string((address >> shift) & 0xFF);
        if (shift > 0)
            text += '.';
    }
    return text;
}

bool ParseIPv6(std::string_view text, IPv6& address) noexcept
{
    std::array<uint16_t, 8> front{};
    std::array<uint16_t, 8> back{};
    size_t frontCount = 0;
    size_t backCount = 0;
    const size_t gap = text.find("::");
    if (gap == std::string_view::npos)
    {
        if (!ParseGroups(text, 8, front, frontCount) || frontCount != 8)
            return false;
    }
    else if (text.substr(0, gap).find('.') != std::string_view::npos || text.substr(gap + 2).substr(0, 1) == ":" ||
             !ParseGroups(text.substr(0, gap), 7, front, frontCount) ||
             !ParseGroups(text.substr(gap + 2), 7 - frontCount, back, backCount))
    {
        return false;
    }
    std::copy_n(back.begin(), backCount, front.end() - static_cast<std::ptrdiff_t>(backCount));
    for (size_t i = 0; i < 8; ++i)
    {
        address[2 * i] = static_cast<uint8_t>(front[i] >> 8);
        address[2 * i + 1] = static_cast<uint8_t>(front[i]);
    }
    return true;
}

std::string IPv6Text(const IPv6& address)
{
    std::array<unsigned, 8> groups;
    for (size_t i = 0; i < 8; ++i)
        groups[i] = address[2 * i] * 256u + address[2 * i + 1];
    const bool mapped = IsZero(address.data(), 10) && groups[5] == 0xFFFF;
    size_t gap = 8; // the longest run of two or more zero groups, the first if there are several
    size_t gapLength = 1;
    for (size_t i = 0; i < 8; ++i)
    {
        size_t length = 0;
        while (i + length < 8 && groups[i + length] == 0)
            ++length;
        if (length > gapLength)
        {
            gap = i;
            gapLength = length;
        }
    }
    static constexpr char kDigits[] = "0123456789abcdef";
    const size_t end = mapped ? 6 : 8;
    std::string text;
    for (size_t i = 0; i < end; ++i)
    {
        if (i == gap)
        {
            text += "::";
            i += gapLength - 1;
            continue;
        }
        if (!text.empty() && text.back() != ':')
            text += ':';
        for (int shift = 12, shown = 0; shift >= 0; shift -= 4)
        {
            const unsigned digit = groups[i] >> shift & 15;
            if (digit != 0 || shown > 0 || shift == 0)
                text += kDigits[(++shown, digit)];
        }
    }
    if (mapped)
        text += ":" + IPv4Text(groups[6] << 16 | groups[7]);
    return text;
}

std::string AddressText(const RULE_ADDR& item)
{
    const uint32_t type = item.dwType;
    const uint32_t family = item.dwFamily;
    if (IsZero(&item, sizeof item))
        return "none";
    if (type == KXRULE_ADDR_NAME)
        return "@" + NarrowFieldText(item.szName, sizeof item.szName);
    if (type == KXRULE_ADDR_ANY || (family != KXRULE_FAMILY_IPV4 && family != KXRULE_FAMILY_IPV6))
        return "any";
    std::string text = (item.dwNot != 0 ? "!" : "") + OneText(family, item.Addr1);
    if (type == KXRULE_ADDR_MASK)
        text += "/" + OneText(family, item.Addr2);
    else if (type == KXRULE_ADDR_PREFIX)
        text += "/" + PrefixText(family, item.Addr2.dwIPv4);
    else if (type == KXRULE_ADDR_RANGE)
        text += "-" + OneText(family, item.Addr2);
    return text;
}

bool ParseAddress(std::string_view text, RULE_ADDR& item, std::string& why)
{
    why.clear();
    RULE_ADDR parsed{};
    if (text == "any" || text == "none")
    {
        parsed.dwType = text == "any" ? KXRULE_ADDR_ANY : 0;
        item = parsed;
        return true;
    }
    if (!text.empty() && text.front() == '@')
    {
        parsed.dwType = KXRULE_ADDR_NAME;
        if (!PutNarrow(parsed.szName, sizeof parsed.szName, text.substr(1), why))
            return false;
        item = parsed;
        return true;
    }
    if (!text.empty() && text.front() == '!')
    {
        parsed.dwNot = 1;
        text.remove_prefix(1);
    }
    const size_t separator = std::min(text.find_first_of("/-"), text.size());
    const std::optional<Address> first = ParseOne(text.substr(0, separator));
    if (!first)
    {
        why = "\"" + std::string(text.substr(0, separator)) + "\" is not an address";
        return false;
    }
    parsed.dwType = KXRULE_ADDR_SINGLE;
    parsed.dwFamily = first->Family;
    parsed.Addr1 = first->Value;
    if (separator < text.size())
    {
        const std::string_view rest = text.substr(separator + 1);
        const uint32_t most = first->Family == KXRULE_FAMILY_IPV4 ? 32 : 128;
        const std::optional<Address> second = ParseOne(rest);
        uint32_t prefix = 0;
        if (text[separator] == '/' && ParseNumber(rest, most, prefix))
        {
            parsed.dwType = KXRULE_ADDR_PREFIX;
            parsed.Addr2.dwIPv4 = prefix;
        }
        else if (second && second->Family == first->Family)
        {
            parsed.dwType = text[separator] == '/' ? KXRULE_ADDR_MASK : KXRULE_ADDR_RANGE;
            parsed.Addr2 = second->Value;
        }
        else
        {
            why = "after " + std::string(1, text[separator]) + " there must be " +
                  (text[separator] == '-' ? "an address"
                                          : "a prefix length from 0 to " + std::to_string(most) + " or a mask") +
                  " of the same family";
            return false;
        }
    }
    item = parsed;
    return true;
}

std::string PortText(const RULE_PORT& item)
{
    const std::string negation = item.dwNot != 0 ? "!" : "";
    switch (item.nType)
    {
    case KXRULE_PORT_ANY:
        return "any";
    case KXRULE_PORT_SINGLE:
        return negation + std::to_string(item.wPort1);
    case KXRULE_PORT_RANGE:
        return negation + std::to_string(item.wPort1) + "-" + std::to_string(item.wPort2);
    case KXRULE_PORT_LIST:
    {
        const std::string list = NarrowFieldText(item.szList, sizeof item.szList);
        return IsPlainList(list) ? list : std::string(kListPrefix) + list;
    }
    case KXRULE_PORT_NAME:
        return "@" + NarrowFieldText(item.szList, sizeof item.szList);
    default:
        return "none";
    }
}

bool ParsePort(std::string_view text, RULE_PORT& item, std::string& why)
{
    why.clear();
    RULE_PORT parsed{};
    const bool list = text.substr(0, kListPrefix.size()) == kListPrefix;
    if (text == "none" || text == "any")
    {
        parsed.nType = text == "any" ? KXRULE_PORT_ANY : KXRULE_PORT_NONE;
    }
    else if (list || (!text.empty() && text.front() == '@') || IsPlainList(text))
    {
        parsed.nType = !text.empty() && text.front() == '@' ? KXRULE_PORT_NAME : KXRULE_PORT_LIST;
        text.remove_prefix(list ? kListPrefix.size() : parsed.nType == KXRULE_PORT_NAME ? 1 : 0);
        if (!PutNarrow(parsed.szList, sizeof parsed.szList, text, why))
            return false;
    }
    else
    {
        const bool negated = !text.empty() && text.front() == '!';
        const std::string_view number = text.substr(negated ? 1 : 0);
        uint32_t port = 0;
        uint16_t low = 0;
        uint16_t high = 0;
        if (ParseNumber(number, 0xFFFF, port))
        {
            parsed.nType = KXRULE_PORT_SINGLE;
            parsed.wPort1 = static_cast<uint16_t>(port);
        }
        else if (ParseRange(number, low, high))
        {
            parsed.nType = KXRULE_PORT_RANGE;
            parsed.wPort1 = low;
            parsed.wPort2 = high;
        }
        else
        {
            why = "\"" + std::string(text) + "\" is none of these" +
                  (negated && IsPlainList(number) ? " (a list cannot be negated)" : "");
            return false;
        }
        parsed.dwNot = negated ? 1 : 0;
    }
    item = parsed;
    return true;
}

} // namespace KxPolicy
