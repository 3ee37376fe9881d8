// KxPolicy.dll on the store of this process.
#include "api/include/KxPolicy.h"

#include <functional>
#include <sstream>
#include <string_view>
#include <thread>
#include <tuple>

#include "tests/api/StoreFixture.h"

namespace
{

// The library's functions, of which those that do more than read can be refused or preceded by another thread's change.
std::function<int32_t()> g_Before; // a code refuses the call

template <auto function, class... Arguments>
int32_t Watched(Arguments... arguments)
{
    const int32_t refused = g_Before();
    return refused != KXRULE_OK ? refused : function(arguments...);
}

KXRULE_LIBRARY Watching(std::function<int32_t()> before)
{
    g_Before = std::move(before);
#define KX_WATCHED(name, parameters)                                                                                   \
    std::string_view(#name).starts_with("kxRuleGet") ? &name : static_cast<decltype(&name)>(&Watched<&name>),
    return {KXRULE_FUNCTIONS(KX_WATCHED)};
#undef KX_WATCHED
}

std::string g_Told;

void Note(int32_t severity, uint32_t line, uint32_t column, const char* where, const char* text, void* to)
{
    *static_cast<std::string*>(to) += (severity == KXPOLICY_WARNING ? "warning " : "") + std::to_string(line) + ":" +
                                      std::to_string(column) + " " + where + " " + text + "\n";
}

void Append(const char* text, size_t size, void* to)
{
    static_cast<std::string*>(to)->append(text, size);
}

std::string Export()
{
    std::string text;
    EXPECT_EQ(kxPolicyExport(nullptr, 0, nullptr, Append, &text), KXRULE_OK);
    return text;
}

int32_t Put(const std::string& text, uint32_t flags = KXPOLICY_REPLACE, const KXRULE_LIBRARY* library = nullptr,
            const uint64_t* stamp = nullptr)
{
    g_Told.clear();
    return kxPolicyApply(library, text.data(), text.size(), flags, stamp, Note, &g_Told);
}

int32_t Difference(const std::string& text, uint32_t flags = KXPOLICY_REPLACE, uint64_t* stamp = nullptr)
{
    g_Told.clear();
    return kxPolicyDifference(nullptr, text.data(), text.size(), flags, stamp, Append, Note, &g_Told);
}

// A policy of these words: "1a:" is the rule set 1, called a; "5s" and "5d" are its rule 5, of type SNAT and DNAT; "2+"
// is an active rule set; "m*" is a macro.
std::string Text(const std::string& outline)
{
    std::string text = "rules 1\nsets\n";
    std::istringstream words(outline);
    for (std::string word; words >> word;)
    {
        const char kind = word.back();
        word.pop_back();
        if (kind == ':')
            text += "set " + word.substr(0, word.size() - 1) + " " + word.back();
        else if (kind == '+')
            text += "active " + word;
        else if (kind == '*')
            text += "macro " + word + "\nport=80";
        else
            text += word + " NAT,ANY,,,,,,," + (kind == 's' ? "SNAT" : "DNAT");
        text += '\n';
    }
    return text;
}

const std::string kBefore = Text("1a: 0s 5d 2b: 1s 3c: 7s 4d: 1s 2s 1+ 3+ m* n*");
// A rule 0 that changes, a new name, a set that goes, one that comes, rules that change, go and come, macros, active
// list.
const std::string kAfter = Text("1a: 0d 6d 2x: 1s 4d: 1d 3s 9e: 1s 9+ 1+ o*");

class PolicyTest : public StoreTest
{
protected:
    /// The store in words like those of Text; at the end the number of macros.
    static std::string Outline()
    {
        std::string text;
        for (const uint16_t index : SetIndexes())
        {
            text += std::to_string(index) + static_cast<char>(NameOf(index)[0]) + ": ";
            for (const PFW_RULE& rule : Rules(index))
                text += std::to_string(rule.wRuleIndex) + (rule.Nat.dwNatType == KXRULE_NAT_SNAT ? "s " : "d ");
        }
        for (const uint16_t index : ActiveIndexes())
            text += std::to_string(index) + "+ ";
        return text + std::to_string(kxRuleGetMacroCount());
    }
};

TEST_F(PolicyTest, MakesTheStoreHoldWhatThePolicySays)
{
    const char* const before = "1a: 0s 5d 2b: 1s 3c: 7s 4d: 1s 2s 1+ 3+ 2";
    const std::string naming = "rules 1\nmacro o\nset 1 a\n0 NAT,TCP,,,,,,,SNAT  ports=@m,any,any\n";
    const std::tuple<std::string, uint32_t, int32_t, const char*, const char*> rows[] = {
        // policy and flags, number of differences, store afterwards, what is reported
        {kBefore, KXPOLICY_REPLACE, 0, before, ""},
        {"rules 1", KXPOLICY_REPLACE, 0, before, ""},
        {Text(""), KXPOLICY_MERGE, 0, before, ""},
        {Text(""), KXPOLICY_REPLACE | KXPOLICY_ALLOW_EMPTY, 5, "2", ""},
        {Text("4d: 2s"), KXPOLICY_MERGE, 0, before, ""},
        {Text("4d: 2s"), KXPOLICY_REPLACE, 5, "4d: 2s 2", ""},
        {Text("2x: 9e:"), KXPOLICY_MERGE, 2, "1a: 0s 5d 2x: 1s 3c: 7s 4d: 1s 2s 9e: 1+ 3+ 2", ""},
        {kAfter, KXPOLICY_MERGE, 6, "1a: 0d 5d 6d 2x: 1s 3c: 7s 4d: 1d 2s 3s 9e: 1s 9+ 1+ 3", ""},
        {kAfter, KXPOLICY_REPLACE, 7, "1a: 0d 6d 2x: 1s 4d: 1d 3s 9e: 1s 9+ 1+ 1", ""},
        // What is probably not intended is reported, and done; not so the macro m, while it stays.
        {naming, KXPOLICY_MERGE, 2, "1a: 0s 5d 2b: 1s 3c: 7s 4d: 1s 2s 1+ 3+ 3", ""},
        {naming, KXPOLICY_REPLACE, 6, "1a: 0s 1+ 1",
         "warning 0:0 rule set 1, rule 0 names the macro \"m\", which does not exist\n"},
    };
    for (const auto& [policy, flags, differences, store, told] : rows)
    {
        ASSERT_GE(Put(kBefore), 0) << g_Told;
        EXPECT_EQ(Difference(policy, flags), differences) << g_Told << policy;
        EXPECT_EQ(Put(policy, flags), differences) << policy;
        EXPECT_EQ(g_Told, told) << policy;
        EXPECT_EQ(Outline(), store) << policy;
        EXPECT_EQ(Difference(policy, flags), 0) << g_Told << policy;
    }
    const std::string text = Export();
    Reopen();
    EXPECT_EQ(Export(), text);
    EXPECT_EQ(Put(text), 0) << g_Told;
}

TEST_F(PolicyTest, RefusesWithAReasonAndAPlace)
{
    const auto words = [](int first, int last, const char* kind)
    {
        std::string text;
        for (; first <= last; ++first)
            text += std::to_string(first) + kind;
        return text;
    };
    const std::tuple<std::string, uint32_t, int32_t, const char*> rows[] = {
        // policy and flags, result, a part of what is reported
        {"", KXPOLICY_REPLACE, KXPOLICY_E_TEXT, "1:1  syntax error"},
        {"{\"version\": 1,\n \"active\": [1", KXPOLICY_MERGE, KXPOLICY_E_TEXT, "2:14  syntax error"},
        {"{}", KXPOLICY_MERGE, KXPOLICY_E_TEXT, "1:1  \"version\" is missing"},
        {Text("1+ 0+"), KXPOLICY_MERGE, KXPOLICY_E_TEXT, "4:8 active[1] "},
        {Text(words(70001, 71500, "+ ")), KXPOLICY_MERGE, KXPOLICY_E_TEXT, "there is more; what follows is not read"},
        {Text("1a: " + words(0, 1024, "s ")), KXPOLICY_MERGE, KXPOLICY_E_TEXT,
         "a rule set holds at most 1024 rules; what follows is not read"},
        {Text(words(101, 165, "a: ")), KXPOLICY_MERGE, KXPOLICY_E_TEXT,
         "a store holds at most 64 rule sets; what follows is not read"},
        {Text(words(101, 164, "a: ")), KXPOLICY_MERGE, KXPOLICY_E_LIMIT,
         "0:0  the store would hold 68 rule sets; the limit is 64"},
        {Text(""), KXPOLICY_REPLACE, KXPOLICY_E_EMPTY, "0:0  the policy would remove every rule set"},
        {kAfter, 4, KXPOLICY_E_ARGUMENT, ""},
    };
    ASSERT_EQ(Put(kBefore), 6) << g_Told;
    const std::string before = Export();
    for (const auto& [policy, flags, result, told] : rows)
    {
        EXPECT_EQ(Difference(policy, flags), result) << told;
        EXPECT_EQ(Put(policy, flags), result) << told;
        EXPECT_NE(g_Told.find(told), std::string::npos) << g_Told.substr(0, 500) << told;
        const bool isRefused = kxPolicyCheck(policy.data(), policy.size(), nullptr, nullptr) == KXPOLICY_E_TEXT;
        EXPECT_EQ(isRefused, result == KXPOLICY_E_TEXT) << told;
        EXPECT_EQ(Export(), before) << told;
    }
    Close();
    const std::string left = Outline();
    EXPECT_EQ(Put(kAfter), KXRULE_E_FILE_OPEN); // not initialised
    EXPECT_EQ(Outline(), left);
    ASSERT_EQ(kxRuleInitialize(Directory().c_str(), nullptr), KXRULE_OK);
}

TEST_F(PolicyTest, TakesBackWhatItChangedWhenACallFails)
{
    ASSERT_EQ(Put(kBefore), 6);
    const std::string before = Export();
    int good = 0;
    for (int left = 0; good < 100; left = ++good)
    {
        const KXRULE_LIBRARY library = Watching([&] { return left-- == 0 ? KXRULE_E_FILE_WRITE : KXRULE_OK; });
        if (Put(kAfter, KXPOLICY_REPLACE, &library) >= 0)
            break;
        EXPECT_EQ(Put(before), 0) << good << g_Told;
        EXPECT_EQ(Export(), before) << good;
    }
    EXPECT_GT(good, 15);
    EXPECT_EQ(Difference(kAfter), 0) << g_Told;
    int left = 6; // and from then on nothing works
    const KXRULE_LIBRARY library = Watching([&] { return left-- > 0 ? KXRULE_OK : KXRULE_E_NULL_POINTER; });
    EXPECT_EQ(Put(before, KXPOLICY_REPLACE, &library), KXPOLICY_E_PARTLY) << g_Told;
    EXPECT_GT(Put(before), 0);
    Reopen();
    EXPECT_EQ(Export(), before);
}

TEST_F(PolicyTest, SeesThatAnotherThreadChangesTheStore)
{
    ASSERT_EQ(Put(kBefore), 6);
    const std::string before = Export();
    uint64_t stamp = 0;
    EXPECT_EQ(Difference(kAfter, KXPOLICY_REPLACE, &stamp), 7);
    const PFW_RULE rule = Build::Rule(KXRULE_KIND_NAT, 3);
    // What comes into the place of a rule or a rule set that is about to be added stands in the way.
    const std::function<void()> changes[] = {[&] { EXPECT_EQ(kxRuleAddRule(4, 3, &rule), KXRULE_OK); },
                                             [&] { EXPECT_EQ(AddSet(9), KXRULE_OK); }};
    for (const auto& change : changes)
    {
        bool first = true;
        const KXRULE_LIBRARY library = Watching(
            [&]
            {
                if (std::exchange(first, false))
                    std::thread(change).join();
                return KXRULE_OK;
            });
        EXPECT_EQ(Put(kAfter, KXPOLICY_REPLACE, &library), KXPOLICY_E_CHANGED) << g_Told;
        EXPECT_EQ(Export(), before);
    }
    std::thread([&] { EXPECT_EQ(kxRuleAddRule(2, 3, &rule), KXRULE_OK); }).join(); // which no kept lock stops
    EXPECT_EQ(Put(kAfter, KXPOLICY_REPLACE, nullptr, &stamp), KXPOLICY_E_CHANGED);
    EXPECT_EQ(Difference(kAfter, KXPOLICY_REPLACE, &stamp), 7);
    EXPECT_EQ(Put(kAfter, KXPOLICY_REPLACE, nullptr, &stamp), 7);
}

} // namespace
