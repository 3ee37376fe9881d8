// Bytes as a policy in JSON. What is read must come back the same from what is written of it; what is refused must say
// where and why; and another reader must agree on what is JSON at all.
#include <cstring>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "policy/JsonTree.h"
#include "policy/RuleJson.h"
#include "tests/fuzz/Fuzz.h"

using KxPolicy::JsonTree;
using KxPolicy::JsonValue;
using KxPolicy::Policy;
using nlohmann::json;

namespace
{

constexpr size_t kMostMemory = 2000000; // for reading, beside what grows with the text
constexpr size_t kMostGrowth = 600;     // bytes of memory for a byte of the text: a rule of 2845 bytes in eleven, or
                                        // a complaint that lists every member

bool Same(const void* a, const void* b, size_t size)
{
    return size == 0 || std::memcmp(a, b, size) == 0;
}

bool Same(const Policy& a, const Policy& b)
{
    const auto sameMacro = [](const KxPolicy::MacroRecord& x, const KxPolicy::MacroRecord& y)
    {
        return x.Name == y.Name && x.Items.size() == y.Items.size() &&
               Same(x.Items.data(), y.Items.data(), x.Items.size() * sizeof(MACRO_ITEM));
    };
    const auto sameSet = [](const KxPolicy::RuleSetRecord& x, const KxPolicy::RuleSetRecord& y)
    {
        return x.Index == y.Index && x.Name == y.Name && x.Rules.size() == y.Rules.size() &&
               Same(x.Rules.data(), y.Rules.data(), x.Rules.size() * sizeof(PFW_RULE));
    };
    return a.Active == b.Active && a.Macros.has_value() == b.Macros.has_value() &&
           (!a.Macros ||
            std::equal(a.Macros->begin(), a.Macros->end(), b.Macros->begin(), b.Macros->end(), sameMacro)) &&
           std::equal(a.RuleSets.begin(), a.RuleSets.end(), b.RuleSets.begin(), b.RuleSets.end(), sameSet);
}

void CheckPolicy(std::string_view text)
{
    Policy policy;
    std::vector<KxPolicy::JsonError> errors;
    bool isRead;
    {
        const Fuzz::MemoryBound bound(kMostMemory + kMostGrowth * text.size());
        isRead = KxPolicy::ReadPolicy(text, policy, errors);
    }
    KX_REQUIRE(isRead == errors.empty());
    const KxPolicy::JsonError* last = nullptr;
    for (const KxPolicy::JsonError& error : errors)
    {
        KX_REQUIRE(error.Line >= 1 && error.Column >= 1 && !error.Text.empty());
        KX_REQUIRE(last == nullptr || last->Line < error.Line ||
                   (last->Line == error.Line && last->Column <= error.Column));
        last = &error;
    }
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
    KX_REQUIRE(KxPolicy::PolicyToJson(again) == written);
}

/// Whether every text means to the other reader what it means here.
bool SameTexts(JsonValue value)
{
    bool isSame = true;
    const auto check = [&isSame](JsonValue part) { isSame = isSame && SameTexts(part); };
    if (value.Is(JsonTree::Kind::String))
        return json::parse(value.Raw()).get<std::string>() == value.Text();
    if (value.Is(JsonTree::Kind::Array))
        value.ForEachItem(check);
    if (value.Is(JsonTree::Kind::Object))
        value.ForEachMember(
            [&check](JsonValue name, JsonValue member)
            {
                check(name);
                check(member);
            });
    return isSame;
}

void CheckTree(std::string_view text)
{
    const JsonTree tree(text);
    const bool isNested = !tree.Complaints().empty() && tree.Complaints().back().Text == "nested too deep";
    if (text.find('\0') == std::string_view::npos && json::accept(text)) // to the other one NUL is the end
        KX_REQUIRE(tree.Complaints().empty() || isNested);
    if (tree.Complaints().empty())
    {
        KX_REQUIRE(SameTexts(tree.Root()));
        // The other one refuses numbers that are too large for it; here they are nothing but digits until asked for.
        const json parsed = json::parse(text, nullptr, false);
        KX_REQUIRE(!parsed.is_discarded() || text.find_first_of("0123456789") != std::string_view::npos);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    CheckPolicy(text);
    CheckTree(text);
    return 0;
}
