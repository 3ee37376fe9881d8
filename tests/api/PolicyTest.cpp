// KxPolicy.dll on the store of this process.
#include "api/include/KxPolicy.h"

#include <functional>
#include <thread>

#include "tests/api/StoreFixture.h"

namespace
{

// The library's functions, of which those that change the store, and the write, can be refused or preceded by another
// thread's change.
std::function<int32_t()> g_Before; // a code refuses the call

template <auto function, class... Arguments>
int32_t Watched(Arguments... arguments)
{
    const int32_t refused = g_Before();
    return refused != KXRULE_OK ? refused : function(arguments...);
}

KXRULE_LIBRARY Watching(std::function<int32_t()> before)
{
#define ADDRESS(name, parameters) &name,
    KXRULE_LIBRARY library = {KXRULE_FUNCTIONS(ADDRESS)};
    library.kxRuleAddRuleSet = &Watched<&kxRuleAddRuleSet>;
    library.kxRuleDeleteRuleSet = &Watched<&kxRuleDeleteRuleSet>;
    library.kxRuleAddRule = &Watched<&kxRuleAddRule>;
    library.kxRuleDeleteRule = &Watched<&kxRuleDeleteRule>;
    library.kxRuleAddMacro = &Watched<&kxRuleAddMacro>;
    library.kxRuleDeleteMacro = &Watched<&kxRuleDeleteMacro>;
    library.kxRuleSetActiveRuleSet = &Watched<&kxRuleSetActiveRuleSet>;
    library.kxRuleFlush = &Watched<&kxRuleFlush>;
    g_Before = std::move(before);
    return library;
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

std::string Rule(int index, const char* type)
{
    return "{\"kind\": \"nat\", \"index\": " + std::to_string(index) + ", \"natType\": \"" + type + "\"}";
}

std::string Set(int index, const char* name, const std::string& rules = {})
{
    return "{\"index\": " + std::to_string(index) + ", \"name\": \"" + name + "\", \"rules\": [" + rules + "]}";
}

std::string Text(const std::string& sets, const std::string& rest = {})
{
    return "{\"version\": 1, " + rest + "\"ruleSets\": [" + sets + "]}";
}

const std::string kBefore =
    Text(Set(1, "a", Rule(0, "snat") + "," + Rule(5, "dnat")) + "," + Set(2, "b", Rule(1, "snat")) + "," +
             Set(3, "c", Rule(7, "snat")) + "," + Set(4, "d", Rule(1, "snat") + "," + Rule(2, "snat")),
         R"("active": [1, 3], "macros": [{"name": "m", "items": [{"port": "80"}]}, {"name": "n"}], )");
// A rule 0 that changes, a new name, a set that goes, one that comes, rules that change, go and come, macros, active
// list.
const std::string kAfter =
    Text(Set(1, "a", Rule(0, "dnat") + "," + Rule(6, "dnat")) + "," + Set(2, "x", Rule(1, "snat")) + "," +
             Set(4, "d", Rule(1, "dnat") + "," + Rule(3, "snat")) + "," + Set(9, "e", Rule(1, "masq")),
         R"("active": [9, 1], "macros": [{"name": "o", "items": [{"text": "x"}]}], )");

class PolicyTest : public StoreTest
{
protected:
    /// Sets with their rules, the active list, the number of macros.
    static std::string Outline()
    {
        std::string text;
        for (const uint16_t index : SetIndexes())
        {
            text += std::to_string(index) + static_cast<char>(NameOf(index)[0]) + "(";
            for (const uint16_t rule : RuleIndexes(index))
                text += std::to_string(rule) + " ";
            text += ") ";
        }
        for (const uint16_t index : ActiveIndexes())
            text += "+" + std::to_string(index);
        return text + " " + std::to_string(kxRuleGetMacroCount());
    }
};

TEST_F(PolicyTest, MakesTheStoreHoldWhatThePolicySays)
{
    const char* const before = "1a(0 5 ) 2b(1 ) 3c(7 ) 4d(1 2 ) +1+3 2";
    const struct
    {
        std::string Text;
        uint32_t Flags;
        int32_t Differences;
        const char* Store;
    } rows[] = {
        {kBefore, KXPOLICY_REPLACE, 0, before},
        {"{\"version\": 1}", KXPOLICY_REPLACE, 0, before},
        {Text(""), KXPOLICY_MERGE, 0, before},
        {Text(""), KXPOLICY_REPLACE | KXPOLICY_ALLOW_EMPTY, 5, " 2"},
        {Text(Set(4, "d", Rule(2, "snat"))), KXPOLICY_MERGE, 0, before},
        {Text(Set(4, "d", Rule(2, "snat"))), KXPOLICY_REPLACE, 5, "4d(2 )  2"},
        {Text(Set(2, "x") + "," + Set(9, "e")), KXPOLICY_MERGE, 2, "1a(0 5 ) 2x(1 ) 3c(7 ) 4d(1 2 ) 9e() +1+3 2"},
        {kAfter, KXPOLICY_MERGE, 6, "1a(0 5 6 ) 2x(1 ) 3c(7 ) 4d(1 2 3 ) 9e(1 ) +9+1 3"},
        {kAfter, KXPOLICY_REPLACE, 7, "1a(0 6 ) 2x(1 ) 4d(1 3 ) 9e(1 ) +9+1 1"},
    };
    for (const auto& row : rows)
    {
        ASSERT_GE(Put(kBefore), 0) << g_Told;
        EXPECT_EQ(Difference(row.Text, row.Flags), row.Differences) << g_Told << row.Text;
        EXPECT_EQ(Put(row.Text, row.Flags), row.Differences) << g_Told << row.Text;
        EXPECT_EQ(Outline(), row.Store) << row.Text;
        EXPECT_EQ(Difference(row.Text, row.Flags), 0) << g_Told << row.Text;
    }
    const std::string text = Export();
    Reopen();
    EXPECT_EQ(Export(), text);
    EXPECT_EQ(Put(text), 0) << g_Told;
    // What is probably not intended is reported, and done; not so the macro m, while it stays.
    for (const uint32_t flags : {KXPOLICY_MERGE, KXPOLICY_REPLACE})
    {
        ASSERT_GE(Put(kBefore), 0) << g_Told;
        EXPECT_EQ(Put(Text(Set(1, "a", R"({"kind": "nat", "index": 0, "natType": "snat", "protocol": "tcp",
                                           "ports": ["@m", "any", "any"]})"),
                           R"("macros": [{"name": "o"}], )"),
                      flags),
                  flags == KXPOLICY_MERGE ? 2 : 6);
        EXPECT_EQ(g_Told, flags == KXPOLICY_MERGE
                              ? ""
                              : "warning 0:0 rule set 1, rule 0 names the macro \"m\", which does not exist\n");
    }
}

TEST_F(PolicyTest, RefusesWithAReasonAndAPlace)
{
    std::string sets;
    for (int index = 101; index < 166; ++index)
        sets += (sets.empty() ? "" : ",") + Set(index, "");
    std::string zeroes = "0";
    for (int i = 1; i < 1500; ++i)
        zeroes += ",\n0";
    std::string rules = Rule(0, "snat");
    for (int index = 1; index < 1025; ++index)
        rules += "," + Rule(index, "snat");
    const struct
    {
        std::string Text;
        uint32_t Flags;
        int32_t Result;
        const char* Told; // a part of it
    } rows[] = {
        {"", KXPOLICY_REPLACE, KXPOLICY_E_TEXT, "1:1  syntax error"},
        {"{\"version\": 1,\n \"active\": [1", KXPOLICY_MERGE, KXPOLICY_E_TEXT, "2:14  syntax error"},
        {"{}", KXPOLICY_MERGE, KXPOLICY_E_TEXT, "1:1  \"version\" is missing"},
        {Text(Set(1, "", "\n " + Rule(1, "x"))), KXPOLICY_MERGE, KXPOLICY_E_TEXT, "2:41 ruleSets[0].rules[0].natType "},
        {Text("", "\"active\": [" + zeroes + "], "), KXPOLICY_MERGE, KXPOLICY_E_TEXT,
         "there is more; what follows is not read"},
        {Text(Set(1, "", rules)), KXPOLICY_MERGE, KXPOLICY_E_TEXT,
         "a rule set holds at most 1024 rules; what follows is not read"},
        {Text(sets), KXPOLICY_MERGE, KXPOLICY_E_TEXT, "a store holds at most 64 rule sets; what follows is not read"},
        {Text(sets.substr(Set(101, "").size() + 1)), KXPOLICY_MERGE, KXPOLICY_E_LIMIT,
         "0:0  the store would hold 68 rule sets; the limit is 64"},
        {Text(""), KXPOLICY_REPLACE, KXPOLICY_E_EMPTY, "0:0  the policy would remove every rule set"},
        {kAfter, 4, KXPOLICY_E_ARGUMENT, ""},
    };
    ASSERT_EQ(Put(kBefore), 6) << g_Told;
    const std::string before = Export();
    for (const auto& row : rows)
    {
        EXPECT_EQ(Difference(row.Text, row.Flags), row.Result) << row.Text;
        EXPECT_EQ(Put(row.Text, row.Flags), row.Result) << row.Text;
        EXPECT_NE(g_Told.find(row.Told), std::string::npos) << g_Told << row.Told;
        EXPECT_EQ(kxPolicyCheck(row.Text.data(), row.Text.size(), nullptr, nullptr) == KXPOLICY_E_TEXT,
                  row.Result == KXPOLICY_E_TEXT);
        EXPECT_EQ(Export(), before) << row.Text;
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
    int left = 5; // and from then on nothing works
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
