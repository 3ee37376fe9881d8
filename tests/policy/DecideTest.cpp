// Which rule decides, against a second implementation that looks at one packet and one item at a time.
#include "policy/Decide.h"

#include <random>
#include <set>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_Record.h"
#include "policy/ItemText.h"
#include "tests/support/RecordBuilder.h"

namespace
{

using KxPolicy::Policy;
using Random = std::mt19937;

template <class Item>
Item Parsed(const std::string& text, bool (*parse)(std::string_view, Item&, std::string&))
{
    Item item{};
    std::string why;
    EXPECT_TRUE(parse(text, item, why)) << text << ": " << why;
    return item;
}

template <class Item>
std::vector<Item> AllParsed(std::initializer_list<const char*> texts,
                            bool (*parse)(std::string_view, Item&, std::string&))
{
    std::vector<Item> items;
    for (const char* const text : texts)
        items.push_back(Parsed(text, parse));
    return items;
}

// Everything lies within a few addresses, ports, protocols and programs, so that rules meet often.
RULE_ADDR RandomAddress(Random& random)
{
    static const std::vector<RULE_ADDR> items =
        AllParsed({"any", "any", "10.0.0.1", "!10.0.0.2", "10.0.0.0/31", "10.0.0.2/30", "10.0.0.1/255.255.255.253",
                   "10.0.0.3-10.0.0.1", "!10.0.0.0/31", "fe80::1", "!fe80::2-fe80::3", "fe80::/126",
                   "fe80::2/ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe", "@m", "@n", "@x", "none"},
                  KxPolicy::ParseAddress);
    return items[random() % items.size()];
}

RULE_PORT RandomPort(Random& random)
{
    static const std::vector<RULE_PORT> items =
        AllParsed({"any", "any", "any", "none", "1", "!2", "3-1", "!0-1", "0,2-3", "list:2", "list:x", "@m", "@x"},
                  KxPolicy::ParsePort);
    return items[random() % items.size()];
}

PFW_RULE RandomRule(Random& random, uint16_t index)
{
    static constexpr uint32_t kProtocols[] = {0, 0, 1, 6, 17, 65536, 65536, 300};
    PFW_RULE rule = Build::Access(index, random() % 3 != 0   ? KXW("")
                                         : random() % 2 != 0 ? KXW("C:\\A.exe")
                                                             : KXW("c:\\b.exe"));
    rule.dwActive = random() % 8;
    rule.Access.dwProtocol = kProtocols[random() % std::size(kProtocols)];
    for (size_t i = 0; i < 2; ++i)
    {
        rule.Access.Addr[i] = RandomAddress(random);
        rule.Access.Port[i] = RandomPort(random);
    }
    rule.Access.dwExtFlag = random() % 16 == 0;
    return rule;
}

struct Packet
{
    uint32_t Protocol;
    RULE_ADDR Addresses[2];
    uint16_t Ports[2];
    const KXWCHAR* Program;
};

enum Answer
{
    No,
    Perhaps,
    Yes
};

using Bytes = std::array<uint8_t, 16>; // the first four alone for IPv4

Bytes BytesOf(uint32_t family, const PFW_ADDR& address)
{
    Bytes bytes{};
    for (size_t i = 0; i < 16; ++i)
        bytes[i] = family == KXRULE_FAMILY_IPV6 ? address.abIPv6[i]
                   : i < 4                      ? static_cast<uint8_t>(address.dwIPv4 >> (24 - 8 * i))
                                                : uint8_t{0};
    return bytes;
}

Answer Holds(const RULE_ADDR& item, const RULE_ADDR& packet)
{
    if (item.dwType == KXRULE_ADDR_ANY)
        return Yes;
    if (item.dwType == 0)
        return Perhaps;
    const uint32_t family = item.dwFamily;
    if (family != packet.dwFamily)
        return No;
    const Bytes address = BytesOf(family, packet.Addr1);
    const Bytes first = BytesOf(family, item.Addr1);
    const Bytes second = BytesOf(family, item.Addr2);
    bool holds = true;
    const auto bit = [](const Bytes& bytes, size_t i) { return bytes[i / 8] >> (7 - i % 8) & 1; };
    for (size_t i = 0; i < (family == KXRULE_FAMILY_IPV6 ? 128 : 32); ++i)
    {
        const bool counts = item.dwType == KXRULE_ADDR_MASK     ? bit(second, i) != 0
                            : item.dwType == KXRULE_ADDR_PREFIX ? i < item.Addr2.dwIPv4
                                                                : true;
        holds = holds && (!counts || bit(first, i) == bit(address, i));
    }
    if (item.dwType == KXRULE_ADDR_RANGE)
        holds = (first <= address && address <= second) || (second <= address && address <= first);
    return holds != (item.dwNot != 0) ? Yes : No;
}

Answer Holds(const RULE_PORT& item, uint16_t port)
{
    if (item.nType <= KXRULE_PORT_ANY)
        return Yes;
    if (item.nType == KXRULE_PORT_LIST)
    {
        const std::string_view list(KxCommon::Record::Text(&item.szList, sizeof item.szList));
        return list == "x"                           ? Perhaps
               : list == "2"                         ? (port == 2 ? Yes : No)
               : port == 0 || port == 2 || port == 3 ? Yes
                                                     : No;
    }
    const uint16_t low = item.wPort1;
    const uint16_t high = item.nType == KXRULE_PORT_RANGE ? uint16_t{item.wPort2} : low;
    const bool holds = (low <= port && port <= high) || (high <= port && port <= low);
    return holds != (item.dwNot != 0) ? Yes : No;
}

// The macros: m is 10.0.0.0/30 and fe80::2 without 10.0.0.1, and the ports 1 and 3; n is everything but 10.0.0.1 (no
// IPv6 address) and has no ports.
Answer Holds(std::string_view name, const RULE_ADDR& packet)
{
    const Bytes bytes = BytesOf(packet.dwFamily, packet.Addr1);
    const bool isV4 = packet.dwFamily == KXRULE_FAMILY_IPV4;
    const bool isOne = isV4 && bytes[2] == 0 && bytes[3] == 1;
    if (name == "m")
        return (isV4 ? bytes[2] == 0 && !isOne : bytes[15] == 2 && bytes[14] == 0) ? Yes : No;
    return name == "n" ? (isV4 && !isOne ? Yes : No) : Perhaps;
}

Answer Holds(std::string_view name, uint16_t port)
{
    return name != "m" ? Perhaps : port == 1 || port == 3 ? Yes : No;
}

Answer Matches(const PFW_RULE& rule, const Packet& packet)
{
    if (rule.dwActive == 0)
        return No;
    const uint32_t protocol = rule.Access.dwProtocol;
    const bool streams = packet.Protocol == 6 || packet.Protocol == 17;
    Answer answer = protocol == 0       ? Yes
                    : protocol == 65536 ? (streams ? Yes : No)
                    : protocol > 255    ? Perhaps
                                        : (protocol == packet.Protocol ? Yes : No);
    if (rule.Access.dwExtFlag != 0)
        answer = std::min(answer, Perhaps);
    for (size_t i = 0; i < 2; ++i)
    {
        const RULE_ADDR address = rule.Access.Addr[i];
        const RULE_PORT port = rule.Access.Port[i];
        answer = std::min(answer, address.dwType == KXRULE_ADDR_NAME
                                      ? Holds(std::string_view(&address.szName[0]), packet.Addresses[i])
                                      : Holds(address, packet.Addresses[i]));
        answer =
            std::min(answer, port.nType == KXRULE_PORT_NAME ? Holds(std::string_view(&port.szList[0]), packet.Ports[i])
                                                            : Holds(port, packet.Ports[i]));
        if (port.nType > KXRULE_PORT_ANY && !streams)
            answer = No;
    }
    const auto application = KxCommon::Record::WideText(&rule.Access.wszAppName, KXRULE_APP_NAME_UNITS);
    return application.empty() || KxCommon::String::EqualNoCase(application, packet.Program) ? answer : No;
}

/// Rule set, rule and whether it may decide or does.
uint32_t Number(uint16_t ruleSetIndex, const PFW_RULE& rule, bool isCertain)
{
    return ruleSetIndex * 1000u + rule.wRuleIndex * 10u + (isCertain ? 1 : 0);
}

/// The rules that may decide, up to the one that does.
std::set<uint32_t> Expected(const Policy& policy, const Packet& packet, bool& isUndecided)
{
    std::set<uint32_t> rules;
    for (const uint16_t index : *policy.Active)
    {
        for (const PFW_RULE& rule : policy.RuleSets[index - 1u].Rules)
        {
            const Answer answer = Matches(rule, packet);
            if (answer != No)
                rules.insert(Number(index, rule, answer == Yes));
            if (answer == Yes)
                return rules;
        }
    }
    isUndecided = true;
    return rules;
}

std::set<uint32_t> Found(const KxPolicy::Decision& decision)
{
    std::set<uint32_t> rules;
    for (const KxPolicy::DecidingRule& rule : decision.Rules)
        rules.insert(Number(rule.Which.RuleSet->Index, *rule.Which.Rule, rule.IsCertain));
    return rules;
}

Policy RandomPolicy(Random& random)
{
    const auto address = [](const char* text) { return Build::Item(Parsed(text, KxPolicy::ParseAddress)); };
    const auto port = [](const char* text) { return Build::Item(Parsed(text, KxPolicy::ParsePort)); };
    Policy policy;
    policy.Active = {2, 1, 2};
    policy.Macros = {{"m", {address("10.0.0.0/30"), Build::Item("text"), port("1"), address("fe80::2")}},
                     {"n", {address("!10.0.0.1"), Build::Item("text")}},
                     {"m", {address("!10.0.0.1"), port("list:3")}}};
    for (uint16_t index = 1; index <= 3; ++index)
    {
        policy.RuleSets.push_back({index, {}, {}});
        for (uint16_t rule = 0; rule < random() % 6; ++rule)
            policy.RuleSets.back().Rules.push_back(RandomRule(random, rule));
    }
    return policy;
}

constexpr size_t kPackets = 3 * 3 * 10 * 10 * 5 * 5;

Packet PacketOf(size_t i)
{
    static const std::vector<RULE_ADDR> addresses(AllParsed({"10.0.0.0", "10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.1.0",
                                                             "fe80::", "fe80::1", "fe80::2", "fe80::3", "fe80::100"},
                                                            KxPolicy::ParseAddress));
    static constexpr const KXWCHAR* kPrograms[] = {KXW("C:\\a.EXE"), KXW("C:\\b.exe"), KXW("C:\\c.exe")};
    static constexpr uint32_t kProtocols[] = {1, 6, 17};
    static constexpr uint16_t kPorts[] = {0, 1, 2, 3, 100};
    return {kProtocols[i / 7500],
            {addresses[i % 10], addresses[i / 10 % 10]},
            {kPorts[i / 100 % 5], kPorts[i / 500 % 5]},
            kPrograms[i / 2500 % 3]};
}

PFW_RULE QuestionOf(const Packet& packet)
{
    PFW_RULE question = Build::Access(0, packet.Program);
    question.Access.dwProtocol = packet.Protocol;
    for (size_t side = 0; side < 2; ++side)
    {
        question.Access.Addr[side] = packet.Addresses[side];
        if (packet.Protocol != 1)
            question.Access.Port[side] = Build::Single(packet.Ports[side]);
    }
    return question;
}

} // namespace

TEST(Decide, AgreesWithAPacketByPacketLook)
{
    Random random(18);
    for (int round = 0; round < 2000; ++round)
    {
        const Policy policy = RandomPolicy(random);
        const KxPolicy::Decider decider(policy);
        for (int i = 0; i < 50; ++i)
        {
            const Packet packet = PacketOf(random() % kPackets);
            bool isUndecided = false;
            const KxPolicy::Decision decision = decider.Decide(QuestionOf(packet));
            ASSERT_EQ(Found(decision), Expected(policy, packet, isUndecided)) << round << " " << i;
            ASSERT_EQ(decision.IsUndecided, isUndecided) << round << " " << i;
            ASSERT_EQ(!isUndecided,
                      !decision.Rules.empty() && decision.Rules.back().IsRest && decision.Rules.back().IsCertain);
        }
        // A range of traffic: the rules that decide about it are those that decide about its packets.
        PFW_RULE question = RandomRule(random, 0);
        question.dwActive = 1;
        question.Access.dwProtocol = 6;
        question.Access.dwExtFlag = 0;
        if (round % 200 != 0 || Matches(question, PacketOf(7500)) == Perhaps) // part of it cannot be told
            continue;
        std::set<uint32_t> expected;
        bool isUndecided = false;
        for (size_t i = 0; i < kPackets; ++i)
        {
            const Packet packet = PacketOf(i);
            if (Matches(question, packet) != No)
                expected.merge(Expected(policy, packet, isUndecided));
        }
        const KxPolicy::Decision decision = decider.Decide(question);
        ASSERT_EQ(Found(decision), expected) << round;
        ASSERT_EQ(decision.IsUndecided, isUndecided) << round;
    }
}
