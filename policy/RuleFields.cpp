// The tables of JSON names.
#include "policy/RuleFields.h"

#include "common/srclib/KxComn_Record.h"

namespace KxPolicy
{
namespace
{

#define KX_AT(field) static_cast<uint16_t>(offsetof(PFW_RULE, field))

constexpr Keyword kKindTable[] = {{KXRULE_KIND_ACCESS, "access"},       {KXRULE_KIND_NAT, "nat"},
                                  {KXRULE_KIND_THROTTLE, "throttle"},   {KXRULE_KIND_STREAM, "stream"},
                                  {KXRULE_KIND_GENSTREAM, "genstream"}, {KXRULE_KIND_ACCESS2, "access2"}};
constexpr Keyword kItemTable[] = {
    {KXRULE_ITEM_ADDR, "address"}, {KXRULE_ITEM_PORT, "port"}, {KXRULE_ITEM_TEXT, "text"}};
constexpr Keyword kProtocols[] = {{KXRULE_PROTOCOL_ANY, "any"},
                                  {KXRULE_PROTOCOL_ICMP, "icmp"},
                                  {KXRULE_PROTOCOL_TCP, "tcp"},
                                  {KXRULE_PROTOCOL_UDP, "udp"},
                                  {KXRULE_PROTOCOL_TCPUDP, "tcpudp"}};
constexpr Keyword kActions[] = {{KXRULE_ACTION_ACCEPT, "accept"},
                                {KXRULE_ACTION_DROP, "drop"},
                                {KXRULE_ACTION_REJECT, "reject"},
                                {KXRULE_ACTION_RESET, "reset"},
                                {KXRULE_ACTION_ASK, "ask"}};
constexpr Keyword kNatTypes[] = {
    {KXRULE_NAT_SNAT, "snat"}, {KXRULE_NAT_MASQ, "masq"}, {KXRULE_NAT_DNAT, "dnat"}, {KXRULE_NAT_RDIR, "rdir"}};
constexpr Keyword kAppProtocols[] = {{KXRULE_APP_HTTP, "http"}, {KXRULE_APP_SMTP, "smtp"}};
constexpr Keyword kDirections[] = {
    {KXRULE_DIRECTION_IN, "in"}, {KXRULE_DIRECTION_OUT, "out"}, {KXRULE_DIRECTION_ANY, "any"}};

constexpr uint16_t kAddr = sizeof(RULE_ADDR);
constexpr uint16_t kPort = sizeof(RULE_PORT);

constexpr RuleField Number(const char* name, FieldType type, Presence when, uint16_t place)
{
    return {name, type, when, {place}, 1, 0, {}};
}
constexpr RuleField Named(const char* name, Presence when, uint16_t place, Keywords names)
{
    return {name, FieldType::Keyword, when, {place}, 1, 0, names};
}
constexpr RuleField Addresses(uint16_t first, uint8_t count)
{
    return {"addresses",
            FieldType::Address,
            Presence::Usual,
            {first, static_cast<uint16_t>(first + kAddr), static_cast<uint16_t>(first + 2 * kAddr)},
            count,
            0,
            {}};
}
constexpr RuleField Ports(uint16_t first, uint8_t count)
{
    return {"ports",
            FieldType::Port,
            Presence::Usual,
            {first, static_cast<uint16_t>(first + kPort), static_cast<uint16_t>(first + 2 * kPort)},
            count,
            0,
            {}};
}
constexpr RuleField Extension(uint16_t flag, uint16_t value, uint16_t shortValue, uint16_t text)
{
    return {"extension",
            FieldType::Extension,
            Presence::Sometimes,
            {flag, value, shortValue, text},
            1,
            KXRULE_EXT_TEXT_BYTES,
            {}};
}
constexpr RuleField Characters(const char* name, FieldType type, uint16_t place, uint16_t room)
{
    return {name, type, Presence::Sometimes, {place}, 1, room, {}};
}

constexpr RuleField kCommon[] = {
    Number("index", FieldType::Word, Presence::Always, KX_AT(wRuleIndex)),
    Named("kind", Presence::Always, KX_AT(dwKind), kKindTable),
    Characters("description", FieldType::WideText, KX_AT(wszDescription), KXRULE_DESCRIPTION_UNITS),
    Number("active", FieldType::Switch, Presence::Usual, KX_AT(dwActive)),
};

constexpr RuleField kAccess[] = {
    Named("protocol", Presence::Usual, KX_AT(Access.dwProtocol), kProtocols),
    Addresses(KX_AT(Access.Addr), 2),
    Ports(KX_AT(Access.Port), 2),
    Named("action", Presence::Always, KX_AT(Access.dwAction), kActions),
    Extension(KX_AT(Access.dwExtFlag), KX_AT(Access.dwExtValue), KX_AT(Access.wExtValue), KX_AT(Access.szExtText)),
    Characters("application", FieldType::Application, KX_AT(Access.wszAppName), KXRULE_APP_NAME_UNITS),
    Characters("hash", FieldType::Hash, KX_AT(Access.abAppHash), KXRULE_HASH_BYTES),
    Number("system", FieldType::Switch, Presence::Sometimes, KX_AT(Access.dwSystem)),
    {"spare", FieldType::DoubleWord, Presence::Sometimes, {KX_AT(Access.dwSpare1), KX_AT(Access.dwSpare2)}, 2, 0, {}},
};

constexpr RuleField kAccess2[] = {
    Named("protocol", Presence::Usual, KX_AT(Access2.dwProtocol), kProtocols),
    Addresses(KX_AT(Access2.Addr), 2),
    Ports(KX_AT(Access2.Port), 2),
    Characters("application", FieldType::Application, KX_AT(Access2.wszAppName), KXRULE_APP_NAME_UNITS),
    Characters("hash", FieldType::Hash, KX_AT(Access2.abAppHash), KXRULE_HASH_BYTES),
    Number("system", FieldType::Switch, Presence::Sometimes, KX_AT(Access2.dwSystem)),
    {"spare", FieldType::DoubleWord, Presence::Sometimes, {KX_AT(Access2.dwSpare1), KX_AT(Access2.dwSpare2)}, 2, 0, {}},
};

constexpr RuleField kNat[] = {
    Named("protocol", Presence::Usual, KX_AT(Nat.dwProtocol), kProtocols),
    Addresses(KX_AT(Nat.Addr), 3),
    Ports(KX_AT(Nat.Port), 3),
    Named("natType", Presence::Always, KX_AT(Nat.dwNatType), kNatTypes),
};

constexpr uint16_t kLimit = KX_AT(Throttle.wLimit);
constexpr RuleField kThrottle[] = {
    Named("protocol", Presence::Usual, KX_AT(Throttle.dwProtocol), kProtocols),
    Addresses(KX_AT(Throttle.Addr), 2),
    Ports(KX_AT(Throttle.Port), 2),
    {"limits",
     FieldType::Word,
     Presence::Always,
     {kLimit, kLimit + 2, kLimit + 4, kLimit + 6, kLimit + 8, kLimit + 10},
     6,
     0,
     {}},
    Extension(KX_AT(Throttle.dwExtFlag), KX_AT(Throttle.dwExtValue), KX_AT(Throttle.wExtValue),
              KX_AT(Throttle.szExtText)),
};

constexpr RuleField kStream[] = {
    Named("appProtocol", Presence::Always, KX_AT(Stream.dwAppProtocol), kAppProtocols),
    Addresses(KX_AT(Stream.Addr), 2),
    Number("streamParam", FieldType::DoubleWord, Presence::Usual, KX_AT(Stream.dwStreamParam)),
    Named("action", Presence::Always, KX_AT(Stream.dwAction), kActions),
    Extension(KX_AT(Stream.dwExtFlag), KX_AT(Stream.dwExtValue), KX_AT(Stream.wExtValue), KX_AT(Stream.szExtText)),
    Characters("streamText", FieldType::Text, KX_AT(Stream.szStreamText), KXRULE_STREAM_TEXT_BYTES),
};

constexpr uint16_t kParam = KX_AT(GenStream.dwParam);
constexpr RuleField kGenStream[] = {
    Named("protocol", Presence::Usual, KX_AT(GenStream.dwProtocol), kProtocols),
    Addresses(KX_AT(GenStream.Addr), 2),
    Ports(KX_AT(GenStream.Port), 2),
    Named("direction", Presence::Always, KX_AT(GenStream.dwDirection), kDirections),
    {"params",
     FieldType::DoubleWord,
     Presence::Usual,
     {kParam, kParam + 4, kParam + 8, KX_AT(GenStream.dwParam3)},
     4,
     0,
     {}},
    Named("action", Presence::Always, KX_AT(GenStream.dwAction), kActions),
    Extension(KX_AT(GenStream.dwExtFlag), KX_AT(GenStream.dwExtValue), KX_AT(GenStream.wExtValue),
              KX_AT(GenStream.szExtText)),
    Characters("streamText", FieldType::Text, KX_AT(GenStream.szStreamText), KXRULE_GENSTREAM_TEXT_BYTES),
};

#undef KX_AT

bool EqualsIgnoringCase(std::string_view name, std::string_view lower) noexcept
{
    if (name.size() != lower.size())
        return false;
    for (size_t i = 0; i < name.size(); ++i)
    {
        const char c = name[i];
        if ((c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c) != lower[i])
            return false;
    }
    return true;
}

} // namespace

const Keywords kKinds = kKindTable;
const Keywords kItemTypes = kItemTable;

std::string_view KeywordName(Keywords keywords, uint32_t value) noexcept
{
    for (const Keyword& keyword : keywords)
    {
        if (keyword.Value == value)
            return keyword.Name;
    }
    return {};
}

std::string KeywordText(Keywords keywords, uint32_t value)
{
    const std::string_view name = KeywordName(keywords, value);
    return name.empty() ? std::to_string(value) : std::string(name);
}

std::string KeywordNames(Keywords keywords)
{
    std::string names;
    for (const Keyword& keyword : keywords)
        names += (names.empty() ? "" : ", ") + std::string(keyword.Name);
    return names;
}

const Keyword* FindKeyword(Keywords keywords, std::string_view name) noexcept
{
    for (const Keyword& keyword : keywords)
    {
        if (EqualsIgnoringCase(name, keyword.Name))
            return &keyword;
    }
    return nullptr;
}

std::span<const RuleField> CommonFields() noexcept
{
    return kCommon;
}

std::span<const RuleField> KindFields(uint32_t kind) noexcept
{
    switch (kind)
    {
    case KXRULE_KIND_ACCESS:
        return kAccess;
    case KXRULE_KIND_NAT:
        return kNat;
    case KXRULE_KIND_THROTTLE:
        return kThrottle;
    case KXRULE_KIND_STREAM:
        return kStream;
    case KXRULE_KIND_GENSTREAM:
        return kGenStream;
    case KXRULE_KIND_ACCESS2:
        return kAccess2;
    default:
        return {};
    }
}

KxCommon::WideString ApplicationOf(const PFW_RULE& rule)
{
    for (const RuleField& field : KindFields(rule.dwKind))
    {
        if (field.Type == FieldType::Application)
            return KxCommon::Record::WideText(reinterpret_cast<const uint8_t*>(&rule) + field.Places[0],
                                              field.Room - 1u);
    }
    return {};
}

PFW_RULE DefaultRule(uint32_t kind) noexcept
{
    PFW_RULE rule{};
    rule.dwActive = 1;
    rule.dwKind = kind;
    uint8_t* const record = reinterpret_cast<uint8_t*>(&rule);
    for (const RuleField& field : KindFields(kind))
    {
        for (size_t i = 0; i < field.Count; ++i)
        {
            if (field.Type == FieldType::Address)
                KxCommon::Record::Store(record + field.Places[i], uint32_t{KXRULE_ADDR_ANY});
            else if (field.Type == FieldType::Port)
                KxCommon::Record::Store(record + field.Places[i], int32_t{KXRULE_PORT_ANY});
        }
    }
    return rule;
}

} // namespace KxPolicy
