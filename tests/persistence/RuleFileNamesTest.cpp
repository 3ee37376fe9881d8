#include "persistence/RuleFileNames.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace
{

TEST(RuleFileNames, OnlyBareNamesAreUsed)
{
    for (const std::string name : {"KxRl0001.dat", "a", "a b.c.d", "COMA.dat", "CONS", "\xE4"})
        EXPECT_TRUE(RuleFiles::IsBareName(name)) << name;
    for (const std::string name :
         {"",    ".",  "..", "..\\x", "x/y", "C:x", "x*",      "x?",     "\"x",  "x<",       "x>",      "x|y",
          "x\n", "x.", "x ", ".x",    " x",  "con", "NUL.dat", "Aux .x", "com1", "LPT9.a.b", "COM\xB9", "CONIN$"})
        EXPECT_FALSE(RuleFiles::IsBareName(name)) << name;
    EXPECT_FALSE(RuleFiles::IsBareName(std::string("x\0y", 3)));
    EXPECT_TRUE(RuleFiles::IsBareName(std::string(200, 'x')));
    EXPECT_FALSE(RuleFiles::IsBareName(std::string(201, 'x')));
}

TEST(RuleFileNames, TellTheIndex)
{
    EXPECT_EQ(RuleFiles::RuleSetFileName(1), "KxRl0001.dat");
    EXPECT_EQ(RuleFiles::RuleSetFileName(0xFFAB), "KxRlFFAB.dat");
    const std::map<uint16_t, std::vector<std::string>> cases = {
        {0xAB, {"KxRl00AB.dat", "kxrl00ab.DAT"}},
        {0xFF00, {"KxRlFF00"}},
        {0xFFFF, {"KxRlFFFFF.dat"}},
        {0x12, {"KxRl12.dat"}},
        {1, {"KxRl1 23.dat"}},
        {0, {"KxRlGGGG.dat", "KxRl 001.dat", "KxRl-001.dat", "KxRl+001.dat", "KxRl0x1F.dat", "KxRl", "Kx", ""}}};
    for (const auto& [index, names] : cases)
    {
        for (const std::string& name : names)
            EXPECT_EQ(RuleFiles::IndexFromFileName(name), index) << name;
    }
}

TEST(RuleFileNames, RuleSetsAreFound)
{
    for (const std::string name :
         {"KxRl0001.dat", "kxrl00ab.DAT", "KxRlGGGG.dat", "KxRl.dat"}) // the last one not everywhere
        EXPECT_TRUE(RuleFiles::IsRuleSetFileName(name)) << name;
    for (const std::string name : {"KxRl00011.dat", "KxRl0001.data", "KxRl.1.dat", "KxRm0001.dat", "dat"})
        EXPECT_FALSE(RuleFiles::IsRuleSetFileName(name)) << name;
}

} // namespace
