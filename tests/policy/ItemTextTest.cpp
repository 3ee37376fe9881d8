// Addresses and ports as people write them: in policies, and in the builders of the C++ layer, which have a reader of
// their own.
#include "policy/ItemText.h"

#include <cstring>
#include <sstream>

#include <gtest/gtest.h>

#include "api/include/KxPfwRuleBuilder.hpp"
#include "tests/support/RecordBuilder.h"

namespace
{

/// An address item as its bytes in hexadecimal, runs of zero bytes at the end left out.
template <class Item>
std::string Bytes(const Item& item)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    const unsigned char* const bytes = reinterpret_cast<const unsigned char*>(&item);
    size_t size = sizeof item;
    while (size > 0 && bytes[size - 1] == 0)
        --size;
    std::string text;
    for (size_t i = 0; i < size; ++i)
        text.append({kDigits[bytes[i] >> 4], kDigits[bytes[i] & 15]});
    return text;
}

} // namespace

TEST(ItemText, Addresses)
{
    const std::string spare = "00000000";
    struct Case
    {
        const char* Text;
        std::string Bytes; // type, negation, family, first address, spare, second address
        const char* Back;  // null: the same text
    };
    const std::string v4 = "02000000";
    const std::string v6 = "17000000";
    const std::string twelve(24, '0');
    const Case cases[] = {
        {"any", "01", nullptr},
        {"none", "", nullptr},
        {"10.0.0.1", "0200000000000000" + v4 + "0100000a", nullptr},
        {"!255.255.255.255", "0200000001000000" + v4 + "ffffffff", nullptr},
        {"10.0.0.0/8", "0400000000000000" + v4 + "0000000a" + twelve + spare + "08", nullptr},
        {"!10.0.0.0/255.0.0.0", "0300000001000000" + v4 + "0000000a" + twelve + spare + "000000ff", nullptr},
        {"10.0.0.1-10.0.0.9", "0500000000000000" + v4 + "0100000a" + twelve + spare + "0900000a", nullptr},
        {"fe80::1", "0200000000000000" + v6 + "fe800000000000000000000000000001", nullptr},
        {"FE80:0:0:0:0:0:0:1", "0200000000000000" + v6 + "fe800000000000000000000000000001", "fe80::1"},
        {"!fe80::/10", "0400000001000000" + v6 + "fe80" + std::string(28, '0') + spare + "0a", nullptr},
        {"fe80::1-fe80::9",
         "0500000000000000" + v6 + "fe800000000000000000000000000001" + spare + "fe800000000000000000000000000009",
         nullptr},
        {"2001:db8::/ffff:ffff::", "0300000000000000" + v6 + "20010db8" + twelve + spare + "ffffffff", nullptr},
        {"@web-servers", "070000007765622d73657276657273", nullptr},
        {"@", "07", nullptr},
    };
    for (const Case& c : cases)
    {
        RULE_ADDR item{};
        std::string why;
        ASSERT_TRUE(KxPolicy::ParseAddress(c.Text, item, why)) << c.Text << ": " << why;
        EXPECT_EQ(Bytes(item), c.Bytes) << c.Text;
        EXPECT_EQ(KxPolicy::AddressText(item), c.Back == nullptr ? c.Text : c.Back);
        const auto built = kxrule::Address::parse(c.Text);
        EXPECT_EQ(built ? Bytes(built->record()) : "07", c.Bytes) << c.Text; // a builder wants a name after the @
    }
    std::istringstream wrong(
        ";!;10;10.0.0;10.0.0.256;10.0.0.01;10.0.0.1/;10.0.0.1/33;10.0.0.1/255.0.0;10.0.0.1-;"
        "10.0.0.1-fe80::1;fe80::/129;1:2:3:4:5:6:7;1:2:3:4:5:6:7:8:9;1::2::3;:1;1:;1:2:3:4:5:6:7:;:::;"
        "12345::;g::;1:2:3:4:5:6:7::8:9;010.0.0.1;10.0.0.0/255.00.0.0;10.0.0.1:10.0.0.2; "
        "10.0.0.1;Any;!any;!@name;::1.2.3;1.2.3.4::;"
        "@12345678901234567890123456789012345678901234;");
    for (std::string text; std::getline(wrong, text, ';');)
    {
        RULE_ADDR item = Build::Address(KXRULE_ADDR_ANY);
        std::string why;
        EXPECT_FALSE(KxPolicy::ParseAddress(text, item, why)) << text;
        EXPECT_FALSE(kxrule::Address::parse(text)) << text;
        EXPECT_FALSE(why.empty()) << text;
        EXPECT_EQ(Bytes(item), Bytes(Build::Address(KXRULE_ADDR_ANY))) << text;
    }
}

// RFC 5952, sections 4 and 5.
TEST(ItemText, IPv6HasOneText)
{
    const struct
    {
        const char* Text;
        const char* Shortest;
    } cases[] = {
        {"::", "::"},
        {"0:0:0:0:0:0:0:1", "::1"},
        {"1:0:0:0:0:0:0:0", "1::"},
        {"2001:0DB8::0001", "2001:db8::1"},
        {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},
        {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},
        {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},
        {"::ffff:c000:0201", "::ffff:192.0.2.1"},
        {"::ffff:192.0.2.1", "::ffff:192.0.2.1"},
        {"64:ff9b::192.0.2.33", "64:ff9b::c000:221"},
        {"1:2:3:4:5:6:1.2.3.4", "1:2:3:4:5:6:102:304"},
        {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"},
        {"::2:3:4:5:6:7:8", "0:2:3:4:5:6:7:8"},
    };
    for (const auto& c : cases)
    {
        std::array<uint8_t, 16> address{};
        ASSERT_TRUE(KxPolicy::ParseIPv6(c.Text, address)) << c.Text;
        EXPECT_EQ(KxPolicy::IPv6Text(address), c.Shortest) << c.Text;
    }
}

TEST(ItemText, Ports)
{
    const struct
    {
        const char* Text;
        const char* Bytes; // type, then negation and two ports, or text
    } cases[] = {
        {"any", "01"},
        {"none", ""},
        {"80", "020000000000000050"},
        {"!65535", "0200000001000000ffff"},
        {"1000-2000", "0300000000000000e803d007"},
        {"!90-80", "03000000010000005a0050"},
        {"0-0", "03"},
        {"80,443,1000-2000", "0400000038302c3434332c313030302d32303030"},
        {"list:80", "040000003830"},
        {"list:", "04"},
        {"list: 80; x,", "040000002038303b20782c"},
        {"@http", "0500000068747470"},
    };
    for (const auto& c : cases)
    {
        RULE_PORT item{};
        std::string why;
        ASSERT_TRUE(KxPolicy::ParsePort(c.Text, item, why)) << c.Text << ": " << why;
        EXPECT_EQ(Bytes(item), c.Bytes) << c.Text;
        EXPECT_EQ(KxPolicy::PortText(item), c.Text);
        const auto built = kxrule::Port::parse(c.Text);
        const bool isList = std::string(c.Text).starts_with("list:"); // what a record can hold, but nobody builds
        EXPECT_EQ(built ? Bytes(built->record()) : "refused", isList ? "refused" : c.Bytes) << c.Text;
    }
    const std::string tooLong = "list:" + std::string(129, '1');
    for (const char* const text : {"", "!", "65536", "-1", "80-", "-80", "80-90-100", "80,", ",80", "80,,90", "80,x",
                                   "!80,90", "80:90", "80|90", " 80", "http", tooLong.c_str()})
    {
        RULE_PORT item = Build::Port(KXRULE_PORT_ANY);
        std::string why;
        EXPECT_FALSE(KxPolicy::ParsePort(text, item, why)) << text;
        EXPECT_FALSE(kxrule::Port::parse(text)) << text;
        EXPECT_FALSE(why.empty()) << text;
        EXPECT_EQ(item.nType, KXRULE_PORT_ANY) << text;
    }
}
