// KxPolicy.dll on the store of this process.
#include "api/include/KxPolicy.h"

#include <functional>
#include <thread>
#include <tuple>
#include <utility>

#include "tests/api/StoreFixture.h"
#include "tests/support/MemoryLibrary.h"
#include "tests/support/PolicyText.h"

namespace
{

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

using PolicyTest = StoreTest;

TEST_F(PolicyTest, MakesTheStoreHoldWhatThePolicySays)
{
    // What is probably not intended is reported, and done; not so the macro m, while it stays.
    const std::string naming = "rules 1\nmacro o\nset 1 a\n0 NAT,TCP,,,,,,,SNAT  ports=@m,any,any\n";
    const std::tuple<std::string, uint32_t, int32_t, const char*> rows[] = {
        // policy and flags, number of differences, what is reported
        {kPolicyBefore, KXPOLICY_REPLACE, 6, ""},
        {naming, KXPOLICY_MERGE, 2, ""},
        {naming, KXPOLICY_REPLACE, 6, "warning 0:0 rule set 1, rule 0 names the macro \"m\", which does not exist\n"},
        {PolicyText(""), KXPOLICY_REPLACE | KXPOLICY_ALLOW_EMPTY, 2, ""},
        {kPolicyAfter, KXPOLICY_REPLACE, 6, ""},
    };
    for (const auto& [policy, flags, differences, told] : rows)
    {
        EXPECT_EQ(Difference(policy, flags), differences) << g_Told << policy;
        EXPECT_EQ(Put(policy, flags), differences) << policy;
        EXPECT_EQ(g_Told, told) << policy;
    }
    const std::string text = Export();
    Reopen();
    EXPECT_EQ(Export(), text);
    EXPECT_EQ(Put(text), 0) << g_Told;
}

TEST_F(PolicyTest, RefusesWithAReasonAndAPlace)
{
    const std::tuple<std::string, uint32_t, int32_t, const char*> rows[] = {
        // policy and flags, result, what is reported
        {PolicyText("1+ 0+"), KXPOLICY_MERGE, KXPOLICY_E_TEXT,
         "4:8 active[1] expected a whole number from 1 to 65280, found 0\n"},
        {PolicyText(Numbered(101, 164, "a:")), KXPOLICY_MERGE, KXPOLICY_E_LIMIT,
         "0:0  the store would hold 68 rule sets; the limit is 64\n"},
        {PolicyText(""), KXPOLICY_REPLACE, KXPOLICY_E_EMPTY, "0:0  the policy would remove every rule set\n"},
        {kPolicyAfter, 4, KXPOLICY_E_ARGUMENT, ""},
    };
    ASSERT_EQ(Put(kPolicyBefore), 6) << g_Told;
    const std::string before = Export();
    for (const auto& [policy, flags, result, told] : rows)
    {
        EXPECT_EQ(Difference(policy, flags), result) << told;
        EXPECT_EQ(Put(policy, flags), result) << told;
        EXPECT_EQ(g_Told, told);
        EXPECT_EQ(Export(), before) << told;
    }
    EXPECT_EQ(kxPolicyCheck("{}", 2, nullptr, nullptr), KXPOLICY_E_TEXT);
    EXPECT_EQ(kxPolicyCheck(before.data(), before.size(), nullptr, nullptr), KXRULE_OK);
    Close();
    EXPECT_EQ(Put(kPolicyAfter), KXRULE_E_FILE_OPEN); // not initialised
    ASSERT_EQ(kxRuleInitialize(Directory().c_str(), nullptr), KXRULE_OK);
}

TEST_F(PolicyTest, TakesBackWhatItChangedWhenACallFails)
{
    KXRULE_LIBRARY library = MemoryLibrary::Functions();
    MemoryLibrary::Clear();
    ASSERT_EQ(Put(kPolicyBefore, KXPOLICY_REPLACE, &library), 6) << g_Told;
    const auto fails = [&](int32_t result, std::function<int32_t()> before)
    {
        MemoryLibrary::g_Before = std::move(before);
        EXPECT_EQ(Put(kPolicyAfter, KXPOLICY_REPLACE, &library), result);
        EXPECT_EQ(Put(kPolicyBefore, KXPOLICY_REPLACE, &library), 0) << g_Told;
    };
    for (int good = 0; good < 17; ++good)
        fails(KXRULE_E_FILE_WRITE, [left = good]() mutable { return left-- == 0 ? KXRULE_E_FILE_WRITE : KXRULE_OK; });
    fails(KXPOLICY_E_CHANGED, // another thread has put a rule where one is to be added
          [isFirst = true]() mutable
          {
              if (std::exchange(isFirst, false))
                  MemoryLibrary::g_RuleSets.Find(4)->PutRule(Build::Rule(KXRULE_KIND_NAT, 3));
              return KXRULE_OK;
          });
    MemoryLibrary::g_Before = [left = 6]() mutable { return left-- > 0 ? KXRULE_OK : KXRULE_E_NULL_POINTER; };
    EXPECT_EQ(Put(kPolicyAfter, KXPOLICY_REPLACE, &library), KXPOLICY_E_PARTLY) << g_Told;
    // A deletion that could not be written has happened all the same.
    library.kxRuleDeleteRuleSet = [](uint16_t index)
    { return MemoryLibrary::g_RuleSets.Erase(index) ? KXRULE_E_FILE_WRITE : KXRULE_E_NO_RULESET; };
    MemoryLibrary::Clear();
    ASSERT_EQ(Put(kPolicyBefore, KXPOLICY_REPLACE, &library), 6) << g_Told;
    fails(KXRULE_E_FILE_WRITE, [] { return KXRULE_OK; });
}

TEST_F(PolicyTest, SeesThatAnotherThreadChangesTheStore)
{
    ASSERT_EQ(Put(kPolicyBefore), 6);
    uint64_t stamp = 0;
    EXPECT_EQ(Difference(kPolicyAfter, KXPOLICY_REPLACE, &stamp), 7);
    // Another rule in the place of one, which no kept lock stops.
    const PFW_RULE other = Build::Rule(KXRULE_KIND_NAT, 1);
    std::thread([&] { EXPECT_EQ(kxRuleDeleteRule(2, 1) + kxRuleAddRule(2, 1, &other), KXRULE_OK); }).join();
    EXPECT_EQ(Put(kPolicyAfter, KXPOLICY_REPLACE, nullptr, &stamp), KXPOLICY_E_CHANGED);
    EXPECT_EQ(Difference(kPolicyAfter, KXPOLICY_REPLACE, &stamp), 7);
    EXPECT_EQ(Put(kPolicyAfter, KXPOLICY_REPLACE, nullptr, &stamp), 7);
}

} // namespace
