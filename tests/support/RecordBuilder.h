// Rules, rule sets and macros for tests, in a few words.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string_view>
#include <vector>

#include "api/include/KxPfwRule.h"
#include "common/srclib/KxComn_Names.h"
#include "common/srclib/KxComn_String.h"

namespace Build
{

/// Ip(10, 0, 0, 1): an IPv4 address as the records hold it.
constexpr uint32_t Ip(uint32_t a, uint32_t b, uint32_t c, uint32_t d)
{
    return a << 24 | b << 16 | c << 8 | d;
}

/// Copies narrow text into a field and zeroes the rest of it; text as long as the field has no terminator.
template <size_t size>
void SetText(char (&field)[size], std::string_view text)
{
    std::memset(field, 0, size);
    text.copy(field, size);
}

/// The same for UTF-16 text in a field at any address, units long.
inline void SetText(void* field, size_t units, KxCommon::WideStringView text)
{
    std::memset(field, 0, units * sizeof(KXWCHAR));
    if (!text.empty()) // memcpy takes no null, not even for nothing
        std::memcpy(field, text.data(), (text.size() < units ? text.size() : units) * sizeof(KXWCHAR));
}

// ----------------------------------------------------------------------------------------------------- addresses --

inline RULE_ADDR Address(uint32_t type, uint32_t address1 = 0, uint32_t address2 = 0)
{
    RULE_ADDR item{};
    item.dwType = type;
    item.dwFamily = KXRULE_FAMILY_IPV4;
    item.Addr1.dwIPv4 = address1;
    item.Addr2.dwIPv4 = address2;
    return item;
}
inline RULE_ADDR Single(uint32_t address)
{
    return Address(KXRULE_ADDR_SINGLE, address);
}
inline RULE_ADDR AddressName(std::string_view name)
{
    RULE_ADDR item{};
    item.dwType = KXRULE_ADDR_NAME;
    SetText(item.szName, name);
    return item;
}
/// An IPv6 item; its addresses have a common beginning and end in the given bytes.
inline RULE_ADDR Address6(uint32_t type, uint8_t end1 = 1, uint8_t end2 = 0)
{
    RULE_ADDR item = Address(type);
    item.dwFamily = KXRULE_FAMILY_IPV6;
    item.Addr1.abIPv6[0] = item.Addr2.abIPv6[0] = 0xFE;
    item.Addr1.abIPv6[15] = end1;
    item.Addr2.abIPv6[15] = end2;
    return item;
}

// --------------------------------------------------------------------------------------------------------- ports --

inline RULE_PORT Port(int32_t type, uint16_t port1 = 0, uint16_t port2 = 0)
{
    RULE_PORT item{};
    item.nType = type;
    item.wPort1 = port1;
    item.wPort2 = port2;
    return item;
}
inline RULE_PORT Single(uint16_t port)
{
    return Port(KXRULE_PORT_SINGLE, port);
}
inline RULE_PORT PortRange(uint16_t low, uint16_t high)
{
    return Port(KXRULE_PORT_RANGE, low, high);
}
inline RULE_PORT PortText(int32_t type, std::string_view text)
{
    RULE_PORT item{};
    item.nType = type;
    SetText(item.szList, text);
    return item;
}
inline RULE_PORT PortList(std::string_view list)
{
    return PortText(KXRULE_PORT_LIST, list);
}

template <class Item>
Item Negated(Item item)
{
    item.dwNot = 1;
    return item;
}

// --------------------------------------------------------------------------------------------------------- rules --

/// A rule of that kind with nothing but zeroes in its block.
inline PFW_RULE Rule(uint32_t kind, uint16_t index = 0)
{
    PFW_RULE rule{};
    rule.wRuleIndex = index;
    rule.dwKind = kind;
    return rule;
}

/// An access rule for any TCP traffic; application may be empty.
inline PFW_RULE Access(uint16_t index = 0, KxCommon::WideStringView application = {})
{
    PFW_RULE rule = Rule(KXRULE_KIND_ACCESS, index);
    rule.dwActive = 1;
    rule.Access.dwProtocol = KXRULE_PROTOCOL_TCP;
    rule.Access.Addr[0] = rule.Access.Addr[1] = Address(KXRULE_ADDR_ANY);
    rule.Access.Port[0] = rule.Access.Port[1] = Port(KXRULE_PORT_ANY);
    rule.Access.dwAction = KXRULE_ACTION_ACCEPT;
    SetText(&rule.Access.wszAppName, KXRULE_APP_NAME_UNITS, application);
    return rule;
}

// ------------------------------------------------------------------------------ records of more than one block --

/// A rule set's or macro's record with what follows its head.
template <class Head>
class Block
{
public:
    explicit Block(size_t bytes) : m_Bytes(bytes) {}
    [[nodiscard]] Head* get() noexcept { return reinterpret_cast<Head*>(m_Bytes.data()); }
    [[nodiscard]] const Head& operator*() const noexcept { return *reinterpret_cast<const Head*>(m_Bytes.data()); }
    [[nodiscard]] Head* operator->() noexcept { return get(); }
    [[nodiscard]] const std::vector<unsigned char>& Bytes() const noexcept { return m_Bytes; }

private:
    std::vector<unsigned char> m_Bytes;
};

inline Block<PFW_RULESET> RuleSet(uint16_t index, KxCommon::WideStringView name,
                                  const std::vector<PFW_RULE>& rules = {})
{
    Block<PFW_RULESET> block(KXRULE_RULESET_BYTES(rules.size()));
    block->wRuleSetIndex = index;
    SetText(&block->wszName, KXRULE_RULESET_NAME_UNITS, name);
    block->nRuleCount = static_cast<int32_t>(rules.size());
    for (size_t i = 0; i < rules.size(); ++i)
        KXRULE_RULES(block.get())[i] = rules[i];
    return block;
}

inline MACRO_ITEM Item(const RULE_ADDR& address)
{
    MACRO_ITEM item{};
    item.dwItemType = KXRULE_ITEM_ADDR;
    item.Addr = address;
    return item;
}
inline MACRO_ITEM Item(const RULE_PORT& port)
{
    MACRO_ITEM item{};
    item.dwItemType = KXRULE_ITEM_PORT;
    item.Port = port;
    return item;
}
inline MACRO_ITEM Item(std::string_view text, uint32_t type = KXRULE_ITEM_TEXT)
{
    MACRO_ITEM item{};
    item.dwItemType = type;
    SetText(item.szText, text);
    return item;
}

inline Block<PFW_MACRO> Macro(std::string_view name, const std::vector<MACRO_ITEM>& items)
{
    Block<PFW_MACRO> block(KXRULE_MACRO_BYTES(items.size()));
    SetText(block->szName, name);
    block->nItemCount = static_cast<int32_t>(items.size());
    for (size_t i = 0; i < items.size(); ++i)
        KXRULE_MACRO_ITEMS(block.get())[i] = items[i];
    return block;
}

} // namespace Build
