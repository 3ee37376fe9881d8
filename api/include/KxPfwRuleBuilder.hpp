/*
 * KxPfwRuleBuilder.hpp: builds rules and macros in C++20. Most programs include KxPfwRule.hpp, which includes it.
 *
 *     const PFW_RULE web = kxrule::access().tcp().from("10.0.0.0/8").port("80,443").description(L"Web").accept();
 *     const auto servers = kxrule::Macro("servers").add(kxrule::Address("10.0.0.1")).add(kxrule::Port("80"));
 *
 * Literals are checked by the compiler: a wrong address or port, or a text that is too long for its field, does not
 * compile, and the diagnostic names a function of wrong_literal that says why. Text known only at run time goes through
 * parse: Address::parse, Port::parse, AppPath::parse and so on. Nothing here calls the library or throws.
 */
#ifndef KXPFWRULEBUILDER_HPP
#define KXPFWRULEBUILDER_HPP

#if (defined(_MSVC_LANG) ? _MSVC_LANG : __cplusplus) < 202002L
#error "Needs C++20: -std=c++20 or /std:c++20. Use KxPfwRule.h for C and older C++."
#endif

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

// What can be wrong with a literal, worded for the compiler's message.
#define KXRULE_FAULTS(F)                                                                                               \
    F(an_address_is_any_or_like_10_0_0_1_or_fe80_1_or_at_name)                                                         \
    F(an_ipv4_number_has_a_leading_zero_which_some_read_as_octal)                                                      \
    F(after_the_slash_should_be_a_prefix_length_or_a_mask_of_the_same_family)                                          \
    F(after_the_hyphen_should_be_an_address_of_the_same_family)                                                        \
    F(a_port_is_any_or_a_number_up_to_65535_or_a_range_or_a_list_or_at_name)                                           \
    F(a_port_list_cannot_be_negated)                                                                                   \
    F(the_text_is_longer_than_its_field)                                                                               \
    F(the_text_holds_a_nul)                                                                                            \
    F(the_name_after_the_at_sign_is_missing)

/// Never called: the compiler names one of these if it rejects a literal.
namespace wrong_literal
{
#define KXRULE_FAULT(name) void name();
KXRULE_FAULTS(KXRULE_FAULT)
#undef KXRULE_FAULT
} // namespace wrong_literal

namespace detail
{

enum class Fault
{
    none,
#define KXRULE_FAULT(name) name,
    KXRULE_FAULTS(KXRULE_FAULT)
#undef KXRULE_FAULT
};

consteval void require(Fault fault)
{
    switch (fault)
    {
#define KXRULE_FAULT(name)                                                                                             \
    case Fault::name:                                                                                                  \
        return wrong_literal::name();
        KXRULE_FAULTS(KXRULE_FAULT)
#undef KXRULE_FAULT
    case Fault::none:
        return;
    }
}
#undef KXRULE_FAULTS

/// Digits only, at most the value `most`.
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

/// Takes the text up to the separator; the rest, without the separator, remains.
constexpr std::string_view cut(std::string_view& text, char separator)
{
    const size_t end = (std::min)(text.find(separator), text.size());
    const std::string_view front = text.substr(0, end);
    text.remove_prefix((std::min)(end + 1, text.size()));
    return front;
}

constexpr bool negated(std::string_view& text)
{
    const bool negated = text.starts_with('!');
    text.remove_prefix(negated ? 1 : 0);
    return negated;
}

/// Whether the text fits a field of that many units, terminator included.
template <class Unit>
constexpr Fault fits(std::basic_string_view<Unit> text, size_t units)
{
    return text.size() >= units             ? Fault::the_text_is_longer_than_its_field
           : text.find(Unit()) != text.npos ? Fault::the_text_holds_a_nul
                                            : Fault::none;
}

/// The name of an address or port item.
template <size_t Size>
constexpr Fault readName(std::string_view text, std::array<char, Size>& name)
{
    const Fault fault = text.empty() ? Fault::the_name_after_the_at_sign_is_missing : fits(text, Size);
    if (fault == Fault::none)
        std::copy(text.begin(), text.end(), name.begin());
    return fault;
}

/// Copies what fits before a terminator and zeroes the rest. (An address without a type: the fields are packed.)
template <class Unit>
void fill(void* field, size_t size, std::basic_string_view<Unit> text)
{
    const size_t used = (std::min)(text.size() * sizeof(Unit), size - sizeof(Unit));
    std::memset(field, 0, size);
    std::memcpy(field, text.data(), used);
}

} // namespace detail

/// A text that fits its field: cutting a path or a name would make it a different one.
template <class Unit, size_t Units> // of the field, terminator included
class FieldText
{
public:
    using View = std::basic_string_view<Unit>;

    consteval FieldText(const Unit* literal) : FieldText(View(literal)) // implicit: app(L"C:\\Windows\\ftp.exe")
    {
        detail::require(detail::fits(View(literal), Units));
    }

    static constexpr std::optional<FieldText> parse(View text)
    {
        return detail::fits(text, Units) == detail::Fault::none ? std::optional(FieldText(text)) : std::nullopt;
    }

    constexpr View view() const noexcept { return {m_Units.data(), m_Length}; }

private:
    constexpr explicit FieldText(View text) : m_Length((std::min)(text.size(), Units - 1))
    {
        std::copy_n(text.begin(), m_Length, m_Units.begin());
    }

    size_t m_Length;
    std::array<Unit, Units> m_Units = {};
};

using AppPath = FieldText<KXWCHAR, KXRULE_APP_NAME_UNITS>;
using RuleSetName = FieldText<KXWCHAR, KXRULE_RULESET_NAME_UNITS>;
using MacroName = FieldText<char, KXRULE_MACRO_NAME_BYTES>;
using MacroText = FieldText<char, KXRULE_MACRO_PAYLOAD_BYTES>;
using ExtensionText = FieldText<char, KXRULE_EXT_TEXT_BYTES>;
using StreamText = FieldText<char, KXRULE_STREAM_TEXT_BYTES>;
using GenStreamText = FieldText<char, KXRULE_GENSTREAM_TEXT_BYTES>;

/// An address item: any, none, 10.0.0.1, 10.0.0.0/8, 10.0.0.0/255.0.0.0, 10.0.0.1-10.0.0.9, fe80::1, fe80::/10, @name;
/// all except any, none and @name may be preceded by "!". The notation is that of kxrule.
class Address
{
public:
    consteval Address(const char* literal) // implicit: from("10.0.0.0/8")
    {
        detail::require(read(literal));
    }

    static constexpr std::optional<Address> parse(std::string_view text)
    {
        Address item;
        return item.read(text) == detail::Fault::none ? std::optional(item) : std::nullopt;
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
    using Fault = detail::Fault;

    constexpr Address() = default;

    constexpr Fault read(std::string_view text)
    {
        if (text == "any" || text == "none")
        {
            m_Type = text == "any" ? KXRULE_ADDR_ANY : 0;
            return Fault::none;
        }
        if (text.starts_with('@'))
        {
            m_Type = KXRULE_ADDR_NAME;
            return detail::readName(text.substr(1), m_Name);
        }
        m_Not = detail::negated(text) ? 1 : 0;
        const size_t mark = (std::min)(text.find_first_of("/-"), text.size());
        const std::string_view second = text.substr((std::min)(mark + 1, text.size()));
        const Fault first = readOne(text.substr(0, mark), m_Family, m_First);
        m_Type = KXRULE_ADDR_SINGLE;
        if (first != Fault::none || mark == text.size())
            return first;
        uint32_t family = m_Family;
        const bool range = text[mark] == '-';
        const auto length = detail::number(second, family == KXRULE_FAMILY_IPV4 ? 32 : 128);
        if (!range && length)
        {
            m_Type = KXRULE_ADDR_PREFIX;
            m_Second = split(*length);
            return Fault::none;
        }
        m_Type = range ? KXRULE_ADDR_RANGE : KXRULE_ADDR_MASK;
        const Fault end = readOne(second, family, m_Second);
        if (end == Fault::an_ipv4_number_has_a_leading_zero_which_some_read_as_octal)
            return end;
        return end == Fault::none && family == m_Family
                   ? Fault::none
                   : (range ? Fault::after_the_hyphen_should_be_an_address_of_the_same_family
                            : Fault::after_the_slash_should_be_a_prefix_length_or_a_mask_of_the_same_family);
    }

    /// A number whose bytes are in the order of the record.
    static constexpr Bytes split(uint32_t value)
    {
        return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value >> 16),
                static_cast<uint8_t>(value >> 24)};
    }

    static constexpr Fault readOne(std::string_view text, uint32_t& family, Bytes& bytes)
    {
        Fault fault = Fault::an_address_is_any_or_like_10_0_0_1_or_fe80_1_or_at_name;
        if (text.find(':') != std::string_view::npos)
        {
            family = KXRULE_FAMILY_IPV6;
            return parseIPv6(text, bytes) ? Fault::none : fault;
        }
        family = KXRULE_FAMILY_IPV4;
        const auto address = parseIPv4(text, &fault);
        bytes = split(address.value_or(0));
        return address ? Fault::none : fault;
    }

    static constexpr std::optional<uint32_t> parseIPv4(std::string_view text, Fault* fault = nullptr)
    {
        uint32_t address = 0;
        if (std::count(text.begin(), text.end(), '.') != 3)
            return std::nullopt;
        for (int i = 0; i < 4; ++i)
        {
            const std::string_view digits = detail::cut(text, '.');
            const auto part = detail::number(digits, 255);
            const bool leadingZero = digits.size() > 1 && digits.front() == '0';
            if (leadingZero && fault != nullptr)
                *fault = Fault::an_ipv4_number_has_a_leading_zero_which_some_read_as_octal;
            if (!part || leadingZero)
                return std::nullopt;
            address = address << 8 | *part;
        }
        return address;
    }

    /// Groups from the front up to "::", then the others from the back.
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

/// A port item: any, none, 80, 1000-2000, !80, !1000-2000, 80,443,1000-2000, @name.
class Port
{
public:
    consteval Port(const char* literal) // implicit: port("80,443")
    {
        detail::require(read(literal));
    }

    static constexpr std::optional<Port> parse(std::string_view text)
    {
        Port item;
        return item.read(text) == detail::Fault::none ? std::optional(item) : std::nullopt;
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
    using Fault = detail::Fault;

    constexpr Port() = default;

    constexpr Fault read(std::string_view text)
    {
        if (text == "any" || text == "none")
        {
            m_Type = text == "any" ? KXRULE_PORT_ANY : KXRULE_PORT_NONE;
            return Fault::none;
        }
        if (text.starts_with('@'))
        {
            m_Type = KXRULE_PORT_NAME;
            return detail::readName(text.substr(1), m_Text);
        }
        if (isList(text))
        {
            m_Type = KXRULE_PORT_LIST;
            return detail::readName(text, m_Text);
        }
        m_Not = detail::negated(text) ? 1 : 0;
        if (m_Not != 0 && isList(text))
            return Fault::a_port_list_cannot_be_negated;
        return parseRange(text, *this) ? Fault::none
                                       : Fault::a_port_is_any_or_a_number_up_to_65535_or_a_range_or_a_list_or_at_name;
    }

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
        if (text.find(',') == std::string_view::npos || text.ends_with(','))
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

/// One rule under construction. It can be passed wherever a const PFW_RULE& is expected, without a copy; to store the
/// rule, copy it (const PFW_RULE rule = access()...), since a reference would outlive the builder. Calls for which a
/// kind of rule has no field do not compile; addresses and ports not mentioned are "any". Of all texts,
/// only the description is cut to fit its field.
template <uint32_t Kind, auto PFW_RULE::*Body, class TheStreamText = StreamText>
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
        const size_t most = KXRULE_DESCRIPTION_UNITS - 1;
        if (text.size() > most && (text[most] & 0xFC00) == 0xDC00) // do not cut a character in half
            text = text.substr(0, most - 1);
        return detail::fill(&m_Rule.wszDescription, sizeof m_Rule.wszDescription, text), *this;
    }

    // Which traffic it applies to. A NAT rule has a third address and port, the new one.
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
    RuleBuilder& app(const AppPath& path)
    {
        return detail::fill(&body().wszAppName, sizeof body().wszAppName, path.view()), *this;
    }

    // What happens to it.
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
    RuleBuilder& streamText(const TheStreamText& text)
    {
        return detail::fill(&body().szStreamText, sizeof body().szStreamText, text.view()), *this;
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

    RuleBuilder& extension(uint32_t value, uint16_t second, const ExtensionText& text)
    {
        body().dwExtFlag = 1;
        body().dwExtValue = value;
        body().wExtValue = second;
        detail::fill(&body().szExtText, sizeof body().szExtText, text.view());
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
    return RuleBuilder<KXRULE_KIND_GENSTREAM, &PFW_RULE::GenStream, GenStreamText>();
}

/// One macro under construction; it can be passed wherever a const PFW_MACRO& is expected, without a copy.
class Macro
{
public:
    explicit Macro(const MacroName& name) : m_Bytes(sizeof(PFW_MACRO))
    {
        detail::fill(&head().szName, sizeof head().szName, name.view());
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

    Macro& addText(const MacroText& text) { return append(KXRULE_ITEM_TEXT, text.view().data(), text.view().size()); }

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
