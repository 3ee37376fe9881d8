// Policies as JSON: what people write, what comes back, and everything that is wrong in a file.
#include "policy/RuleJson.h"

#include <cstring>
#include <fstream>
#include <set>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "policy/RuleFields.h"
#include "policy/RulesText.h"
#include "tests/support/RecordBuilder.h"

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

std::string_view BytesOf(const PFW_RULE& rule)
{
    return {reinterpret_cast<const char*>(&rule), sizeof rule};
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
        {"GENSTREAM,TCP,,,,,IN,1,2,-3,DROP,4,0:0:,text", nullptr},
        {"ACCESS2  protocol=udp", "ACCESS2  protocol=udp  addresses=any,any  ports=any,any"},
        {"ACCESS,TCP,10.0.0.300,,,,DROP", "1:12 expected an address"},
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

TEST(RuleJson, ReadsWhatPeopleWrite)
{
    const char* const json = R"({
        "index": 10, "kind": "Access", "description": "Büro ✓ 日本", "protocol": "TCP",
        "addresses": ["any", "!10.0.0.0/8"], "ports": [80, "list:443"], "action": "ask",
        "extension": {"value": 7, "shortValue": 3, "text": "abc"},
        "application": "SYSTEM", "hash": "000102030405060708090A0B0C0D0E0F10111213", "spare": [1, 2],
        "raw": ["2844: ff"]})";
    PFW_RULE expected = Build::Access(10, KXW("SYSTEM"));
    Build::SetText(&expected.wszDescription, KXRULE_DESCRIPTION_UNITS, KXW("B\u00fcro \u2713 \u65e5\u672c"));
    expected.Access.Addr[1] = Build::Negated(Build::Address(KXRULE_ADDR_PREFIX, Build::Ip(10, 0, 0, 0), 8));
    expected.Access.Port[0] = Build::Single(uint16_t{80});
    expected.Access.Port[1] = Build::PortList("443");
    expected.Access.Addr[0].dwFamily = 0;
    expected.Access.dwAction = KXRULE_ACTION_ASK;
    expected.Access.dwExtFlag = 1;
    expected.Access.dwExtValue = 7;
    expected.Access.wExtValue = 3;
    Build::SetText(expected.Access.szExtText, "abc");
    for (uint8_t i = 0; i < 20; ++i)
        expected.Access.abAppHash[i] = i;
    expected.Access.dwSystem = 1;
    expected.Access.dwSpare1 = 1;
    expected.Access.dwSpare2 = 2;
    expected.abKind[2704] = 0xFF;
    PFW_RULE rule{};
    std::vector<Diagnostic> errors;
    ASSERT_TRUE(KxPolicy::ReadRule(json, rule, errors)) << Texts(errors);
    EXPECT_EQ(BytesOf(rule), BytesOf(expected)) << KxPolicy::RuleToJson(rule) << KxPolicy::RuleToJson(expected);
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
