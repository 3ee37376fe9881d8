// The lines of rules and the texts of their items.
#include "rules/RuleText.h"

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "policy/RulesText.h"
#include "rules/Rule.h"
#include "tests/support/RecordBuilder.h"

namespace
{

using namespace Build;

const std::string kBefore = "what was there before";

template <class Item>
using ItemCases = std::vector<std::tuple<const char*, Item, std::string>>;

template <class Item>
void CheckItems(void (&append)(RuleText::Line&, const Item&), const ItemCases<Item>& cases)
{
    for (const auto& [name, item, expected] : cases)
    {
        RuleText::Line text;
        text += kBefore;
        append(text, item);
        EXPECT_EQ(text.View(), kBefore + expected) << name;
    }
}

RULE_ADDR OfType(uint32_t type)
{
    return Negated(Address(type, Ip(10, 1, 2, 255), Ip(0, 0, 0, 8)));
}

TEST(RuleText, ShowsAddresses)
{
    RULE_ADDR noFamily = OfType(2);
    noFamily.dwFamily = 0;
    const ItemCases<RULE_ADDR> cases = {
        {"any", OfType(1), ""},
        {"single", Single(Ip(255, 255, 255, 255)), "255.255.255.255"},
        {"mask", OfType(3), "!10.1.2.255/0.0.0.8"},
        {"prefix", OfType(4), "!10.1.2.255/8"},
        {"prefix is signed", Address(4, 0, 0xFFFFFFFF), "0.0.0.0/-1"},
        {"range", OfType(5), "!10.1.2.255:0.0.0.8"},
        {"type 0", OfType(0), "!10.1.2.255"},
        {"type 6", OfType(6), "!10.1.2.255"},
        {"type 8", OfType(8), "!10.1.2.255"},
        {"name", AddressName("dns"), "dns"}, // it lies where the others have their negation
        {"name without terminator", AddressName(std::string(44, 'n')), std::string(44, 'n')},
        {"IPv6", Negated(Address6(2)), ""},
        {"no family", noFamily, ""},
    };
    CheckItems(RuleText::AppendAddress, cases);
}

TEST(RuleText, ShowsPorts)
{
    const ItemCases<RULE_PORT> cases = {
        {"negative type", Port(-1, 80), ""},
        {"none", Port(0, 80), ""},
        {"any", Port(1, 80), ""},
        {"negated single", Negated(Port(2, 65535, 7)), "!65535"},
        {"negated range", Negated(PortRange(80, 90)), "!80:90"},
        {"list", PortList("80,443,1000-2000"), "80|443|1000:2000"},
        {"list without terminator", PortList(std::string(129, '1')), std::string(129, '1')},
        {"name", PortText(5, "a-b,c"), "a-b,c"},
        {"name without terminator", PortText(5, std::string(129, 'n')), std::string(129, 'n')},
        {"unknown type", Port(6, 80), ""},
    };
    CheckItems(RuleText::AppendPort, cases);
}

const std::string kLines[] = {"",
                              "ACCESS,TCP,192.168.0.1,!10.0.0.0/255.0.0.0,,80:90,ACCEPT,7:3:abc",
                              "NAT,UDP,10.0.0.5,,192.168.1.1,53,,5353,DNAT",
                              "THROTTLE,TCP,,,,80,10,20,30,40,50,60",
                              "STREAM,HTTP,172.16.0.0/12,,8080,DROP,0:0:,x",
                              "GENSTREAM,TCPUDP,10.0.0.1:10.0.0.9,,20:21|25,,OUT,1,2,3,ASK,4,5:6:t"};

PFW_RULE Example(uint32_t kind)
{
    PFW_RULE rule{};
    bool hasIndex = false;
    std::vector<KxPolicy::Diagnostic> errors;
    EXPECT_TRUE(KxPolicy::ReadAnyRule(kLines[kind], rule, hasIndex, errors)) << kLines[kind];
    return rule;
}

void CheckLine(const PFW_RULE& rule, const std::string& line)
{
    RuleText::Line text;
    text += kBefore;
    EXPECT_EQ(CRule(rule).GetRuleString(text), 0) << line;
    EXPECT_EQ(text.View(), line);
}

// The example's line with a part of it replaced.
std::string Line(uint32_t kind, const std::string& part, const std::string& by)
{
    std::string line = kLines[kind];
    return line.replace(line.find(part), part.size(), by);
}

TEST(RuleText, ShowsRules)
{
    // How a part of the example's line changes with four bytes of the record.
    const struct
    {
        uint32_t Kind;
        size_t Offset;
        std::string Part;
        std::vector<std::pair<uint32_t, std::string>> Changes;
    } cases[] = {
        {1, 144, "TCP", {{0, "ANY"}, {1, "ICMP"}, {17, "UDP"}, {65536, "TCPUDP"}, {2, ""}, {0xFFFFFFFF, ""}}},
        {1, 514, "ACCEPT", {{0, ""}, {2, "DROP"}, {3, "REJECT"}, {4, "RESET"}, {5, "ASK"}, {6, ""}}},
        {1, 518, ",7:3:abc", {{0x80000000, ",7:3:abc"}, {0, ""}}},
        {1, 522, "7:3:abc", {{0xFFFFFFFF, "-1:3:abc"}}},
        {1, 526, "3:abc", {{0xFFFF, "65535:"}}}, // the first bytes of the text go with it
        {2, 687, "DNAT", {{0, ""}, {1, "SNAT"}, {2, "MASQ"}, {4, "RDIR"}, {5, ""}}},
        {3, 506, ",10,20", {{0xFFFF8000, ",32768,65535"}}},
        {3, 518, ",60", {{1, ",60,0:0:"}}},
        {4, 140, "HTTP", {{0, ""}, {2, "SMTP"}, {3, ""}}},
        {4, 240, "8080", {{0x80000000, "-2147483648"}}},
        {4, 514, ",x", {{0, ","}}},
        {5, 506, "OUT", {{0, ""}, {1, "IN"}, {3, "ANY"}, {4, ""}}},
        {5, 518, ",3,", {{0xFFFFFFFF, ",-1,"}}},
        {5, 526, ",4,", {{0xFFFFFFFF, ",-1,"}}},
        {5, 796, "6:t", {{'x', "6:t,x"}, {'y' << 8, "6:t,"}, {'z' << 16, "6:t"}}},
    };
    for (const auto& c : cases)
        for (const auto& [value, by] : c.Changes)
        {
            PFW_RULE rule = Example(c.Kind);
            std::memcpy(reinterpret_cast<char*>(&rule) + c.Offset, &value, 4);
            CheckLine(rule, Line(c.Kind, c.Part, by));
        }

    // Texts that fill their fields: kind, offset, size, and what the line has around them.
    const std::tuple<uint32_t, size_t, size_t, std::string, std::string, std::string> texts[] = {
        {1, 528, 256, "abc", "", ""},
        {4, 258, 256, ":,", ":", ","},
        {4, 514, 2331, ",x", ",", ""},
        {5, 540, 256, ":t", ":", ""},
        {5, 796, 2049, "6:t", "6:t,", ""}};
    for (const auto& [kind, offset, size, part, before, after] : texts)
    {
        PFW_RULE rule = Example(kind);
        std::memset(reinterpret_cast<char*>(&rule) + offset, 'e', size);
        CheckLine(rule, Line(kind, part, before + std::string(size, 'e') + after));
    }

    // The longest of all lines.
    PFW_RULE longest = Example(KXRULE_KIND_GENSTREAM);
    std::memset(reinterpret_cast<char*>(&longest) + 540, 'e', 256 + 2049); // both texts
    const std::string name(44, 'n'), ports(129, 'p'), number = "-2147483648";
    PFW_GENSTREAM& stream = longest.GenStream;
    stream.Addr[0] = stream.Addr[1] = AddressName(name);
    stream.Port[0] = stream.Port[1] = PortText(KXRULE_PORT_NAME, ports);
    stream.dwDirection = KXRULE_DIRECTION_ANY;
    stream.dwParam[0] = stream.dwParam[1] = stream.dwParam[2] = stream.dwParam3 = stream.dwExtValue = 0x80000000;
    stream.dwAction = KXRULE_ACTION_REJECT;
    stream.wExtValue = 0xFFFF;
    CheckLine(longest, "GENSTREAM,TCPUDP," + name + "," + name + "," + ports + "," + ports + ",ANY," + number + "," +
                           number + "," + number + ",REJECT," + number + "," + number +
                           ":65535:" + std::string(256, 'e') + "," + std::string(2049, 'e'));
}

} // namespace
