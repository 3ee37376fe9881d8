// The JSON reader, against another one and by the places it names.
#include "policy/JsonTree.h"

#include <random>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using KxPolicy::JsonTree;
using KxPolicy::JsonValue;

namespace
{

/// The tree as nlohmann's, so that the two can be compared.
nlohmann::json Convert(JsonValue value)
{
    switch (value.Kind())
    {
    case JsonTree::Kind::True:
    case JsonTree::Kind::False:
        return value.Is(JsonTree::Kind::True);
    case JsonTree::Kind::Number:
        return nlohmann::json::parse(value.Raw());
    case JsonTree::Kind::String:
        return value.Text();
    case JsonTree::Kind::Array:
    {
        nlohmann::json array = nlohmann::json::array();
        value.ForEachItem([&](JsonValue item) { array.push_back(Convert(item)); });
        return array;
    }
    case JsonTree::Kind::Object:
    {
        nlohmann::json object = nlohmann::json::object();
        value.ForEachMember([&](JsonValue name, JsonValue member) { object[name.Text()] = Convert(member); });
        return object;
    }
    default:
        return nullptr;
    }
}

void ExpectSameAsPeer(const std::string& text)
{
    const JsonTree tree(text);
    const nlohmann::json peer = nlohmann::json::parse(text, nullptr, false);
    ASSERT_EQ(tree.Complaints().empty(), !peer.is_discarded()) << text;
    if (!peer.is_discarded())
    {
        ASSERT_EQ(Convert(tree.Root()), peer) << text;
    }
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

TEST(JsonTree, GoesOnAfterAMistake)
{
    struct Case
    {
        const char* Text;
        std::vector<std::pair<size_t, size_t>> Places; // line, column
    };
    const Case cases[] = {
        {"[1 2, tru, \"\\q\"]", {{1, 4}, {1, 7}, {1, 13}}},
        {"{\n  \"a\": 1\n  \"b\": nul,\n  c: 3,\n  \"d\"; 4, \"e\": [1,]\n}",
         {{3, 3}, {3, 8}, {4, 3}, {5, 6}, {5, 18}}},
        {"[\"\xC3\xA4\xC3\xB6\", x]", {{1, 8}}}, // columns count characters
        {"\xEF\xBB\xBF[x]", {{1, 2}}},           // and not the byte order mark
        {"[\"open,\n\"b\", {\"c\": 1}, #]", {{1, 2}, {2, 1}, {2, 16}}},
        {"{\"a\": {\"b\": [1, 2}", {{1, 18}, {1, 1}}},
    };
    for (const Case& c : cases)
    {
        const JsonTree tree(c.Text);
        KxPolicy::Locator locator(c.Text);
        std::vector<std::pair<size_t, size_t>> places;
        for (const KxPolicy::Complaint& complaint : tree.Complaints())
        {
            const KxPolicy::Place place = locator.Find(complaint.Offset);
            places.emplace_back(place.Line, place.Column);
        }
        EXPECT_EQ(places, c.Places) << c.Text;
    }
}

TEST(JsonTree, IsBounded)
{
    const std::string deep(100000, '[');
    EXPECT_EQ(JsonTree(deep).Complaints().size(), 1u);
    std::string wrong = "[";
    for (int i = 0; i < 100000; ++i)
        wrong += "x,";
    EXPECT_LE(JsonTree(wrong).Complaints().size(), 1001u);
}

TEST(JsonTree, QuotesAnyBytes)
{
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes += static_cast<char>(i);
    std::string quoted;
    KxPolicy::AppendJsonString(quoted, bytes);
    const std::string text = nlohmann::json::parse(quoted);
    EXPECT_EQ(text.substr(0, 128), bytes.substr(0, 128));
    EXPECT_EQ(text.substr(128, 6), "\xEF\xBF\xBD\xEF\xBF\xBD");
}
