// Policies as JSON: what people write, what comes back, and everything that is wrong in a file.
#include "policy/RuleJson.h"

#include <cstring>
#include <fstream>
#include <random>
#include <set>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "policy/RuleFields.h"
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

std::string_view Bytes(const PFW_RULE& rule)
{
    return {reinterpret_cast<const char*>(&rule), sizeof rule};
}

/// Names and records, bytes and all, one after the other.
std::string Contents(const Policy& policy)
{
    std::string all;
    const auto add = [&all](const auto* first, size_t count)
    { all.append(reinterpret_cast<const char*>(first), count * sizeof *first).append(std::to_string(count)); };
    for (const KxPolicy::MacroRecord& macro : *policy.Macros)
    {
        add(macro.Name.data(), macro.Name.size());
        add(macro.Items.data(), macro.Items.size());
    }
    for (const KxPolicy::RuleSetRecord& ruleSet : policy.RuleSets)
    {
        add(&ruleSet.Index, 1);
        add(ruleSet.Name.data(), ruleSet.Name.size());
        add(ruleSet.Rules.data(), ruleSet.Rules.size());
    }
    return all;
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

TEST(RuleJson, GivesPoliciesBackAndIsStable)
{
    std::mt19937 random(8);
    for (int round = 0; round < 20; ++round)
    {
        Policy policy;
        policy.Active = {5, 1, 5, 65280};
        std::vector<KxPolicy::MacroRecord>& macros = policy.Macros.emplace();
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
            KxPolicy::RuleSetRecord& ruleSet = policy.RuleSets.emplace_back();
            ruleSet.Index = static_cast<uint16_t>(index * 100);
            for (uint32_t unit = random() % 65; unit > 0; --unit)
                ruleSet.Name += static_cast<KXWCHAR>(1 + random() % 65535); // lone surrogates among them
            for (uint16_t rule = 0; rule < 5; ++rule)
            {
                ruleSet.Rules.push_back(RandomRule(random, 2 + random() % 5));
                ruleSet.Rules.back().wRuleIndex = rule;
            }
        }
        const std::string json = KxPolicy::PolicyToJson(policy);
        Policy back;
        std::vector<Diagnostic> errors;
        ASSERT_TRUE(KxPolicy::ReadPolicy(json, back, errors)) << Texts(errors) << json;
        EXPECT_EQ(back.Active, policy.Active);
        EXPECT_TRUE(Contents(back) == Contents(policy)) << json;
        EXPECT_EQ(KxPolicy::PolicyToJson(back), json);
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
    std::vector<Diagnostic> errors;
    ASSERT_TRUE(KxPolicy::ReadRule(json, rule, errors)) << Texts(errors);
    EXPECT_EQ(Bytes(rule), Bytes(expected)) << KxPolicy::RuleToJson(rule) << KxPolicy::RuleToJson(expected);
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
    EXPECT_EQ(KxPolicy::RuleToJson(rule), expected);
}

// docs/policy.schema.json names the members that the reader knows, kind by kind, and no others.
TEST(RuleJson, TheSchemaNamesEveryField)
{
    std::ifstream file("docs/policy.schema.json");
    const nlohmann::json definitions = nlohmann::json::parse(file)["$defs"];
    const auto names = [](std::span<const KxPolicy::RuleField> fields, bool required)
    {
        std::set<std::string> set;
        for (const KxPolicy::RuleField& field : fields)
        {
            if (!required || field.When == KxPolicy::Presence::Always)
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

    std::set<std::string> common = names(KxPolicy::CommonFields(), false);
    common.insert("raw");
    EXPECT_EQ(members(definitions["rule"]), common);
    EXPECT_EQ(required(definitions["rule"]), names(KxPolicy::CommonFields(), true));
    for (const KxPolicy::Keyword& kind : KxPolicy::kKinds)
    {
        EXPECT_EQ(members(definitions[kind.Name]), names(KxPolicy::KindFields(kind.Value), false)) << kind.Name;
        EXPECT_EQ(required(definitions[kind.Name]), names(KxPolicy::KindFields(kind.Value), true)) << kind.Name;
        for (const KxPolicy::RuleField& field : KxPolicy::KindFields(kind.Value))
        {
            std::set<std::string> known;
            for (const KxPolicy::Keyword& keyword : field.Names)
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
