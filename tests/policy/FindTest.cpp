// What is found in rules and macros, and in which of their fields.
#include "policy/Find.h"

#include <sstream>

#include <gtest/gtest.h>

#include "tests/support/ParsedPolicy.h"

TEST(Find, NamesTheFields)
{
    const KxPolicy::Policy policy = ParsedPolicy(R"(rules 1
macro web
port=80
text=Contact
macro lan
address=10.0.0.0/8
set 1 "Home Office"
1 ACCESS,ANY,!10.0.0.0/24,,,80:90,DROP
2 ACCESS,ANY,lan,fe80::1,web,,DROP
3 NAT,ANY,,,,443|8080,,,SNAT  description="Port 8080 home"
4 STREAM,HTTP,,,85,DROP,0:0:x80,GET /home
5 ACCESS,ANY,,,,,DROP  application=C:\Home\a.exe
6 THROTTLE,ANY,none,,1-2,,80,8080,80,80,80,80
)");
    const struct
    {
        const char* Query;
        const char* Hits; // rule or macro and fields
        bool WithAny = false;
    } cases[] = {
        {"10.1.0.0/16", "1 addresses; 2 addresses; lan items"},
        {"fe80::/64", "2 addresses"},
        {"fe80::1", "1 addresses; 2 addresses; 3 addresses; 4 addresses; 5 addresses; 6 addresses", true},
        {"80", "1 ports; 2 ports; 3 description; 4 extension; web items"},
        {"85-443", "1 ports; 3 ports; 4 streamParam"},
        {"1", "1 ports; 2 ports; 3 ports; 5 ports; 6 ports", true},
        {"HOME", "set name; 3 description; 4 streamText; 5 application"},
        {"lan", "2 addresses; lan name"},
        {"contact", "2 ports; web items"},
        {"nothing of that", ""},
        {"", ""},
    };
    for (const auto& c : cases)
    {
        std::string hits;
        for (const KxPolicy::Hit& hit : KxPolicy::Find(policy, c.Query, c.WithAny))
        {
            EXPECT_EQ(hit.RuleSet != nullptr, hit.Macro == nullptr);
            hits += (hits.empty() ? "" : "; ") +
                    (hit.Macro != nullptr  ? hit.Macro->Name
                     : hit.Rule != nullptr ? std::to_string(hit.Rule->wRuleIndex)
                                           : "set") +
                    " " + hit.Where;
        }
        EXPECT_EQ(hits, c.Hits) << c.Query;
    }
}

TEST(Find, SaysWhatIsWrongWithAQuery)
{
    std::istringstream queries(
        "10.20.0.0/99;fe80::1::2;1-70000;10.20.0.1;fe80::/10;10.20.0;abc:def;1-2;-5;5-;1-2-3;9.9.9.x;70000");
    std::string mistakes;
    for (std::string query; std::getline(queries, query, ';');)
        mistakes += KxPolicy::QueryMistake(query).empty() ? '-' : '!';
    EXPECT_EQ(mistakes, "!!!----------");
}
