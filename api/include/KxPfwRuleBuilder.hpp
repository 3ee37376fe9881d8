/*
 * KxPfwRuleBuilder.hpp: rules and macros put together in C++20. Most programs include KxPfwRule.hpp, which brings it.
 *
 *     const PFW_RULE web = kxrule::access().tcp().from("10.0.0.0/8").port("80,443").description(L"Web").accept();
 *     const auto servers = kxrule::Macro("servers").add(kxrule::Address("10.0.0.1")).add(kxrule::Port("80"));
 *
 * Literals are checked by the compiler: a wrong address or port does not build. Text that is known at run time goes
 * through Address::parse and Port::parse. Nothing here calls the library or throws.
 */
#ifndef KXPFWRULEBUILDER_HPP
#define KXPFWRULEBUILDER_HPP

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <vector>

#include "KxPfwRule.h"

namespace kxrule
{

using WideView = std::basic_string_view<KXWCHAR>;

namespace detail
{

/// Digits only, at most `most`.
constexpr std::optional<uint32_t> number(std::string_view text, uint32_t most, uint32_t base = 10)
{
    uint64_t value = 0;
    if (text.empty() || text.size() > 10)
        return std::nullopt;
    for (const char c : text)
    {
        const char lower = c >= 'A' && c <= 'F' ? static_cast<char>(c + 32) : c;
        const uint32_t digit = lower >= '0' && lower <= '9'   ? static_cast<uint32_t>(lower - '0')
                               : lower >= 'a' && lower <= 'f' ? static_cast<uint32_t>(lower - 'a' + 10)
                                                              : 16;
        if (digit >= base)
            return std::nullopt;
        value = value * base + digit;
    }
    return value > most ? std::nullopt : std::optional(static_cast<uint32_t>(value));
}

/// The text up to the separator; the rest, without it, stays.
constexpr std::string_view cut(std::string_view& text, char separator)
{
    const size_t end = std::min(text.find(separator), text.size());
    const std::string_view front = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return front;
}

constexpr bool negated(std::string_view& text)
{
    const bool negated = text.starts_with('!');
    text.remove_prefix(negated ? 1 : 0);
    return negated;
}

/// Copies what fits before a terminator and zeroes the rest. (An address without a type: the fields are packed.)
template <class Unit>
void fill(void* field, size_t size, std::basic_string_view<Unit> text)
{
    const size_t used = std::min(text.size() * sizeof(Unit), size - sizeof(Unit));
    std::memset(field, 0, size);
    std::memcpy(field, text.data(), used);
}

} // namespace detail

/// An address item: any, 10.0.0.1, 10.0.0.0/8, 10.0.0.0/255.0.0.0, 10.0.0.1-10.0.0.9, fe80::1, fe80::/10, @name, all
/// but any and @name also with "!" in front.
class Address
{
public:
    consteval Address(const char* literal) : Address(parse(literal).value()) {} // implicit: from("10.0.0.0/8")

    static constexpr std::optional<Address> parse(std::string_view text)
    {
        Address item;
        if (text == "any")
            return item;
        if (text.starts_with('@') && text.size() > 1 && text.size() <= KXRULE_ADDR_NAME_BYTES)
        {
            item.m_Type = KXRULE_ADDR_NAME;
            std::copy(text.begin() + 1, text.end(), item.m_Name.begin());
            return item;
        }
        item.m_Not = detail::negated(text) ? 1 : 0;
        const size_t mark = std::min(text.find_first_of("/-"), text.size());
        const std::string_view second = text.substr(std::min(mark + 1, text.size()));
        if (!parseOne(text.substr(0, mark), item.m_Family, item.m_First))
            return std::nullopt;
        uint32_t family = item.m_Family;
        item.m_Type = KXRULE_ADDR_SINGLE;
        if (mark == text.size())
            return item;
        if (text[mark] == '-')
            item.m_Type = KXRULE_ADDR_RANGE;
        else if (const auto length = detail::number(second, family == KXRULE_FAMILY_IPV4 ? 32 : 128))
        {
            item.m_Type = KXRULE_ADDR_PREFIX;
            item.m_Second = split(*length);
            return item;
        }
        else
            item.m_Type = KXRULE_ADDR_MASK;
        return parseOne(second, family, item.m_Second) && family == item.m_Family ? std::optional(item) : std::nullopt;
    }

    [[nodiscard]] RULE_ADDR record() const
    {
        RULE_ADDR record = {};
        record.dwType = m_Type;
        if (m_Type == KXRULE_ADDR_NAME)
        {
            std::memcpy(record.szName, m_Name.data(), m_Name.size());
            return record;
        }
        record.dwNot = m_Not;
        record.dwFamily = m_Family;
        std::memcpy(&record.Addr1, m_First.data(), m_First.size());
        std::memcpy(&record.Addr2, m_Second.data(), m_Second.size());
        return record;
    }

private:
    using Bytes = std::array<uint8_t, 16>;

    constexpr Address() = default;

    /// A number in the order of the record's bytes.
    static constexpr Bytes split(uint32_t value)
    {
        return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value >> 16),
                static_cast<uint8_t>(value >> 24)};
    }

    static constexpr bool parseOne(std::string_view text, uint32_t& family, Bytes& bytes)
    {
        if (text.find(':') != std::string_view::npos)
        {
            family = KXRULE_FAMILY_IPV6;
            return parseIPv6(text, bytes);
        }
        family = KXRULE_FAMILY_IPV4;
        const auto address = parseIPv4(text);
        bytes = split(address.value_or(0));
        return address.has_value();
    }

    static constexpr std::optional<uint32_t> parseIPv4(std::string_view text)
    {
        uint32_t address = 0;
        if (std::count(text.begin(), text.end(), '.') != 3)
            return std::nullopt;
        for (int i = 0; i < 4; ++i)
        {
            const auto part = detail::number(detail::cut(text, '.'), 255);
            if (!part)
                return std::nullopt;
            address = address << 8 | *part;
        }
        return address;
    }

    /// Groups from the front up to "::", then the rest from the back.
    static constexpr bool parseIPv6(std::string_view text, Bytes& bytes)
    {
        const size_t gap = text.find("::");
        if (gap == std::string_view::npos)
            return parseGroups(text, bytes, true) == 16;
        Bytes tail = {};
        const size_t front = gap == 0 ? 0 : parseGroups(text.substr(0, gap), bytes, false);
        const size_t back = gap + 2 == text.size() ? 0 : parseGroups(text.substr(gap + 2), tail, true);
        if ((gap > 0 && front == 0) || (gap + 2 < text.size() && back == 0) || front + back > 14)
            return false;
        std::copy_n(tail.begin(), back, bytes.end() - static_cast<ptrdiff_t>(back));
        return true;
    }

    /// The bytes that the groups fill; 0 for anything else. A dotted address may stand for the last two groups.
    static constexpr size_t parseGroups(std::string_view text, Bytes& bytes, bool end)
    {
        size_t count = 0;
        while (true)
        {
            const bool last = text.find(':') == std::string_view::npos;
            const std::string_view part = detail::cut(text, ':');
            const auto dotted = last && end ? parseIPv4(part) : std::nullopt;
            const auto group = part.size() > 4 ? std::nullopt : detail::number(part, 0xFFFF, 16);
            if ((!dotted && !group) || count + (dotted ? 4 : 2) > bytes.size())
                return 0;
            const uint32_t value = dotted ? *dotted : *group << 16;
            for (int shift = 24; shift >= (dotted ? 0 : 16); shift -= 8)
                bytes[count++] = static_cast<uint8_t>(value >> shift);
            if (last)
                return count;
        }
    }

    uint32_t m_Type = KXRULE_ADDR_ANY;
    uint32_t m_Not = 0;
    uint32_t m_Family = 0;
    Bytes m_First = {};
    Bytes m_Second = {};
    std::array<char, KXRULE_ADDR_NAME_BYTES> m_Name = {};
};

/// A port item: any, 80, 1000-2000, !80, !1000-2000, 80,443,1000-2000, @name.
class Port
{
public:
    consteval Port(const char* literal) : Port(parse(literal).value()) {} // implicit: port("80,443")

    static constexpr std::optional<Port> parse(std::string_view text)
    {
        Port item;
        if (text == "any")
            return item;
        const bool list = text.find(',') != std::string_view::npos;
        if (list || text.starts_with('@'))
        {
            text.remove_prefix(list ? 0 : 1);
            item.m_Type = list ? KXRULE_PORT_LIST : KXRULE_PORT_NAME;
            if (text.empty() || text.size() >= item.m_Text.size() || (list && !isList(text)))
                return std::nullopt;
            std::copy(text.begin(), text.end(), item.m_Text.begin());
            return item;
        }
        item.m_Not = detail::negated(text) ? 1 : 0;
        return parseRange(text, item) ? std::optional(item) : std::nullopt;
    }

    [[nodiscard]] RULE_PORT record() const
    {
        RULE_PORT record = {};
        record.nType = m_Type;
        if (m_Type == KXRULE_PORT_LIST || m_Type == KXRULE_PORT_NAME)
        {
            std::memcpy(record.szList, m_Text.data(), m_Text.size());
            return record;
        }
        record.dwNot = m_Not;
        record.wPort1 = m_First;
        record.wPort2 = m_Second;
        return record;
    }

private:
    constexpr Port() = default;

    static constexpr bool parseRange(std::string_view text, Port& item)
    {
        const bool range = text.find('-') != std::string_view::npos;
        const auto first = detail::number(detail::cut(text, '-'), 0xFFFF);
        const auto second = range ? detail::number(text, 0xFFFF) : 0;
        item.m_Type = range ? KXRULE_PORT_RANGE : KXRULE_PORT_SINGLE;
        item.m_First = static_cast<uint16_t>(first.value_or(0));
        item.m_Second = static_cast<uint16_t>(second.value_or(0));
        return first && second;
    }

    static constexpr bool isList(std::string_view text)
    {
        Port unused;
        if (text.ends_with(','))
            return false;
        while (!text.empty())
            if (!parseRange(detail::cut(text, ','), unused))
                return false;
        return true;
    }

    int32_t m_Type = KXRULE_PORT_ANY;
    uint32_t m_Not = 0;
    uint16_t m_First = 0;
    uint16_t m_Second = 0;
    std::array<char, KXRULE_PORT_LIST_BYTES> m_Text = {};
};

/// One rule under construction. It stands wherever a const PFW_RULE& is wanted, without a copy; to keep the rule, copy
/// it (const PFW_RULE rule = access()...): a reference would outlive the builder. Calls that a kind of rule has no field
/// for do not compile; addresses and ports not mentioned are "any"; texts are cut to their fields.
template <uint32_t Kind, auto PFW_RULE::*Body>
class RuleBuilder
{
public:
    RuleBuilder() noexcept
    {
        m_Rule.dwKind = Kind;
        m_Rule.dwActive = 1;
        for (RULE_ADDR& address : body().Addr)
            address = Address("any").record();
        if constexpr (requires { body().Port; })
            for (RULE_PORT& port : body().Port)
                port = Port("any").record();
    }

    operator const PFW_RULE&() const noexcept { return m_Rule; } // implicit: the builder is the rule

    // What every rule has.
    RuleBuilder& index(uint16_t index) { return m_Rule.wRuleIndex = index, *this; }
    RuleBuilder& active(bool active) { return m_Rule.dwActive = active ? 1 : 0, *this; }
    RuleBuilder& description(WideView text)
    {
        return detail::fill(&m_Rule.wszDescription, sizeof m_Rule.wszDescription, text), *this;
    }

    // Whom it concerns. A NAT rule has a third address and port, the new one.
    RuleBuilder& from(const Address& address) { return body().Addr[0] = address.record(), *this; }
    RuleBuilder& to(const Address& address) { return body().Addr[1] = address.record(), *this; }
    RuleBuilder& fromPort(const Port& port) { return body().Port[0] = port.record(), *this; }
    RuleBuilder& port(const Port& port) { return body().Port[1] = port.record(), *this; }
    RuleBuilder& translated(const Address& address) requires(Kind == KXRULE_KIND_NAT)
    {
        return body().Addr[2] = address.record(), *this;
    }
    RuleBuilder& translatedPort(const Port& port) requires(Kind == KXRULE_KIND_NAT)
    {
        return body().Port[2] = port.record(), *this;
    }
    RuleBuilder& protocol(uint32_t protocol) { return body().dwProtocol = protocol, *this; }
    RuleBuilder& icmp() { return protocol(KXRULE_PROTOCOL_ICMP); }
    RuleBuilder& tcp() { return protocol(KXRULE_PROTOCOL_TCP); }
    RuleBuilder& udp() { return protocol(KXRULE_PROTOCOL_UDP); }
    RuleBuilder& tcpUdp() { return protocol(KXRULE_PROTOCOL_TCPUDP); }
    RuleBuilder& app(WideView path) { return detail::fill(&body().wszAppName, sizeof body().wszAppName, path), *this; }

    // What happens.
    RuleBuilder& action(uint32_t action) { return body().dwAction = action, *this; }
    RuleBuilder& accept() { return action(KXRULE_ACTION_ACCEPT); }
    RuleBuilder& drop() { return action(KXRULE_ACTION_DROP); }
    RuleBuilder& reject() { return action(KXRULE_ACTION_REJECT); }
    RuleBuilder& reset() { return action(KXRULE_ACTION_RESET); }
    RuleBuilder& ask() { return action(KXRULE_ACTION_ASK); }
    RuleBuilder& natType(uint32_t type) { return body().dwNatType = type, *this; }
    RuleBuilder& direction(uint32_t direction) { return body().dwDirection = direction, *this; }
    RuleBuilder& appProtocol(uint32_t protocol) { return body().dwAppProtocol = protocol, *this; }
    RuleBuilder& streamParam(uint32_t param) { return body().dwStreamParam = param, *this; }
    RuleBuilder& streamText(std::string_view text)
    {
        return detail::fill(&body().szStreamText, sizeof body().szStreamText, text), *this;
    }

    RuleBuilder& limits(const std::array<uint16_t, 6>& limits)
    {
        std::memcpy(&body().wLimit, limits.data(), sizeof limits);
        return *this;
    }

    RuleBuilder& params(const std::array<uint32_t, 4>& params)
    {
        std::memcpy(&body().dwParam, params.data(), sizeof body().dwParam);
        body().dwParam3 = params[3];
        return *this;
    }

    RuleBuilder& extension(uint32_t value, uint16_t second, std::string_view text)
    {
        body().dwExtFlag = 1;
        body().dwExtValue = value;
        body().wExtValue = second;
        detail::fill(&body().szExtText, sizeof body().szExtText, text);
        return *this;
    }

private:
    auto& body() noexcept { return m_Rule.*Body; }

    PFW_RULE m_Rule = {};
};

inline auto access()
{
    return RuleBuilder<KXRULE_KIND_ACCESS, &PFW_RULE::Access>();
}
/// The second layout of an access rule: no action, no extension, no text.
inline auto access2()
{
    return RuleBuilder<KXRULE_KIND_ACCESS2, &PFW_RULE::Access2>();
}
inline auto nat()
{
    return RuleBuilder<KXRULE_KIND_NAT, &PFW_RULE::Nat>();
}
inline auto throttle()
{
    return RuleBuilder<KXRULE_KIND_THROTTLE, &PFW_RULE::Throttle>();
}
inline auto stream()
{
    return RuleBuilder<KXRULE_KIND_STREAM, &PFW_RULE::Stream>();
}
inline auto genStream()
{
    return RuleBuilder<KXRULE_KIND_GENSTREAM, &PFW_RULE::GenStream>();
}

/// One macro under construction; it stands wherever a const PFW_MACRO& is wanted, without a copy.
class Macro
{
public:
    explicit Macro(std::string_view name) : m_Bytes(sizeof(PFW_MACRO))
    {
        detail::fill(&head().szName, sizeof head().szName, name);
    }

    operator const PFW_MACRO&() const noexcept { return *reinterpret_cast<const PFW_MACRO*>(m_Bytes.data()); }

    Macro& add(const Address& address)
    {
        const RULE_ADDR record = address.record();
        return append(KXRULE_ITEM_ADDR, &record, sizeof record);
    }

    Macro& add(const Port& port)
    {
        const RULE_PORT record = port.record();
        return append(KXRULE_ITEM_PORT, &record, sizeof record);
    }

    Macro& addText(std::string_view text)
    {
        return append(KXRULE_ITEM_TEXT, text.data(), std::min<size_t>(text.size(), KXRULE_MACRO_PAYLOAD_BYTES - 1));
    }

private:
    PFW_MACRO& head() noexcept { return *reinterpret_cast<PFW_MACRO*>(m_Bytes.data()); }

    Macro& append(uint32_t type, const void* payload, size_t size)
    {
        const size_t end = m_Bytes.size();
        m_Bytes.resize(end + sizeof(MACRO_ITEM));
        std::memcpy(&m_Bytes[end], &type, sizeof type);
        std::memcpy(&m_Bytes[end + offsetof(MACRO_ITEM, szText)], payload, size);
        head().nItemCount = head().nItemCount + 1;
        return *this;
    }

    std::vector<unsigned char> m_Bytes;
};

} // namespace kxrule

#endif // KXPFWRULEBUILDER_HPP
