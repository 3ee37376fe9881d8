// Bytes as a policy, in JSON or as text. What is read must come back unchanged when written and read again; a refusal
// must say where and why.
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "policy/JsonTree.h"
#include "policy/RuleJson.h"
#include "policy/RulesText.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/support/FileContent.h"

using KxPolicy::JsonTree;
using KxPolicy::JsonValue;
using KxPolicy::Policy;

namespace
{

bool Same(const Policy& a, const Policy& b)
{
    const auto sameMacro = [](const KxPolicy::MacroRecord& x, const KxPolicy::MacroRecord& y)
    { return x.Name == y.Name && SameRecords(x.Items, y.Items); };
    const auto sameSet = [](const KxPolicy::RuleSetRecord& x, const KxPolicy::RuleSetRecord& y)
    { return x.Index == y.Index && x.Name == y.Name && SameRecords(x.Rules, y.Rules); };
    return a.Active == b.Active && a.Macros.has_value() == b.Macros.has_value() &&
           (!a.Macros ||
            std::equal(a.Macros->begin(), a.Macros->end(), b.Macros->begin(), b.Macros->end(), sameMacro)) &&
           std::equal(a.RuleSets.begin(), a.RuleSets.end(), b.RuleSets.begin(), b.RuleSets.end(), sameSet);
}

void CheckDiagnostics(bool isRead, const std::vector<KxPolicy::Diagnostic>& errors)
{
    KX_REQUIRE(isRead == errors.empty());
    const KxPolicy::Diagnostic* last = nullptr;
    for (const KxPolicy::Diagnostic& error : errors)
    {
        KX_REQUIRE(error.Line >= 1 && error.Column >= 1 && !error.Text.empty());
        KX_REQUIRE(last == nullptr || last->Line < error.Line ||
                   (last->Line == error.Line && last->Column <= error.Column));
        last = &error;
    }
}

void CheckPolicy(std::string_view text)
{
    Policy any;
    std::vector<KxPolicy::Diagnostic> found;
    const bool isAny = KxPolicy::ReadAnyPolicy(text, any, found);
    CheckDiagnostics(isAny, found);
    Policy policy;
    std::vector<KxPolicy::Diagnostic> errors;
    bool isRead;
    {
        constexpr size_t most = 2000000; // for reading, beside what grows with the text
        constexpr size_t growth = 600;   // bytes of memory for a byte of the text: a rule of 2845 bytes in eleven, or a
                                         // diagnostic that lists every member
        const Fuzz::MemoryBound bound(most + growth * text.size());
        isRead = KxPolicy::ReadPolicy(text, policy, errors);
    }
    CheckDiagnostics(isRead, errors);
    if (!isRead)
        return;

    for (const KxPolicy::RuleSetRecord& ruleSet : policy.RuleSets)
    {
        KX_REQUIRE(ruleSet.Index >= 1 && ruleSet.Index <= KXRULE_MAX_RULESET_INDEX);
        KX_REQUIRE(ruleSet.Rules.size() <= KXRULE_MAX_RULES && ruleSet.Name.size() < KXRULE_RULESET_NAME_UNITS);
        for (size_t i = 1; i < ruleSet.Rules.size(); ++i)
            KX_REQUIRE(ruleSet.Rules[i - 1].wRuleIndex < ruleSet.Rules[i].wRuleIndex);
    }
    const std::string written = KxPolicy::PolicyToJson(policy);
    Policy again;
    KX_REQUIRE(KxPolicy::ReadPolicy(written, again, errors));
    KX_REQUIRE(Same(again, policy));
    again = {};
    KX_REQUIRE(KxPolicy::ReadAnyPolicy(KxPolicy::PolicyToText(policy), again, errors));
    KX_REQUIRE(Same(again, policy));
}

/// The position of every value, against the values that the reader itself makes.
bool SameValues(JsonValue value, const nlohmann::json& peer)
{
    bool isSame = true;
    size_t count = 0;
    const auto check = [&](JsonValue part, const nlohmann::json& other)
    {
        isSame = isSame && SameValues(part, other);
        ++count;
    };
    switch (value.Kind())
    {
    case JsonTree::Kind::String:
        return peer == value.Text();
    case JsonTree::Kind::Array:
        value.ForEachItem([&](JsonValue part) { check(part, peer.at(count)); });
        return isSame && count == peer.size();
    case JsonTree::Kind::Object: // of two members with one name the reader itself takes the last
        value.ForEachMember([&](JsonValue name, JsonValue) { isSame = isSame && peer.contains(name.Text()); });
        return isSame;
    default:
        return nlohmann::json::parse(value.Raw()) == peer;
    }
}

void CheckTree(std::string_view text)
{
    const JsonTree tree(text);
    const nlohmann::json peer = nlohmann::json::parse(text, nullptr, false);
    if (tree.Error())
        KX_REQUIRE(peer.is_discarded() || tree.Error()->Text == "nested too deep" ||
                   text.find('\0') != std::string_view::npos); // to the reader itself NUL is the end
    else
        KX_REQUIRE(SameValues(tree.Root(), peer));
}

} // namespace

extern "C" int PolicyFuzz(const uint8_t* data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    CheckPolicy(text);
    CheckTree(text);
    return 0;
}
