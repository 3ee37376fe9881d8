// Which rule decides, against a second implementation that looks at one packet at a time and takes from a table which
// packets an item holds.
#include "policy/Decide.h"

#include <random>
#include <set>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_Record.h"
#include "policy/ItemText.h"
#include "tests/support/ParsedPolicy.h"
#include "tests/support/RecordBuilder.h"

namespace
{

using KxPolicy::Policy;
using Random = std::mt19937;

// Everything lies within a few addresses, ports, protocols and programs, so that rules meet often.
constexpr const char* kAddresses[] = {"10.0.0.0", "10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.1.0",
                                      "fe80::",   "fe80::1",  "fe80::2",  "fe80::3",  "fe80::100"};
constexpr uint16_t kPorts[] = {0, 1, 2, 3, 100};
constexpr const KXWCHAR* kPrograms[] = {KXW("C:\\a.EXE"), KXW("C:\\b.exe"), KXW("C:\\c.exe")};
constexpr uint32_t kProtocols[] = {1, 6, 17};

struct Known
{
    const char* Text;
    const char* Holds; // of each of those above: N no, P perhaps, Y yes
};

// The macros: m is 10.0.0.0/30 and fe80::2 without 10.0.0.1, and the ports 1 and 3; n is everything but 10.0.0.1 (no
// IPv6 address) and has no ports.
constexpr Known kAddressItems[] = {
    {"any", "YYYYYYYYYY"},
    {"any", "YYYYYYYYYY"},
    {"10.0.0.1", "NYNNNNNNNN"},
    {"!10.0.0.2", "YYNYYNNNNN"},
    {"10.0.0.0/31", "YYNNNNNNNN"},
    {"10.0.0.2/30", "YYYYNNNNNN"},
    {"10.0.0.0/255.255.254.253", "YNYNYNNNNN"},
    {"10.0.0.3-10.0.0.1", "NYYYNNNNNN"},
    {"!10.0.0.0/31", "NNYYYNNNNN"},
    {"fe80::1", "NNNNNNYNNN"},
    {"!fe80::2-fe80::3", "NNNNNYYNNY"},
    {"fe80::/126", "NNNNNYYYYN"},
    {"fe80::2/ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe", "NNNNNNNYYN"},
    {"@m", "YNYYNNNYNN"},
    {"@n", "YNYYYNNNNN"},
    {"@x", "PPPPPPPPPP"},
    {"none", "PPPPPPPPPP"},
};
constexpr Known kPortItems[] = {
    {"any", "YYYYY"},       {"any", "YYYYY"}, {"any", "YYYYY"},  {"none", "YYYYY"},  {"1", "NYNNN"},
    {"!2", "YYNYY"},        {"3-1", "NYYYN"}, {"!0-1", "NNYYY"}, {"0,2-3", "YNYYN"}, {"list:2", "NNYNN"},
    {"list:!2,3", "PPPPP"}, {"@m", "NYNYN"},  {"@x", "PPPPP"},
};

template <class Item>
Item Parsed(const char* text, bool (*parse)(std::string_view, Item&, std::string&))
{
    Item item{};
    std::string why;
    EXPECT_TRUE(parse(text, item, why)) << text << ": " << why;
    return item;
}

/// Which items it has stands in the spare fields, which mean nothing to anybody else.
PFW_RULE RandomRule(Random& random, uint16_t index)
{
    static constexpr uint32_t kRuleProtocols[] = {0, 0, 1, 6, 17, 65536, 65536, 300};
    PFW_RULE rule = Build::Access(index, random() % 3 != 0   ? KXW("")
                                         : random() % 2 != 0 ? KXW("C:\\A.exe")
                                                             : KXW("c:\\b.exe"));
    rule.dwActive = random() % 8;
    rule.Access.dwProtocol = kRuleProtocols[random() % std::size(kRuleProtocols)];
    for (size_t i = 0; i < 2; ++i)
    {
        const uint32_t address = random() % std::size(kAddressItems);
        const uint32_t port = random() % std::size(kPortItems);
        rule.Access.Addr[i] = Parsed(kAddressItems[address].Text, KxPolicy::ParseAddress);
        rule.Access.Port[i] = Parsed(kPortItems[port].Text, KxPolicy::ParsePort);
        (i == 0 ? rule.Access.dwSpare1 : rule.Access.dwSpare2) = address << 8 | port;
    }
    rule.Access.dwExtFlag = random() % 16 == 0;
    return rule;
}

struct Packet // by place in the lists above
{
    size_t Protocol, Program, Addresses[2], Ports[2];
};

constexpr size_t kPackets = 3 * 3 * 10 * 10 * 5 * 5;

Packet PacketOf(size_t i)
{
    return {i / 7500, i / 2500 % 3, {i % 10, i / 10 % 10}, {i / 100 % 5, i / 500 % 5}};
}

/// N, P or Y.
char Matches(const PFW_RULE& rule, const Packet& packet)
{
    const uint32_t protocol = rule.Access.dwProtocol;
    const bool streams = packet.Protocol != 0;
    char answer = protocol == 0       ? 'Y'
                  : protocol == 65536 ? (streams ? 'Y' : 'N')
                  : protocol > 255    ? 'P'
                                      : (protocol == kProtocols[packet.Protocol] ? 'Y' : 'N');
    if (rule.Access.dwExtFlag != 0)
        answer = std::min(answer, 'P');
    for (size_t i = 0; i < 2; ++i)
    {
        const uint32_t items = i == 0 ? rule.Access.dwSpare1 : rule.Access.dwSpare2;
        answer = std::min(answer, kAddressItems[items >> 8].Holds[packet.Addresses[i]]);
        answer = std::min(answer, kPortItems[items & 255].Holds[packet.Ports[i]]);
        if (rule.Access.Port[i].nType > KXRULE_PORT_ANY && !streams)
            answer = 'N';
    }
    const auto application = KxCommon::Record::WideText(&rule.Access.wszAppName, KXRULE_APP_NAME_UNITS);
    const bool isItsOwn = application.empty() || KxCommon::String::EqualNoCase(application, kPrograms[packet.Program]);
    return rule.dwActive != 0 && isItsOwn ? answer : 'N';
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
            const char answer = Matches(rule, packet);
            if (answer != 'N')
                rules.insert(Number(index, rule, answer == 'Y'));
            if (answer == 'Y')
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
    Policy policy = ParsedPolicy("rules 1\nactive 2 1 2\n"
                                 "macro m\naddress=10.0.0.0/30\ntext=x\nport=1\naddress=fe80::2\n"
                                 "macro n\naddress=!10.0.0.1\ntext=x\nmacro m\naddress=!10.0.0.1\nport=list:3\n");
    for (uint16_t index = 1; index <= 3; ++index)
    {
        policy.RuleSets.push_back({index, {}, {}});
        for (uint16_t rule = 0; rule < random() % 6; ++rule)
            policy.RuleSets.back().Rules.push_back(RandomRule(random, rule));
    }
    return policy;
}

PFW_RULE QuestionOf(const Packet& packet)
{
    PFW_RULE question = Build::Access(0, kPrograms[packet.Program]);
    question.Access.dwProtocol = kProtocols[packet.Protocol];
    for (size_t side = 0; side < 2; ++side)
    {
        question.Access.Addr[side] = Parsed(kAddresses[packet.Addresses[side]], KxPolicy::ParseAddress);
        if (packet.Protocol != 0)
            question.Access.Port[side] = Build::Single(kPorts[packet.Ports[side]]);
    }
    return question;
}

} // namespace

TEST(Decide, AgreesWithAPacketByPacketLook)
{
    Random random(18);
    for (int round = 0; round < 300; ++round)
    {
        const Policy policy = RandomPolicy(random);
        const KxPolicy::Decider decider(policy);
        for (int i = 0; i < 20; ++i)
        {
            const Packet packet = PacketOf(random() % kPackets);
            bool isUndecided = false;
            const KxPolicy::Decision decision = decider.Decide(QuestionOf(packet));
            ASSERT_EQ(Found(decision), Expected(policy, packet, isUndecided)) << round << " " << i;
            ASSERT_EQ(decision.IsUndecided, isUndecided) << round << " " << i;
            ASSERT_EQ(!isUndecided,
                      !decision.Rules.empty() && decision.Rules.back().IsRest && decision.Rules.back().IsCertain);
        }
    }
}
