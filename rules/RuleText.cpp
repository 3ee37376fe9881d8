// Rules, address items and port items as text. A value without a keyword, and an item that cannot be shown, become
// empty; the separators around them stay.
#include "rules/RuleText.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "common/srclib/KxComn_Record.h"

namespace
{

using KxCommon::Record::Text;
using RuleText::Line;

std::string_view Protocol(uint32_t value) noexcept
{
    switch (value)
    {
    case KXRULE_PROTOCOL_ANY:
        return "ANY";
    case KXRULE_PROTOCOL_ICMP:
        return "ICMP";
    case KXRULE_PROTOCOL_TCP:
        return "TCP";
    case KXRULE_PROTOCOL_UDP:
        return "UDP";
    case KXRULE_PROTOCOL_TCPUDP:
        return "TCPUDP";
    }
    return {};
}

// The other keywords are numbered from 1 without gaps.
template <size_t count>
std::string_view Keyword(const std::string_view (&words)[count], uint32_t value) noexcept
{
    return value - 1 < count ? words[value - 1] : std::string_view();
}

constexpr std::string_view kActions[] = {"ACCEPT", "DROP", "REJECT", "RESET", "ASK"};
constexpr std::string_view kNatTypes[] = {"SNAT", "MASQ", "DNAT", "RDIR"};
constexpr std::string_view kAppProtocols[] = {"HTTP", "SMTP"};
constexpr std::string_view kDirections[] = {"IN", "OUT", "ANY"};

static_assert(KXRULE_ACTION_ACCEPT == 1 && KXRULE_ACTION_DROP == 2 && KXRULE_ACTION_REJECT == 3 &&
              KXRULE_ACTION_RESET == 4 && KXRULE_ACTION_ASK == 5);
static_assert(KXRULE_NAT_SNAT == 1 && KXRULE_NAT_MASQ == 2 && KXRULE_NAT_DNAT == 3 && KXRULE_NAT_RDIR == 4);
static_assert(KXRULE_APP_HTTP == 1 && KXRULE_APP_SMTP == 2);
static_assert(KXRULE_DIRECTION_IN == 1 && KXRULE_DIRECTION_OUT == 2 && KXRULE_DIRECTION_ANY == 3);

// address is in host byte order: its highest byte comes first.
void AppendDotted(Line& text, uint32_t address) noexcept
{
    for (int shift = 24; shift >= 0; shift -= 8)
    {
        text.AppendNumber(address >> shift & 0xFF);
        if (shift > 0)
            text += '.';
    }
}

template <size_t count>
void AppendAddresses(Line& text, const RULE_ADDR (&items)[count]) noexcept
{
    for (const RULE_ADDR& item : items)
    {
        RuleText::AppendAddress(text, item);
        text += ',';
    }
}

template <size_t count>
void AppendPorts(Line& text, const RULE_PORT (&items)[count]) noexcept
{
    for (const RULE_PORT& item : items)
    {
        RuleText::AppendPort(text, item);
        text += ',';
    }
}

template <class Block>
void AppendExtension(Line& text, const Block& block) noexcept
{
    text += ',';
    text.AppendNumber(block.dwExtValue);
    text += ':';
    text.AppendNumber(block.wExtValue);
    text += ':';
    text += Text(block.szExtText, sizeof block.szExtText);
}

// Protocol, addresses and ports: the beginning of every line except a stream's.
template <class Block>
void AppendTraffic(Line& text, const Block& block) noexcept
{
    text += Protocol(block.dwProtocol);
    text += ',';
    AppendAddresses(text, block.Addr);
    AppendPorts(text, block.Port);
}

void Append(Line& text, const PFW_ACCESS& rule) noexcept
{
    text += "ACCESS,";
    AppendTraffic(text, rule);
    text += Keyword(kActions, rule.dwAction);
    if (rule.dwExtFlag != 0)
        AppendExtension(text, rule);
}

void Append(Line& text, const PFW_NAT& rule) noexcept
{
    text += "NAT,";
    AppendTraffic(text, rule);
    text += Keyword(kNatTypes, rule.dwNatType);
}

// Array elements are passed by value, without even a reference to the array, which may be at an odd address.
void Append(Line& text, const PFW_THROTTLE& rule) noexcept
{
    text += "THROTTLE,";
    AppendTraffic(text, rule);
    for (size_t i = 0; i < std::extent_v<decltype(rule.wLimit)>; ++i)
    {
        if (i > 0)
            text += ',';
        text.AppendNumber(uint16_t{rule.wLimit[i]});
    }
    if (rule.dwExtFlag != 0)
        AppendExtension(text, rule);
}

void Append(Line& text, const PFW_STREAM& rule) noexcept
{
    text += "STREAM,";
    text += Keyword(kAppProtocols, rule.dwAppProtocol);
    text += ',';
    AppendAddresses(text, rule.Addr);
    text.AppendNumber(rule.dwStreamParam);
    text += ',';
    text += Keyword(kActions, rule.dwAction);
    AppendExtension(text, rule);
    text += ',';
    text += Text(rule.szStreamText, sizeof rule.szStreamText);
}

void Append(Line& text, const PFW_GENSTREAM& rule) noexcept
{
    text += "GENSTREAM,";
    AppendTraffic(text, rule);
    text += Keyword(kDirections, rule.dwDirection);
    text += ',';
    for (size_t i = 0; i < std::extent_v<decltype(rule.dwParam)>; ++i)
    {
        text.AppendNumber(uint32_t{rule.dwParam[i]});
        text += ',';
    }
    text += Keyword(kActions, rule.dwAction);
    text += ',';
    text.AppendNumber(rule.dwParam3);
    AppendExtension(text, rule);
    if (rule.szStreamText[0] != 0 || rule.szStreamText[1] != 0) // kept: the second byte alone adds the comma too
    {
        text += ',';
        text += Text(rule.szStreamText, sizeof rule.szStreamText);
    }
}

} // namespace

namespace RuleText
{

void AppendAddress(Line& text, const RULE_ADDR& item) noexcept
{
    const uint32_t type = item.dwType;
    if (type == KXRULE_ADDR_ANY)
        return;
    if (type == KXRULE_ADDR_NAME)
    {
        text += Text(item.szName, sizeof item.szName);
        return;
    }
    if (item.dwFamily != KXRULE_FAMILY_IPV4)
        return;
    if (item.dwNot != 0)
        text += '!';
    AppendDotted(text, item.Addr1.dwIPv4);
    switch (type)
    {
    case KXRULE_ADDR_MASK:
        text += '/';
        AppendDotted(text, item.Addr2.dwIPv4);
        break;
    case KXRULE_ADDR_PREFIX:
        text += '/';
        text.AppendNumber(item.Addr2.dwIPv4);
        break;
    case KXRULE_ADDR_RANGE:
        text += ':';
        AppendDotted(text, item.Addr2.dwIPv4);
        break;
    }
}

void AppendPort(Line& text, const RULE_PORT& item) noexcept
{
    const int32_t type = item.nType;
    switch (type)
    {
    case KXRULE_PORT_SINGLE:
    case KXRULE_PORT_RANGE:
        if (item.dwNot != 0)
            text += '!';
        text.AppendNumber(item.wPort1);
        if (type == KXRULE_PORT_RANGE)
        {
            text += ':';
            text.AppendNumber(item.wPort2);
        }
        break;
    case KXRULE_PORT_LIST: // in the line, hyphens and commas have other meanings
        for (const char byte : Text(item.szList, sizeof item.szList))
            text += byte == '-' ? ':' : byte == ',' ? '|' : byte;
        break;
    case KXRULE_PORT_NAME:
        text += Text(item.szList, sizeof item.szList);
        break;
    }
}

int32_t Render(const PFW_RULE& rule, Line& line) noexcept
{
    const uint32_t kind = rule.dwKind;
    if (kind < KXRULE_KIND_ACCESS || kind > KXRULE_KIND_GENSTREAM)
        return KXRULE_E_RULE_TEXT;
    line.Clear();
    switch (kind)
    {
    case KXRULE_KIND_ACCESS:
        Append(line, rule.Access);
        break;
    case KXRULE_KIND_NAT:
        Append(line, rule.Nat);
        break;
    case KXRULE_KIND_THROTTLE:
        Append(line, rule.Throttle);
        break;
    case KXRULE_KIND_STREAM:
        Append(line, rule.Stream);
        break;
    case KXRULE_KIND_GENSTREAM:
        Append(line, rule.GenStream);
        break;
    }
    return KXRULE_OK;
}

} // namespace RuleText
