// Macros: from record to text and back to record.
#include "rules/Macro.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/RecordBuilder.h"

namespace
{

using namespace Build;

TEST(Macro, HasAText)
{
    const struct
    {
        std::string Name;
        std::vector<MACRO_ITEM> Items;
        int32_t Count, Result;
        std::string Text;
    } cases[] = {
        {"web", {Item(PortList("80,8080")), Item(Single(Ip(10, 1, 1, 1)))}, 2, 0, "web=80|8080,10.1.1.1"},
        {"", {Item("a,b-c")}, 1, 0, "=a,b-c"},
        {"long", {Item(std::string(133, 't')), Item("u")}, 2, 0, "long=" + std::string(133, 't') + ",u"},
        {"mute", {Item(AnyPort()), Item("x", 3), Item(AnyAddress())}, 3, 0, "mute=,,"},
        {std::string(32, 'n'), {Item("x")}, 1, 0, std::string(31, 'n') + "=x"}, // no terminator
        {"none", {}, 0, -10053, "before"},
        {"negative", {Item("x")}, -1, -10053, "before"},
    };
    for (const auto& c : cases)
    {
        auto record = Macro(c.Name, c.Items);
        record->nItemCount = c.Count;
        std::string text = "before";
        EXPECT_EQ(CMacro(*record).GetMacroString(text), c.Result) << c.Name;
        EXPECT_EQ(text, c.Text);
        EXPECT_EQ(CMacro(*record).RecordBytes(), 40u + 137u * static_cast<uint32_t>(std::max(c.Count, 0)));
    }
}

TEST(Macro, FillsARecordWithTheBytesItCameFrom)
{
    const std::vector<MACRO_ITEM> items = {Patterned<MACRO_ITEM>(1), Patterned<MACRO_ITEM>(9)};
    const std::string name32(32, 'n'); // fills the field: no terminator
    const std::pair<CMacro, std::string> cases[] = {{CMacro(*Macro("web", items)), "web"},
                                                    {CMacro(*Macro(name32, items)), std::string(31, 'n')},
                                                    {CMacro(name32 + "n", items), std::string(31, 'n')}};
    for (const auto& [macro, name] : cases)
    {
        // Every other record in a caller's buffer begins at an odd address; its first word belongs to the caller.
        std::vector<unsigned char> buffer(1 + 314 + 1, 0xEE);
        std::vector<unsigned char> expected = buffer;
        std::memset(&expected[5], 0, 32);
        std::memcpy(&expected[5], name.data(), name.size());
        std::memcpy(&expected[37], "\2\0\0", 4);
        std::memcpy(&expected[41], items.data(), 274);
        macro.CopyRecord(&buffer[1]);
        EXPECT_EQ(buffer, expected) << name;
    }
}

} // namespace
