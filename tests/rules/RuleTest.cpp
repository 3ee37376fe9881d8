// What happens to a record when a rule is made from it, apart from its hash.
#include "rules/Rule.h"

#include <cstring>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "rules/Normalise.h"
#include "tests/support/RecordBuilder.h"
#include "tests/support/TraceSink.h"

namespace
{

using namespace Build;

bool SameBytes(const PFW_RULE& a, const PFW_RULE& b)
{
    return std::memcmp(&a, &b, 2845) == 0;
}

// Makes access rules of both layouts from records with an item in either place. (That rules of other kinds stay as they
// are, tests/fuzz shows.)
template <class Item>
void CheckStored(const char* name, Item (PFW_ACCESS::*items)[2], const Item& given, const Item& stored)
{
    for (const uint32_t kind : {1u, 6u})
        for (const int i : {0, 1})
        {
            PFW_RULE record = Patterned<PFW_RULE>(); // no field is a range, zero or terminated by chance
            record.dwKind = kind;
            (record.Access.*items)[i] = given;
            const CRule rule(record);
            (record.Access.*items)[i] = stored;
            // The last unit of the application's path.
            std::memset(reinterpret_cast<char*>(&record) + (kind == 1 ? 1304 : 1308), 0, 2);
            EXPECT_TRUE(SameBytes(rule.Record(), record)) << name << ", kind " << kind << ", item " << i;
        }
}

// All bytes differ, which shows whether the twelve after an IPv4 address stay and those of an IPv6 address are
// exchanged too.
RULE_ADDR Range(uint32_t family, uint32_t begin1, uint32_t begin2, uint32_t type = 5)
{
    RULE_ADDR item = Patterned<RULE_ADDR>();
    item.dwType = type;
    item.dwFamily = family;
    item.Addr1.dwIPv4 = begin1;
    item.Addr2.dwIPv4 = begin2;
    return item;
}

TEST(Rule, PutsAccessRangesInOrder)
{
    const RULE_ADDR v6 = Range(23, 0x01000090, 0x02000010);
    RULE_ADDR swapped = v6;
    swapped.Addr1 = v6.Addr2;
    swapped.Addr2 = v6.Addr1;
    const std::tuple<const char*, RULE_ADDR, RULE_ADDR> addresses[] = {
        {"IPv4 in reverse", Range(2, Ip(10, 0, 0, 9), Ip(10, 0, 0, 1)), Range(2, Ip(10, 0, 0, 1), Ip(10, 0, 0, 9))},
        {"IPv4 in order", Range(2, 1, 0x80000000), Range(2, 1, 0x80000000)},
        {"IPv4 mask", Range(2, 9, 1, 3), Range(2, 9, 1, 3)},
        {"IPv6 in reverse", v6, swapped},
        {"IPv6 in order", swapped, swapped},
        {"IPv6, last byte", Address6(5, 0x90, 0x10), Address6(5, 0x10, 0x90)},
        {"another family", Range(7, 9, 1), Range(7, 9, 1)},
    };
    const std::tuple<const char*, RULE_PORT, RULE_PORT> ports[] = {
        {"ports in reverse", Negated(PortRange(90, 80)), Negated(PortRange(80, 90))},
        {"ports in order", PortRange(80, 40000), PortRange(80, 40000)},
        {"single port", Port(2, 90, 80), Port(2, 90, 80)},
    };
    for (const auto& [name, given, stored] : addresses)
        CheckStored(name, &PFW_ACCESS::Addr, given, stored);
    for (const auto& [name, given, stored] : ports)
        CheckStored(name, &PFW_ACCESS::Port, given, stored);
}

TEST(Rule, IsOtherwiseCopiedAsItStands)
{
    EXPECT_TRUE(SameBytes(CRule().Record(), Rule(0)));
    PFW_RULE record = Patterned<PFW_RULE>();
    record.dwKind = 1;
    record.Access.Port[0] = PortRange(90, 80);
    CRule rule;
    rule.SetRule(record);
    PFW_RULE out;
    EXPECT_EQ(CRule(rule).GetRule(&out), 0);
    EXPECT_TRUE(SameBytes(out, record));

    TraceSink trace;
    EXPECT_EQ(rule.GetRule(nullptr), -10012);
    EXPECT_EQ(trace.Take(),
              std::vector<std::string>{"256 CRule::GetRule(): Pointer to rule structure (parameter) is NULL."});
}

TEST(Rule, TellsBlankPortLists)
{
    const std::pair<RULE_PORT, bool> cases[] = {
        {PortList(""), true},
        {PortList("\t\x01 \x1F"), true},
        {PortList("\x80\xFF"), true}, // bytes above 127 count as blanks
        {PortList(std::string(129, ' ')), true},
        {PortList(" 80"), false},
        {PortList(std::string(128, ' ') + '8'), false},
        {PortText(5, " "), false},
    };
    for (const auto& [port, isBlank] : cases)
        for (const int i : {0, 1})
        {
            PFW_RULE record = Access();
            record.Access.Port[1].nType = record.Access.dwAction = '!'; // after either list stands what is no blank
            record.Access.Port[i] = port;
            EXPECT_EQ(Normalise::HasBlankPortList(record), isBlank) << std::string(port.szList, 4);
        }
}

} // namespace
