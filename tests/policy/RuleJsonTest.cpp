// Policies as JSON: what people write, what comes back, and everything that is wrong in a file.
#include "policy/RuleJson.h"

#include <fstream>
#include <set>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "policy/RuleFields.h"
#include "policy/RulesText.h"
#include "tests/support/ParsedPolicy.h"

using KxPolicy::Diagnostic;
using KxPolicy::Policy;

namespace
{

std::string Texts(const std::vector<Diagnostic>& errors)
{
    std::string text;
    for (const Diagnostic& error : errors)
        text += std::to_string(error.Line) + ":" + std::to_string(error.Column) + " " + error.Path + ": " + error.Text +
                "\n";
    return text;
}

} // namespace

TEST(RuleJson, ReadsLinesOfText)
{
    const struct
    {
        const char* Line;
        const char* Back; // or what is wrong, from its column on
    } cases[] = {
        {"ACCESS,TCP,web,!10.0.0.0/8,1000:2000,80|443,DROP  (off)", nullptr},
        {"ACCESS,ANY,fe80::1,!fe80::/10,,,ASK,-1:3:a, b", nullptr},
        {"access,tcp,10.0.0.1:10.0.0.9,,,80,accept description=\"a b\"  application=C:\\a.exe",
         "ACCESS,TCP,10.0.0.1:10.0.0.9,,,80,ACCEPT  description=\"a b\"  application=C:\\a.exe"},
        {"ACCESS,TCP,,,,80,ACCEPT  ports=any,list:80", nullptr},
        {"NAT,ANY,,,10.0.0.1,80,,8080,DNAT\r\n", "NAT,ANY,,,10.0.0.1,80,,8080,DNAT"},
        {"THROTTLE,UDP,,,,53,1,2,3,4,5,65535", nullptr},
        {"STREAM,HTTP,,,85,DROP,0:0:x80,GET /a, b", nullptr},
        {"STREAM,HTTP,,,85,DROP,0:0:,", nullptr},
        {"Access,tcp,,,,80,drop  application=SYSTEM  hash=000102030405060708090A0B0C0D0E0F10111213  spare=[1,2]",
         "ACCESS,TCP,,,,80,DROP  application=SYSTEM  hash=000102030405060708090a0b0c0d0e0f10111213  spare=1,2"},
        {"GENSTREAM,TCP,,,,,IN,1,2,-3,DROP,4,0:3:,text", nullptr},
        {"ACCESS2  protocol=udp", "ACCESS2  protocol=udp  addresses=any,any  ports=any,any"},
        {"ACCESS,ANY,0.0.0.0/0,@web,!80,web,ASK,0:3:", "ACCESS,ANY,0.0.0.0/0,web,!80,web,ASK,0:3:"},
        {"ACCESS,TCP,,,,80,DROP  description=\"😀 日\"  hash=0000000000000000000000000000000000000001", nullptr},
        {"ACCESS,TCP,,,,80,DROP  extension={\"flag\":0,\"value\":1,\"shortValue\":65535,\"text\":\"\"}", nullptr},
        {"ACCESS,TCP,0.0.0.300,,,,DROP", "1:12 expected an address"},
        {"ACCESS,TCP,!web,,,,DROP", "1:12 expected an address"},
        {"ACCESS,TPC,,,,,DROP", "1:8 expected any, icmp"},
        {"ACCESS,TCP,,,,DROP", "1:19 expected action after"},
        {"ACCESS,TCP,,,,80", "1:17 expected action after another comma"},
        {"ACCESS,TCP,,,,80,DROP  colour=red", "1:24 \"colour\" is not a member"},
        {"ACCESS,TCP,,,,80,DROP description=\"ü  spare=[1", "1:35 expected JSON"},
        {"NAT,ANY,,,,,,,SNAT,1", "1:20 expected the end"},
        {"ACCESS,TCP,,,,80,DROP  (off) else", "1:30 expected the end"},
    };
    for (const auto& c : cases)
    {
        PFW_RULE rule{};
        bool hasIndex = true;
        std::vector<Diagnostic> errors;
        const bool isGood = KxPolicy::ReadAnyRule(c.Line, rule, hasIndex, errors);
        const std::string found =
            isGood ? KxPolicy::RuleToText(rule)
                   : std::to_string(errors[0].Line) + ":" + std::to_string(errors[0].Column) + " " + errors[0].Text;
        const std::string expected = c.Back == nullptr ? c.Line : c.Back;
        EXPECT_EQ(isGood ? found : found.substr(0, expected.size()), expected) << found;
        EXPECT_FALSE(hasIndex);
    }
}

TEST(RuleJson, TellsEverythingThatIsWrong)
{
    const std::pair<std::string, std::string> cases[] = {
        {R"({"version": 2, "active": [1E+9], "macro": [], "macros": [{"name": "\u00e4", "items": [
{"port": "80", "text": "x"}, {"type": 9, "raw": ["3: 00"]}]}],
"ruleSets": [{"index": 2, "name": "0123456789012345678901234567890123456789012345678901234567890123X", "rules": [
{"index": 2, "kind": "acess", "foo": 1, "ports": 7, "natType": "x"},
{"index": 3, "kind": "access", "ports": ["any"], "active": "yes", "adresses": []},
{"index": 4, "kind": "access", "action": "drop", "ports": ["list: ", "80-x"], "hash": "00", "description": 5},
{"index": 5, "kind": "nat", "natType": "snat", "addresses": ["10.0.0.1/33", "1.1.1.1", "fe80::/129"]},
{"index": 7, "kind": 9}, {"index": 7, "kind": 9}, {"index": 65536, "kind": 9}, []]},
{"index": 2, "name": "a", "name": "b", "rules": {}}, 7]})",
         R"(1:13 version: the file has version 2 of this format, which needs a newer kxrule; this one reads version 1
1:27 active[0]: expected a whole number from 1 to 65280, found 1E+9
1:34 : "macro" is not a member of a policy; expected $schema, version, active, macros, ruleSets
1:67 macros[0].name: a character has no counterpart in the active code page
2:1 macros[0].items[0]: expected one of address, port, text, or a type as a number
2:50 macros[0].items[1].raw[0]: expected "offset: hexadecimal bytes" within 4 and 137, found "3: 00"
3:35 ruleSets[0].name: at most 64 UTF-16 units fit, the text has 65
4:22 ruleSets[0].rules[0].kind: expected access, nat, throttle, stream, genstream, access2 or a whole number from 0 to 4294967295, found "acess"
4:31 ruleSets[0].rules[0]: "foo" is not a member of a rule of any kind
4:64 ruleSets[0].rules[0].natType: expected snat, masq, dnat, rdir or a whole number from 0 to 4294967295, found "x"
5:1 ruleSets[0].rules[1]: "action" is missing
5:41 ruleSets[0].rules[1].ports: expected an array of 2, found 1
5:60 ruleSets[0].rules[1].active: expected true, false or a whole number from 0 to 4294967295, found "yes"
5:67 ruleSets[0].rules[1]: "adresses" is not a member of a rule of kind access; expected index, kind, description, active, protocol, addresses, ports, action, extension, application, hash, system, spare, raw
6:1 ruleSets[0].rules[2]: a port list is empty or blank, which the library refuses (-10064)
6:70 ruleSets[0].rules[2].ports[1]: expected a port as any, 80, 1000-2000, !80, 80,443,1000-2000, list:TEXT, @name or none ("80-x" is none of these), found "80-x"
6:87 ruleSets[0].rules[2].hash: expected the hash as 40 hexadecimal digits, found "00"
6:108 ruleSets[0].rules[2].description: expected a text, found 5
7:62 ruleSets[0].rules[3].addresses[0]: expected an address as any, 10.0.0.1, 10.0.0.0/8, 10.0.0.0/255.0.0.0, 10.0.0.1-10.0.0.9, fe80::/10, @name or none, with ! in front to negate (after / there must be a prefix length from 0 to 32 or a mask of the same family), found "10.0.0.1/33"
7:88 ruleSets[0].rules[3].addresses[2]: expected an address as any, 10.0.0.1, 10.0.0.0/8, 10.0.0.0/255.0.0.0, 10.0.0.1-10.0.0.9, fe80::/10, @name or none, with ! in front to negate (after / there must be a prefix length from 0 to 128 or a mask of the same family), found "fe80::/129"
8:26 ruleSets[0].rules[5]: the rule set already has a rule 7
8:61 ruleSets[0].rules[6].index: expected a whole number from 0 to 65535, found 65536
8:80 ruleSets[0].rules[7]: expected a rule as an object, found an array
9:1 ruleSets[1]: rule set 2 already exists
9:27 ruleSets[1]: "name" appears twice
9:49 ruleSets[1].rules: expected an array of rules, found an object
9:54 ruleSets[2]: expected a rule set as an object with index, name, rules, raw, found 7
)"},
        {"", "1:1 : syntax error while parsing value - unexpected end of input; expected '[', '{', or a literal\n"},
        {"[1 2]", "1:4 : syntax error while parsing array - unexpected number literal; expected ']'\n"},
        {"{\n  \"a\": 1\n  \"b\": 2}",
         "3:3 : syntax error while parsing object - unexpected string literal; expected '}'\n"},
        {"{\"a\"; 4}", "1:5 : syntax error while parsing object separator - invalid literal; expected ':'; texts stand "
                       "between quotes, comments are not possible\n"},
        {"[\"\xC3\xA4\xC3\xB6\", x]", "1:8 : syntax error while parsing value - invalid literal; texts stand between "
                                      "quotes, comments are not possible\n"}, // columns count characters
        {"\xEF\xBB\xBF[x]", "1:2 : syntax error while parsing value - invalid literal; texts stand between quotes, "
                            "comments are not possible\n"}, // and not the byte order mark
        {"[\n # no\n]", "2:2 : syntax error while parsing value - invalid literal; texts stand between quotes, "
                        "comments are not possible\n"},
        {"[\"ab\\q\"]",
         "1:6 : syntax error while parsing value - invalid string: forbidden character after backslash\n"},
        {"[\"open,\n\"b\"]", "1:8 : syntax error while parsing value - invalid string: control character U+000A (LF) "
                             "must be escaped to \\u000A or \\n\n"},
        {"[\"open", "1:2 : syntax error while parsing value - invalid string: missing closing quote\n"},
        {"[1] [2]", "1:5 : syntax error while parsing value - unexpected '['; expected end of input\n"},
        {std::string("[1]\0[2]", 7), "1:4 : syntax error - expected the end of the text\n"},
        {"[1e999]", "1:2 : number overflow parsing '1e999'\n"},
        {"\xFF\xFE[", "1:1 : the text is UTF-16; save it as UTF-8\n"},
        {std::string("\xFF\xFE\0\0", 4), "1:1 : the text is UTF-32; save it as UTF-8\n"},
        {std::string(100000, '['), "1:65 : nested too deep\n"},
        {R"({"version": "1"})", "1:13 version: expected 1, found \"1\"\n"},
        {R"(rules x
active 1 x
macro m x
port=80 text=y
set 0 a
10 ACCESS,TCP,,,,,DROP  colour=red
11 ACCESS,TCP,,10.0.0.1/33,,,DROP
ACCESS,TCP,,,,,DROP
12 ACCESS,TCP,,,,,DROP
set 2
sett 8
active 1 0
)",
         R"(1:7 version: expected 1, found "x"
2:10 active[1]: expected a whole number from 1 to 65280, found "x"
3:9 : expected the end of the line
4:1 macros[0].items[0]: expected one of address, port, text, or a type as a number
5:5 ruleSets[0].index: expected a whole number from 1 to 65280, found 0
6:25 : "colour" is not a member of a rule of kind access
7:16 ruleSets[0].rules[1].addresses[1]: expected an address as any, 10.0.0.1, 10.0.0.0/8, 10.0.0.0/255.0.0.0, 10.0.0.1-10.0.0.9, fe80::/10, @name or none, with ! in front to negate (after / there must be a prefix length from 0 to 32 or a mask of the same family), found "10.0.0.1/33"
9:1 ruleSets[0].rules[3]: the rule set already has a rule 12
10:1 ruleSets[1]: "name" is missing
11:1 : expected active, macro, set or a rule, whose first word is one of access, nat, throttle, stream, genstream, access2, found "sett"
12:10 active[3]: expected a whole number from 1 to 65280, found 0
)"},
        {PolicyText("1a: " + Numbered(0, 1024, "s")),
         "1028:1 ruleSets[0].rules[1024]: a rule set holds at most 1024 rules; what follows is not read\n"},
        {PolicyText(Numbered(101, 165, "a:")),
         "67:1 ruleSets[64]: a store holds at most 64 rule sets; what follows is not read\n"},
    };
    Policy policy;
    std::vector<Diagnostic> errors;
    for (const auto& [text, expected] : cases)
    {
        const auto read = text.starts_with("rules") ? KxPolicy::ReadAnyPolicy : KxPolicy::ReadPolicy;
        EXPECT_FALSE(read(text, policy, errors));
        EXPECT_EQ(Texts(errors), expected);
    }
    const std::string many = Numbered(70001, 71500, ",") + "0";
    EXPECT_FALSE(KxPolicy::ReadPolicy(R"({"version": 1, "active": [)" + many + "]}", policy, errors));
    EXPECT_EQ(errors.size(), 1001u);
    EXPECT_EQ(errors.back().Text, "there is more; what follows is not read");
}

// docs/policy.schema.json names the members that the reader knows, kind by kind, and no others.
TEST(RuleJson, TheSchemaNamesEveryField)
{
    using Names = std::set<std::string>;
    std::ifstream file("docs/policy.schema.json");
    const nlohmann::json definitions = nlohmann::json::parse(file)["$defs"];
    const auto check = [&](const std::string& name, std::span<const KxPolicy::RuleField> fields, Names members)
    {
        const nlohmann::json& definition = definitions[name];
        Names required;
        for (const KxPolicy::RuleField& field : fields)
        {
            members.insert(field.Name);
            if (field.When == KxPolicy::Presence::Always)
                required.insert(field.Name);
            Names keywords;
            for (const KxPolicy::Keyword& keyword : field.Names)
                keywords.insert(keyword.Name);
            const auto& choices = definition["properties"][field.Name].value("anyOf", nlohmann::json::array());
            EXPECT_EQ(keywords.empty() ? Names() : choices[0]["enum"].get<Names>(), keywords) << name << field.Name;
        }
        Names found;
        for (const auto& member : definition["properties"].items())
            found.insert(member.key());
        EXPECT_EQ(found, members) << name;
        EXPECT_EQ(definition.value("required", Names()), required) << name;
    };
    check("rule", KxPolicy::CommonFields(), {"raw"});
    for (const KxPolicy::Keyword& kind : KxPolicy::kKinds)
        check(kind.Name, KxPolicy::KindFields(kind.Value), {});
}
