// Where a text stops being JSON. (What is JSON, and what its values are, tests/fuzz compares with a peer.)
#include "policy/JsonTree.h"

#include <gtest/gtest.h>

using KxPolicy::JsonTree;

TEST(JsonTree, SaysWhereTheTextStopsBeingJson)
{
    const struct
    {
        std::string Text;
        size_t Line, Column;
        const char* Expected;
    } cases[] = {
        {"", 1, 1, "unexpected end of input; expected '[', '{', or a literal"},
        {"[1 2]", 1, 4, "unexpected number literal; expected ']'"},
        {"[1,]", 1, 4, "unexpected ']'; expected '[', '{', or a literal"},
        {"{,}", 1, 2, "unexpected ','; expected string literal"},
        {"{\n  \"a\": 1\n  \"b\": 2}", 3, 3, "unexpected string literal; expected '}'"},
        {"{\"a\"; 4}", 1, 5, "invalid literal"},
        {"[\"\xC3\xA4\xC3\xB6\", x]", 1, 8, "texts stand between quotes"}, // columns count characters
        {"\xEF\xBB\xBF[x]", 1, 2, "texts stand between quotes"},           // and not the byte order mark
        {"[\n # no\n]", 2, 2, "comments are not possible"},
        {"[\"ab\\q\"]", 1, 6, "forbidden character after backslash"},
        {"[\"open,\n\"b\"]", 1, 8, "control character"},
        {"[\"open", 1, 2, "missing closing quote"},
        {"[1-]", 1, 3, "expected ']'"},
        {"[1] [2]", 1, 5, "expected end of input"},
        {std::string("[1]\0[2]", 7), 1, 4, "expected the end of the text"},
        {"[1e999]", 1, 2, "number overflow"},
        {"\xFF\xFE[", 1, 1, "UTF-16"},
        {std::string("\xFF\xFE\0\0", 4), 1, 1, "UTF-32"},
        {std::string(100000, '['), 1, 65, "nested too deep"},
    };
    for (const auto& c : cases)
    {
        const JsonTree tree(c.Text);
        ASSERT_TRUE(tree.Error()) << c.Text;
        const KxPolicy::Place place = KxPolicy::Locator(c.Text).Find(tree.Error()->Offset);
        EXPECT_EQ(std::pair(place.Line, place.Column), std::pair(c.Line, c.Column)) << c.Text.substr(0, 80);
        EXPECT_NE(tree.Error()->Text.find(c.Expected), std::string::npos) << tree.Error()->Text;
        for (const char* const internal : {"exception", "last read"})
            EXPECT_EQ(tree.Error()->Text.find(internal), std::string::npos) << tree.Error()->Text;
    }
}
