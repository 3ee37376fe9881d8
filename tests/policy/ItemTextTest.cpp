// Addresses and ports as people write them: in policies, and in the builders of the C++ layer, which have a reader of
// their own.
#include "policy/ItemText.h"

#include <sstream>

#include <gtest/gtest.h>

#include "api/include/KxPfwRuleBuilder.hpp"
#include "policy/RecordText.h"
#include "policy/Utf8.h"

namespace
{

/// Pairs of hexadecimal digits without zero bytes at the end.
std::string WithoutEnd(std::string digits)
{
    while (digits.ends_with("00"))
        digits.resize(digits.size() - 2);
    return digits;
}

template <class Item>
std::string BytesOf(const Item& item)
{
    return WithoutEnd(KxPolicy::HexText(&item, sizeof item));
}

struct Case
{
    std::string Text, Bytes;
    std::string Back = {}; // how it is shown, if not as it was written
};

template <class Builder, class Item>
void Check(bool (&parse)(std::string_view, Item&, std::string&), std::string (&show)(const Item&),
           const std::vector<Case>& cases, const std::string& wrong) // separated by semicolons
{
    for (const Case& c : cases)
    {
        Item item{};
        std::string why;
        ASSERT_TRUE(parse(c.Text, item, why)) << c.Text << ": " << why;
        EXPECT_EQ(BytesOf(item), WithoutEnd(c.Bytes)) << c.Text;
        EXPECT_EQ(show(item), c.Back.empty() ? c.Text : c.Back);
        // A record can hold a name without letters and any list; a builder makes neither.
        const auto built = Builder::parse(c.Text);
        const bool isRecordsAlone = c.Text == "@" || c.Text.starts_with("list:");
        EXPECT_EQ(built ? BytesOf(built->record()) : "refused", isRecordsAlone ? "refused" : BytesOf(item)) << c.Text;
    }
    std::istringstream all(wrong);
    for (std::string text; std::getline(all, text, ';');)
    {
        Item item{};
        item.dwNot = 9;
        std::string why;
        EXPECT_FALSE(parse(text, item, why) || Builder::parse(text)) << text;
        EXPECT_FALSE(why.empty()) << text;
        EXPECT_EQ(BytesOf(item), "0000000009") << text;
    }
}

} // namespace

TEST(ItemText, Addresses)
{
    // Family, first address, spare field and second address, after type and negation.
    const auto v4 = [](const std::string& first, const std::string& second = "")
    { return "02000000" + first + std::string(32, '0') + second; };
    const auto v6 = [](const std::string& first, const std::string& second = "")
    { return "17000000" + first + std::string(40 - first.size(), '0') + second; };
    const std::string is = "0200000000000000", isNot = "0200000001000000";
    const std::vector<Case> cases = {
        {"any", "01"},
        {"none", ""},
        {"10.0.0.1", is + v4("0100000a")},
        {"!255.255.255.255", isNot + v4("ffffffff")},
        {"10.0.0.0/8", "0400000000000000" + v4("0000000a", "08")},
        {"!10.0.0.0/255.0.0.0", "0300000001000000" + v4("0000000a", "000000ff")},
        {"10.0.0.1-10.0.0.9", "0500000000000000" + v4("0100000a", "0900000a")},
        {"!fe80::/10", "0400000001000000" + v6("fe80", "0a")},
        {"fe80::1-fe80::9",
         "0500000000000000" + v6("fe800000000000000000000000000001", "fe800000000000000000000000000009")},
        {"2001:db8::/ffff:ffff::", "0300000000000000" + v6("20010db8", "ffffffff")},
        {"@web-servers", "070000007765622d73657276657273"},
        {"@", "07"},
        // An IPv6 address has one text: RFC 5952, sections 4 and 5.
        {"::", is + v6("")},
        {"0:0:0:0:0:0:0:1", is + v6("00000000000000000000000000000001"), "::1"},
        {"2001:0DB8::000A", is + v6("20010db800000000000000000000000a"), "2001:db8::a"},
        {"2001:db8:0:1:1:1:1:1", is + v6("20010db8000000010001000100010001")},
        {"2001:0:0:1:0:0:0:1", is + v6("20010000000000010000000000000001"), "2001:0:0:1::1"},
        {"2001:db8:0:0:1:0:0:1", is + v6("20010db8000000000001000000000001"), "2001:db8::1:0:0:1"},
        {"::ffff:c000:0201", is + v6("00000000000000000000ffffc0000201"), "::ffff:192.0.2.1"},
        {"::ffff:192.0.2.1", is + v6("00000000000000000000ffffc0000201")},
        {"64:ff9b::192.0.2.33", is + v6("0064ff9b0000000000000000c0000221"), "64:ff9b::c000:221"},
        {"1:2:3:4:5:6:1.2.3.4", is + v6("00010002000300040005000601020304"), "1:2:3:4:5:6:102:304"},
        {"1:2:3:4:5:6:7::", is + v6("00010002000300040005000600070000"), "1:2:3:4:5:6:7:0"},
        {"::2:3:4:5:6:7:8", is + v6("00000002000300040005000600070008"), "0:2:3:4:5:6:7:8"},
    };
    Check<kxrule::Address>(
        KxPolicy::ParseAddress, KxPolicy::AddressText, cases,
        ";!;10;10.0.0;10.0.0.256;10.0.0.01;10.0.0.1/;10.0.0.1/33;10.0.0.1/255.0.0;10.0.0.1-;"
        "10.0.0.1-fe80::1;fe80::/129;1:2:3:4:5:6:7;1:2:3:4:5:6:7:8:9;1::2::3;:1;1:;1:2:3:4:5:6:7:;:::;"
        "12345::;g::;1:2:3:4:5:6:7::8:9;010.0.0.1;10.0.0.0/255.00.0.0;10.0.0.1:10.0.0.2; "
        "10.0.0.1;Any;!any;!@name;::1.2.3;1.2.3.4::;@12345678901234567890123456789012345678901234");
}

TEST(ItemText, Ports)
{
    const std::vector<Case> cases = {
        {"any", "01"}, // type, then negation and two ports, or text
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
    Check<kxrule::Port>(KxPolicy::ParsePort, KxPolicy::PortText, cases,
                        ";!;65536;-1;80-;-80;80-90-100;80,;,80;80,,90;80,x;!80,90;80:90;80|90; 80;http;list:" +
                            std::string(129, '1'));
}

TEST(ItemText, OnlyShowsWhatCanBeWrittenBack)
{
    const std::pair<std::string, std::string> rows[] = {
        {"a", "a"}, {"\x80\xFE", "\u80FE"}, {"a\xFE", "a\u8145"}, {"\xFFz", "?z"}};
    for (const auto& [narrow, shown] : rows)
        EXPECT_EQ(KxPolicy::NarrowToReturnableUtf8(narrow), shown);
    EXPECT_EQ(KxPolicy::NarrowToUtf8("\xFFz"), "\uF8F3z");
}
