// Policies as JSON: what people write, what comes back, and everything that is wrong in a file.
#include "tools/kxrule/RuleJson.h"

#include <cstring>
#include <fstream>
#include <random>
#include <set>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/support/RecordBuilder.h"
#include "tools/kxrule/RuleFields.h"

using Tool::JsonError;
using Tool::Policy;

namespace
{

std::string Texts(const std::vector<JsonError>& errors)
{
    std::string text;
    for (const JsonError& error : errors)
        text += std::to_string(error.Line) + ":" + std::to_string(error.Column) + " " + error.Path + ": " + error.Text +
                "\n";
    return text;
}

std::string_view Bytes(const PFW_RULE& rule)
{
    return {reinterpret_cast<const char*>(&rule), sizeof rule};
}

/// Written, read and compared; the text has to be JSON for others too.
void ExpectSurvives(const PFW_RULE& rule, const std::string& what)
{
    const std::string json = Tool::RuleToJson(rule);
    ASSERT_TRUE(nlohmann::json::accept(json)) << what << "\n" << json;
    PFW_RULE back{};
    std::vector<JsonError> errors;
    if (!Tool::ReadRule(json, back, errors))
    {
        ASSERT_TRUE(errors.size() == 1 && rule.dwKind == KXRULE_KIND_ACCESS && Tool::HasBlankPortList(rule))
            << what << "\n"
            << Texts(errors) << json;
    }
    ASSERT_EQ(Bytes(back), Bytes(rule)) << what << "\n" << json;
}

PFW_RULE RandomRule(std::mt19937& random, uint32_t kind)
{
    PFW_RULE rule = Build::Rule(kind, static_cast<uint16_t>(random()));
    uint8_t* const bytes = reinterpret_cast<uint8_t*>(&rule);
    const uint32_t style = random() % 3;
    for (size_t i = 2; i < sizeof rule && style == 0; ++i)
        bytes[i] = static_cast<uint8_t>(random());
    // Small numbers everywhere, so that types and families are often known ones.
    for (size_t i = 2; i < sizeof rule && style == 1; ++i)
        bytes[i] = static_cast<uint8_t>(random() % 4 != 0 ? 0 : random() % 8);
    for (uint32_t i = random() % 200; style == 2 && i > 0; --i)
        bytes[2 + random() % (sizeof rule - 2)] = static_cast<uint8_t>(random());
    rule.dwKind = kind;
    return rule;
}

} // namespace

TEST(RuleJson, GivesEveryRecordBack)
{
    std::mt19937 random(7);
    for (const uint32_t kind : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 0xFFFFFFFFu})
    {
        ExpectSurvives(Build::Rule(kind), "zeroes");
        PFW_RULE ones;
        std::memset(static_cast<void*>(&ones), 0xFF, sizeof ones);
        ones.dwKind = kind;
        ExpectSurvives(ones, "ones");
        for (int round = 0; round < 40; ++round)
        {
            ExpectSurvives(RandomRule(random, kind),
                           "kind " + std::to_string(kind) + " round " + std::to_string(round));
            if (HasFatalFailure())
                return;
        }
    }
}

TEST(RuleJson, GivesPoliciesBackAndIsStable)
{
    std::mt19937 random(8);
    for (int round = 0; round < 20; ++round)
    {
        Policy policy;
        policy.Active = {5, 1, 5, 65280};
        std::vector<Tool::MacroRecord>& macros = policy.Macros.emplace();
        for (int i = 0; i < 5; ++i)
        {
            macros.push_back({std::string(random() % 32, static_cast<char>(1 + random() % 255)), {}});
            for (uint32_t item = random() % 6; item > 0; --item)
            {
                MACRO_ITEM& record = macros.back().Items.emplace_back();
                for (size_t at = 0; at < sizeof record; ++at)
                    reinterpret_cast<uint8_t*>(&record)[at] = static_cast<uint8_t>(random() % 3 == 0 ? random() : 0);
                record.dwItemType = random() % 4;
            }
        }
        for (uint16_t index = 1; index < 4; ++index)
        {
            Tool::RuleSetRecord& ruleSet = policy.RuleSets.emplace_back();
            ruleSet.Index = static_cast<uint16_t>(index * 100);
            for (uint32_t unit = random() % 65; unit > 0; --unit)
                ruleSet.Name += static_cast<KXWCHAR>(1 + random() % 65535); // lone surrogates among them
            for (uint16_t rule = 0; rule < 5; ++rule)
            {
                ruleSet.Rules.push_back(RandomRule(random, 2 + random() % 5));
                ruleSet.Rules.back().wRuleIndex = rule;
            }
        }
        const std::string json = Tool::PolicyToJson(policy);
        Policy back;
        std::vector<JsonError> errors;
        ASSERT_TRUE(Tool::ReadPolicy(json, back, errors)) << Texts(errors) << json;
        EXPECT_EQ(back.Active, policy.Active);
        ASSERT_EQ(back.Macros->size(), macros.size());
        for (size_t i = 0; i < macros.size(); ++i)
        {
            EXPECT_EQ((*back.Macros)[i].Name, macros[i].Name);
            ASSERT_EQ((*back.Macros)[i].Items.size(), macros[i].Items.size());
            for (size_t item = 0; item < macros[i].Items.size(); ++item)
                EXPECT_EQ(0, std::memcmp(&(*back.Macros)[i].Items[item], &macros[i].Items[item], sizeof(MACRO_ITEM)))
                    << json;
        }
        ASSERT_EQ(back.RuleSets.size(), policy.RuleSets.size());
        for (size_t i = 0; i < back.RuleSets.size(); ++i)
        {
            EXPECT_EQ(back.RuleSets[i].Index, policy.RuleSets[i].Index);
            EXPECT_EQ(back.RuleSets[i].Name, policy.RuleSets[i].Name);
            ASSERT_EQ(back.RuleSets[i].Rules.size(), policy.RuleSets[i].Rules.size());
            for (size_t rule = 0; rule < back.RuleSets[i].Rules.size(); ++rule)
                EXPECT_EQ(Bytes(back.RuleSets[i].Rules[rule]), Bytes(policy.RuleSets[i].Rules[rule]));
        }
        EXPECT_EQ(Tool::PolicyToJson(back), json);
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
    Build::SetExtension(expected, 7, 3, "abc");
    for (uint8_t i = 0; i < 20; ++i)
        expected.Access.abAppHash[i] = i;
    expected.Access.dwSystem = 1;
    expected.Access.dwSpare1 = 1;
    expected.Access.dwSpare2 = 2;
    expected.abKind[2704] = 0xFF;
    PFW_RULE rule{};
    std::vector<JsonError> errors;
    ASSERT_TRUE(Tool::ReadRule(json, rule, errors)) << Texts(errors);
    EXPECT_EQ(Bytes(rule), Bytes(expected)) << Tool::RuleToJson(rule) << Tool::RuleToJson(expected);
}

TEST(RuleJson, WritesNoMoreThanTheRecordHolds)
{
    PFW_RULE rule = Build::Rule(KXRULE_KIND_NAT, 3);
    rule.dwActive = 1;
    for (int i = 0; i < 3; ++i)
    {
        rule.Nat.Addr[i] = RULE_ADDR{};
        rule.Nat.Addr[i].dwType = KXRULE_ADDR_ANY;
        rule.Nat.Port[i].nType = KXRULE_PORT_ANY;
    }
    rule.Nat.dwNatType = KXRULE_NAT_DNAT;
    const char* const expected = R"({
  "index": 3,
  "kind": "nat",
  "active": true,
  "protocol": "any",
  "addresses": ["any", "any", "any"],
  "ports": ["any", "any", "any"],
  "natType": "dnat"
}
)";
    EXPECT_EQ(Tool::RuleToJson(rule), expected);
}

TEST(RuleJson, ReportsEverythingThatIsWrong)
{
    const char* const json = R"({"version": 2, "active": [1, 0, "x"], "macro": [],
"macros": [{"items": [{"address": "1.2.3"}, {"port": "80", "text": "x"}, {"type": 9, "raw": ["3: 00", "137: 00", "4: 0"]}]}],
"ruleSets": [
  {"index": 65281, "name": "01234567890123456789012345678901234567890123456789012345678901234", "rules": [
    {"index": 1},
    {"index": 2, "kind": "acess", "foo": 1},
    {"index": 3, "kind": "access", "ports": ["any"], "protocol": "tpc", "active": "yes", "adresses": []},
    {"index": 4, "kind": "access", "action": "drop", "ports": ["list: ", "80-x"], "hash": "00", "description": 5},
    {"index": 5, "kind": "nat", "natType": "snat", "action": "drop"},
    {"index": 65536, "kind": "throttle", "limits": [1, 2, 3, 4, 5, 65536]},
    {"index": 7, "kind": 9},
    {"index": 7, "kind": 9}]},
  {"index": 2, "name": "a", "rules": {}},
  {"index": 2, "name": "a", "name": "b"},
  7,
  {"index": 3, "name": "a", "rules": [oops, nix, {"index": nix, "kind": 9}, {"index": 1-, "kind": 9}]}
]})";
    const std::pair<const char*, const char*> expected[] = {
        {"1:13 version", "a whole number from 1 to 1, found 2"},
        {"1:30 active[1]", "a whole number from 1 to 65280, found 0"},
        {"1:33 active[2]", "found \"x\""},
        {"1:39 ", "\"macro\" is no member of a policy; expected $schema, version, active, macros, ruleSets"},
        {"2:12 macros[0]", "\"name\" is missing"},
        {"2:35 macros[0].items[0].address", "(\"1.2.3\" is no address), found \"1.2.3\""},
        {"2:45 macros[0].items[1]", "one of address, port, text"},
        {"2:94 macros[0].items[2].raw[0]", "within 4 and 137, found \"3: 00\""},
        {"2:103 macros[0].items[2].raw[1]", "found \"137: 00\""},
        {"2:114 macros[0].items[2].raw[2]", "found \"4: 0\""},
        {"4:13 ruleSets[0].index", "from 1 to 65280, found 65281"},
        {"4:28 ruleSets[0].name", "at most 64 UTF-16 units fit, the text has 65"},
        {"5:5 ruleSets[0].rules[0]", "\"kind\" is missing; expected access, nat,"},
        {"6:26 ruleSets[0].rules[1].kind", "access2 or a whole number from 0 to 4294967295, found \"acess\""},
        {"7:5 ruleSets[0].rules[2]", "\"action\" is missing"},
        {"7:45 ruleSets[0].rules[2].ports", "an array of 2, found 1"},
        {"7:66 ruleSets[0].rules[2].protocol", "any, icmp, tcp, udp, tcpudp or a whole number"},
        {"7:83 ruleSets[0].rules[2].active", "true, false or a whole number"},
        {"7:90 ruleSets[0].rules[2]", "\"adresses\" is no member of a rule of kind access; expected index, kind,"},
        {"8:5 ruleSets[0].rules[3]", "a port list is empty or blank"},
        {"8:74 ruleSets[0].rules[3].ports[1]", "(\"80-x\" is none of these), found \"80-x\""},
        {"8:91 ruleSets[0].rules[3].hash", "40 hexadecimal digits, found \"00\""},
        {"8:112 ruleSets[0].rules[3].description", "a text, found 5"},
        {"9:52 ruleSets[0].rules[4]", "\"action\" is no member of a rule of kind nat"},
        {"10:15 ruleSets[0].rules[5].index", "from 0 to 65535, found 65536"},
        {"10:68 ruleSets[0].rules[5].limits[5]", "from 0 to 65535, found 65536"},
        {"12:5 ruleSets[0].rules[7]", "a rule 7 already"},
        {"13:38 ruleSets[1].rules", "an array of rules, found an object"},
        {"14:3 ruleSets[2]", "a rule set 2 already"},
        {"14:29 ruleSets[2]", "\"name\" stands here twice"},
        {"15:3 ruleSets[3]", "a rule set as an object with index, name, rules, raw, found 7"},
        {"16:39 ruleSets[4].rules[0]", "texts stand between quotes"},
        {"16:45 ruleSets[4].rules[1]", "texts stand between quotes"},
        {"16:60 ruleSets[4].rules[2].index", "texts stand between quotes"},
        {"16:87 ruleSets[4].rules[3].index", "this is no number"},
    };
    Policy policy;
    std::vector<JsonError> errors;
    EXPECT_FALSE(Tool::ReadPolicy(json, policy, errors));
    ASSERT_EQ(errors.size(), std::size(expected)) << Texts(errors);
    for (size_t i = 0; i < errors.size(); ++i)
    {
        const std::string place =
            std::to_string(errors[i].Line) + ":" + std::to_string(errors[i].Column) + " " + errors[i].Path;
        EXPECT_EQ(place, expected[i].first) << errors[i].Text;
        EXPECT_NE(errors[i].Text.find(expected[i].second), std::string::npos) << place << ": " << errors[i].Text;
    }
}

TEST(RuleJson, KnowsTheLibrarysLimits)
{
    std::string rules;
    for (int i = 0; i < 1025; ++i)
        rules += (i > 0 ? ", " : "") + std::string("{\"kind\": 9, \"index\": ") + std::to_string(i) + "}";
    std::string sets = "{\"index\": 1, \"name\": \"\", \"rules\": [" + rules + "]}";
    for (int i = 2; i <= 65; ++i)
        sets += ", {\"name\": \"\", \"index\": " + std::to_string(i) + "}";
    Policy policy;
    std::vector<JsonError> errors;
    EXPECT_FALSE(Tool::ReadPolicy("{\"ruleSets\": [" + sets + "]}", policy, errors));
    ASSERT_EQ(errors.size(), 2u) << Texts(errors);
    EXPECT_EQ(errors[0].Text, "a store holds at most 64 rule sets, the file has 65");
    EXPECT_EQ(errors[1].Text, "a rule set holds at most 1024 rules, this one has 1025");

    std::string zeroes = "0";
    for (int i = 1; i < 1500; ++i)
        zeroes += ",\n0";
    EXPECT_FALSE(Tool::ReadPolicy("{\"active\": [" + zeroes + "]}", policy, errors));
    ASSERT_EQ(errors.size(), 1001u);
    EXPECT_EQ(errors[999].Line, 1000u);
    EXPECT_EQ(errors[1000].Text, "and 500 more");
}

// docs/policy.schema.json names the members that the reader knows, kind by kind, and no others.
TEST(RuleJson, TheSchemaNamesEveryField)
{
    std::ifstream file("docs/policy.schema.json");
    const nlohmann::json definitions = nlohmann::json::parse(file)["$defs"];
    const auto names = [](std::span<const Tool::RuleField> fields, bool required)
    {
        std::set<std::string> set;
        for (const Tool::RuleField& field : fields)
        {
            if (!required || field.When == Tool::Presence::Always)
                set.insert(field.Name);
        }
        return set;
    };
    const auto members = [](const nlohmann::json& definition)
    {
        std::set<std::string> set;
        for (const auto& [name, value] : definition["properties"].items())
            set.insert(name);
        return set;
    };
    const auto required = [](const nlohmann::json& definition)
    { return definition.value("required", std::set<std::string>()); };

    std::set<std::string> common = names(Tool::CommonFields(), false);
    common.insert("raw");
    EXPECT_EQ(members(definitions["rule"]), common);
    EXPECT_EQ(required(definitions["rule"]), names(Tool::CommonFields(), true));
    for (const Tool::Keyword& kind : Tool::kKinds)
    {
        EXPECT_EQ(members(definitions[kind.Name]), names(Tool::KindFields(kind.Value), false)) << kind.Name;
        EXPECT_EQ(required(definitions[kind.Name]), names(Tool::KindFields(kind.Value), true)) << kind.Name;
        for (const Tool::RuleField& field : Tool::KindFields(kind.Value))
        {
            std::set<std::string> known;
            for (const Tool::Keyword& keyword : field.Names)
                known.insert(keyword.Name);
            if (!known.empty())
            {
                EXPECT_EQ(
                    definitions[kind.Name]["properties"][field.Name]["anyOf"][0]["enum"].get<std::set<std::string>>(),
                    known)
                    << kind.Name << " " << field.Name;
            }
        }
    }
}
