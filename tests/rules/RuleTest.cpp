// Port lists that are no lists. (What becomes of rules, and how macros are shown, tests/fuzz tells from a second
// implementation.)
#include "rules/Normalise.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/support/RecordBuilder.h"

namespace
{

using namespace Build;

TEST(Rule, TellsBlankPortLists)
{
    const std::pair<RULE_PORT, bool> cases[] = {
        {PortList(""), true},
        {PortList("\t\x01 \x1F"), true},
        {PortList("\x80\xFF"), true}, // bytes above 127 count as blanks
        {PortList(std::string(129, ' ')), true},
        {PortList(" !"), false},
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
