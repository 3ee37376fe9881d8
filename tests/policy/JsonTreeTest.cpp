// What is JSON, against a peer, and where a text stops being it.
#include "policy/JsonTree.h"

#include <random>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using KxPolicy::JsonTree;

namespace
{

/// What is read out of a text is what tests/fuzz compares.
void ExpectSameAsPeer(const std::string& text)
{
    ASSERT_EQ(!JsonTree(text).Error(), nlohmann::json::accept(text)) << text;
}

} // namespace

TEST(JsonTree, AgreesWithAPeer)
{
    std::istringstream texts(
        R"(| |null|[]|{}|[1, -0, 0.5, 1e9, -2E-3, 12345678901]|[01]|[1.]|[.5]|[+1]|[1e]|[-]|[tru]|[true,false,null]|[1,])"
        R"(|[,1]|{"a":1,}|{"a" 1}|{a:1}|{"a":1 "b":2}|[1 2]|[1|[[[|{"a":|[1]]|[1}|{"a":[}|"\u00e9\ud83d\ude00\n\"\\\/")"
        R"(|"\ud83d"|"\ude00"|"\ud83d\u0041"|"\x"|"\u12g4"|"open|)"
        "\"\xC3\xA9\"|\"\xC3\"|\"\xC0\x80\"|\"\xED\xA0\x80\"|\"\xF4\x90\x80\x80\"|\"tab\there\"|// "
        "no\n[]|\xEF\xBB\xBF[1]|"
        "\xFF\xFE[");
    for (std::string text; std::getline(texts, text, '|');)
        ExpectSameAsPeer(text);

    std::mt19937 random(20240611);
    const std::string good = "{\"version\": 1, \"active\": [1, 3], \"t\": \"\\u00fc\xC3\xBC\\\\\", \"o\": {\"a\": "
                             "[true, null, -1.5, {}]}}";
    for (size_t cut = 0; cut < good.size(); ++cut)
        ExpectSameAsPeer(good.substr(0, cut));
    for (int round = 0; round < 5000; ++round)
    {
        std::string text = good;
        for (int change = 0; change < 2; ++change)
            text[random() % text.size()] = "{}[]:,\"\\ 0-eu1t\x80\n"[random() % 17];
        ExpectSameAsPeer(text);
    }
}

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
        {"[[[", 1, 4, "unexpected end of input"},
        {"[1e999]", 1, 2, "number overflow"},
        {"\xFF\xFE[", 1, 1, "UTF-16"},
        {std::string(100000, '['), 1, 65, "nested too deep"},
    };
    for (const auto& c : cases)
    {
        const JsonTree tree(c.Text);
        ASSERT_TRUE(tree.Error()) << c.Text;
        const KxPolicy::Place place = KxPolicy::Locator(c.Text).Find(tree.Error()->Offset);
        EXPECT_EQ(std::pair(place.Line, place.Column), std::pair(c.Line, c.Column)) << c.Text.substr(0, 80);
        EXPECT_NE(tree.Error()->Text.find(c.Expected), std::string::npos) << tree.Error()->Text;
        EXPECT_EQ(tree.Error()->Text.find("exception"), std::string::npos) << tree.Error()->Text;
    }
}
