// Macros: from record to text.
#include "rules/Macro.h"

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
        {"mute", {Item(Port(KXRULE_PORT_ANY)), Item("x", 3), Item(Address(KXRULE_ADDR_ANY))}, 3, 0, "mute=,,"},
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

} // namespace
