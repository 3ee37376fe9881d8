// What items cover.
#include "policy/Ranges.h"

#include <gtest/gtest.h>

#include "policy/ItemText.h"
#include "tests/support/RecordBuilder.h"

namespace
{

RULE_ADDR Address(const std::string& text)
{
    RULE_ADDR item{};
    std::string why;
    EXPECT_TRUE(KxPolicy::ParseAddress(text, item, why)) << text;
    return item;
}

RULE_PORT Port(const std::string& text)
{
    RULE_PORT item{};
    std::string why;
    EXPECT_TRUE(KxPolicy::ParsePort(text, item, why)) << text;
    return item;
}

struct Case
{
    const char* Outer;
    const char* Inner;
    bool Covers;
    bool Back;
};

template <class Parse>
void ExpectCovers(const Case& c, const Parse& parse)
{
    EXPECT_EQ(KxPolicy::Covers(parse(c.Outer), parse(c.Inner)), c.Covers) << c.Outer << " " << c.Inner;
    EXPECT_EQ(KxPolicy::Covers(parse(c.Inner), parse(c.Outer)), c.Back) << c.Inner << " " << c.Outer;
}

} // namespace

TEST(Ranges, AddressesCover)
{
    const Case cases[] = {
        {"any", "10.0.0.1", true, false},
        {"any", "@x", true, false},
        {"any", "none", true, false},
        {"@x", "@x", true, true},
        {"@x", "@y", false, false},
        {"10.0.0.0/8", "10.255.255.255", true, false},
        {"10.0.0.0/8", "11.0.0.0", false, false},
        {"10.3.0.0/8", "10.0.0.0/255.0.0.0", true, true}, // bits outside the mask do not count
        {"10.0.0.0/9", "10.0.0.0-10.127.255.255", true, true},
        {"10.0.0.9-10.0.0.1", "10.0.0.5", true, false},
        {"10.0.0.0/255.0.255.0", "10.1.0.9", true, false},
        {"0.0.0.0/85.85.85.85", "0.0.0.0", false, false}, // too many gaps: cannot be told
        {"0.0.0.0/0", "!10.0.0.1", true, false},
        {"!10.0.0.1", "10.0.0.2", true, false},
        {"!10.0.0.1", "10.0.0.0/30", false, false},
        {"!10.0.0.1", "!10.0.0.0/8", true, false},
        {"!10.0.0.1", "any", false, true},
        {"fe80::/10", "fe80::1-febf::2", true, false},
        {"::/0", "10.0.0.1", false, false},
        {"2001:db8::/33", "2001:db8:7fff:ffff::", true, false},
    };
    for (const Case& c : cases)
        ExpectCovers(c, Address);
}

TEST(Ranges, PortsCover)
{
    const Case cases[] = {
        {"any", "80", true, false},         {"none", "@x", true, false},        {"@x", "@x", true, true},
        {"80-90", "80,85-90", true, false}, {"80,81-90", "80-90", true, true},  {"1-5,7-9", "5-7", false, false},
        {"!80", "81-65535", true, false},   {"!80", "0,79,90", true, false},    {"!80-90", "85", false, false},
        {"!0-65535", "5", false, false},    {"list:80;90", "80", false, false},
    };
    for (const Case& c : cases)
        ExpectCovers(c, Port);
}
