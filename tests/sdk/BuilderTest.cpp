// The builders of the C++ layer, seen through the rules' own text. (tests/policy/ItemTextTest.cpp has the notation,
// examples/first-steps.cpp the rest of the builders.)
#include "api/include/KxPfwRuleBuilder.hpp"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <utility>

#include "common/srclib/KxComn_Names.h"
#include "rules/RuleText.h"

namespace
{

using namespace kxrule;

TEST(Builder, RulesReadAsTheyWereBuilt)
{
    const std::pair<PFW_RULE, const char*> rows[] = {
        {access().tcp().from("192.168.0.1").to("!10.0.0.0/255.0.0.0").port("80-90").accept().extension(7, 3, "abc"),
         "ACCESS,TCP,192.168.0.1,!10.0.0.0/255.0.0.0,,80:90,ACCEPT,7:3:abc"},
        {nat().udp().translated("192.168.1.1").fromPort("53").translatedPort("5353").natType(KXRULE_NAT_DNAT),
         "NAT,UDP,,,192.168.1.1,53,,5353,DNAT"},
        {throttle().tcp().port("80").limits({10, 20, 30, 40, 50, 60}), "THROTTLE,TCP,,,,80,10,20,30,40,50,60"},
        {stream().appProtocol(KXRULE_APP_HTTP).from("172.16.0.0/12").streamParam(8080).drop().streamText("x"),
         "STREAM,HTTP,172.16.0.0/12,,8080,DROP,0:0:,x"},
        {genStream().tcpUdp().from("10.0.0.1-10.0.0.9").direction(KXRULE_DIRECTION_OUT).params({1, 2, 3, 4}).ask(),
         "GENSTREAM,TCPUDP,10.0.0.1:10.0.0.9,,,,OUT,1,2,3,ASK,4,0:0:"},
    };
    for (const auto& [rule, expected] : rows)
    {
        RuleText::Line line;
        EXPECT_EQ(RuleText::Render(rule, line), 0);
        EXPECT_EQ(line.View(), expected);
    }
}

TEST(Builder, OnlyDescriptionsAreCut)
{
    using Wide = std::basic_string<KXWCHAR>;
    const Wide tooLong = Wide(63, KXWCHAR('x')) + KXW("\U0001F525"); // the character would be cut in half
    const PFW_RULE cut = access().description(tooLong).app(KXW("C:\\longer.exe")).app(KXW("a")).index(9).active(false);
    Wide description(65, KXWCHAR('?')), app(3, KXWCHAR('?'));
    std::memcpy(description.data(), &cut.wszDescription, sizeof cut.wszDescription);
    std::memcpy(app.data(), &cut.Access.wszAppName, 6);
    EXPECT_TRUE(description == Wide(63, KXWCHAR('x')) + Wide(2, KXWCHAR(0)));
    EXPECT_TRUE(app == Wide(KXW("a")) + Wide(2, KXWCHAR(0)));
    EXPECT_TRUE(cut.wRuleIndex == 9 && cut.dwActive == 0);
    EXPECT_TRUE(AppPath::parse(Wide(260, KXWCHAR('x'))) && !AppPath::parse(Wide(261, KXWCHAR('x'))));
    EXPECT_TRUE(MacroName::parse(std::string(31, 'x')) && !MacroName::parse(std::string(32, 'x')));
    EXPECT_FALSE(StreamText::parse(std::string("a\0b", 3)));
}

} // namespace
