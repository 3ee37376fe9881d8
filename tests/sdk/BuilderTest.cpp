// The builders of the C++ layer, checked through the rules' text and through bytes.
#include "api/include/KxPfwRuleBuilder.hpp"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "common/srclib/KxComn_Names.h"
#include "rules/Macro.h"
#include "rules/RuleText.h"
#include "tests/support/Hex.h"

namespace
{

using namespace kxrule;

std::string Text(const PFW_RULE& rule)
{
    std::string line;
    EXPECT_EQ(RuleText::Render(rule, line), 0);
    return line;
}

TEST(Builder, RulesReadAsTheyWereBuilt)
{
    EXPECT_EQ(
        Text(
            access().tcp().from("192.168.0.1").to("!10.0.0.0/255.0.0.0").port("80-90").accept().extension(7, 3, "abc")),
        "ACCESS,TCP,192.168.0.1,!10.0.0.0/255.0.0.0,,80:90,ACCEPT,7:3:abc");
    EXPECT_EQ(Text(nat()
                       .udp()
                       .from("10.0.0.5")
                       .translated("192.168.1.1")
                       .fromPort("53")
                       .translatedPort("5353")
                       .natType(KXRULE_NAT_DNAT)),
              "NAT,UDP,10.0.0.5,,192.168.1.1,53,,5353,DNAT");
    EXPECT_EQ(Text(throttle().tcp().port("80").limits({10, 20, 30, 40, 50, 60})),
              "THROTTLE,TCP,,,,80,10,20,30,40,50,60");
    EXPECT_EQ(
        Text(stream().appProtocol(KXRULE_APP_HTTP).from("172.16.0.0/12").streamParam(8080).drop().streamText("x")),
        "STREAM,HTTP,172.16.0.0/12,,8080,DROP,0:0:,x");
    EXPECT_EQ(Text(genStream()
                       .tcpUdp()
                       .from("10.0.0.1-10.0.0.9")
                       .fromPort("20-21,25")
                       .direction(KXRULE_DIRECTION_OUT)
                       .params({1, 2, 3, 4})
                       .ask()
                       .extension(5, 6, "t")),
              "GENSTREAM,TCPUDP,10.0.0.1:10.0.0.9,,20:21|25,,OUT,1,2,3,ASK,4,5:6:t");
}

TEST(Builder, OnlyDescriptionsAreCut)
{
    using Wide = std::basic_string<KXWCHAR>;
    const Wide tooLong = Wide(63, KXWCHAR('x')) + KXW("\U0001F525"); // the character would be cut in half
    const PFW_RULE cut = access().description(tooLong).app(KXW("C:\\longer.exe")).app(KXW("a")).index(9).active(false);
    Wide description(65, KXWCHAR('?'));
    Wide app(3, KXWCHAR('?'));
    std::memcpy(description.data(), &cut.wszDescription, sizeof cut.wszDescription);
    std::memcpy(app.data(), &cut.Access.wszAppName, 6);
    EXPECT_TRUE(description == Wide(63, KXWCHAR('x')) + Wide(2, KXWCHAR(0)));
    EXPECT_TRUE(app == Wide(KXW("a")) + Wide(2, KXWCHAR(0)));
    EXPECT_EQ(cut.wRuleIndex, 9);
    EXPECT_EQ(cut.dwActive, 0u);
    EXPECT_TRUE(AppPath::parse(Wide(260, KXWCHAR('x'))));
    EXPECT_FALSE(AppPath::parse(Wide(261, KXWCHAR('x'))));
    EXPECT_TRUE(MacroName::parse(std::string(31, 'x')));
    EXPECT_FALSE(MacroName::parse(std::string(32, 'x')));
    EXPECT_FALSE(StreamText::parse(std::string("a\0b", 3)));
}

/// True if the record begins with these bytes (hexadecimal) and has only zeros after them.
template <class Record>
bool Holds(const Record& record, const char* hex)
{
    Bytes expected = FromHex(hex);
    expected.resize(sizeof record);
    return std::memcmp(&record, expected.data(), sizeof record) == 0;
}

struct Row
{
    const char* text;
    const char* bytes; // null: not understood
};

TEST(Builder, Addresses)
{
    const Row rows[] = {
        // type, negated, family, first address, spare, second
        {"any", "01000000"},
        {"!10.1.2.3", "02000000 01000000 02000000 0302010a"},
        {"10.0.0.0/8", "04000000 00000000 02000000 0000000a000000000000000000000000 00000000 08"},
        {"10.0.0.0/255.0.0.0", "03000000 00000000 02000000 0000000a000000000000000000000000 00000000 000000ff"},
        {"fe80::1", "02000000 00000000 17000000 fe800000000000000000000000000001"},
        {"::", "02000000 00000000 17000000"},
        {"1:2:3:4:5:6:7:8", "02000000 00000000 17000000 00010002000300040005000600070008"},
        {"::ffff:1.2.3.4", "02000000 00000000 17000000 00000000000000000000ffff01020304"},
        {"2001:DB8::/32", "04000000 00000000 17000000 20010db8000000000000000000000000 00000000 20"},
        {"fe80::1-::2", "05000000 00000000 17000000 fe800000000000000000000000000001 00000000 "
                        "00000000000000000000000000000002"},
        {"@lan", "07000000 6c616e"},
        {"none", ""},
    };
    for (const Row& row : rows)
    {
        const auto address = Address::parse(row.text);
        ASSERT_TRUE(address) << row.text;
        EXPECT_TRUE(Holds(address->record(), row.bytes)) << row.text;
    }
    for (const char* text : {"",
                             "10.0.0",
                             "10.0.0.256",
                             "10.0.0.0/33",
                             "10.0.0.0/",
                             "10.0.0.1-fe80::1",
                             "10.0.0.1-",
                             "!any",
                             "1::2::3",
                             ":::",
                             "1:2:3:4:5:6:7",
                             "1:2:3:4:5:6:7:8:9",
                             "1:2:3:4:5:6:7::8:9",
                             "1.2.3.4::",
                             "fe80::/129",
                             "12345::",
                             "g::",
                             "@",
                             "0x10.0.0.1",
                             "010.0.0.1",
                             "10.0.0.0/255.00.0.0",
                             "::1.2.3.04",
                             " 10.0.0.1"})
        EXPECT_FALSE(Address::parse(text)) << text;
}

TEST(Builder, Ports)
{
    const Row rows[] = {
        // type, then negated and the two ports, or the text
        {"any", "01000000"},
        {"80", "02000000 00000000 5000"},
        {"!0-65535", "03000000 01000000 0000ffff"},
        {"80,1000-2000", "04000000 38302c313030302d32303030"},
        {"@web", "05000000 776562"},
    };
    for (const Row& row : rows)
    {
        const auto port = Port::parse(row.text);
        ASSERT_TRUE(port) << row.text;
        EXPECT_TRUE(Holds(port->record(), row.bytes)) << row.text;
    }
    const std::string tooLong = "@" + std::string(129, 'p');
    for (const char* text : {"", "65536", "80-", "-80", "80,", ",80", "80,,81", "!80,81", "@", "http", tooLong.c_str()})
        EXPECT_FALSE(Port::parse(text)) << text;
}

TEST(Builder, MacrosGrowByItems)
{
    Macro macro("web");
    macro.add(Port("80,8080")).add(Address("10.1.1.1")).addText("text");
    std::string text;
    EXPECT_EQ(CMacro(macro).GetMacroString(text), 0);
    EXPECT_EQ(text, "web=80|8080,10.1.1.1,text");
}

} // namespace
