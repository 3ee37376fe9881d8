// What is called, and in which order, to make a store hold a policy; the store is one in memory.
#include "policy/Apply.h"

#include <gtest/gtest.h>

#include "policy/LibraryStore.h"
#include "policy/ResultCodes.h"
#include "tests/support/MemoryLibrary.h"
#include "tests/support/ParsedPolicy.h"

namespace
{

using KxPolicy::MergeMode;
using KxPolicy::Policy;
using KxPolicy::PolicyDiff;

const KXRULE_LIBRARY kMemory = MemoryLibrary::Functions();

/// Notes when the files would be copied.
class CopiedStore final : public KxPolicy::LibraryStore
{
public:
    using LibraryStore::LibraryStore;
    void CopyFiles() override { MemoryLibrary::g_Calls << "copy "; }
};

Policy ReadMemory()
{
    return KxPolicy::ReadStore(kMemory, [](size_t, size_t) {});
}

void ApplyInMemory(const Policy& store, const PolicyDiff& diff)
{
    MemoryLibrary::g_Calls.str({});
    CopiedStore target(kMemory);
    KxPolicy::Apply(target, store, diff, [](size_t, size_t) {});
}

/// An empty store gets this policy.
void FillMemory(const std::string& policy)
{
    MemoryLibrary::Clear();
    const Policy empty = ReadMemory(), wanted = ParsedPolicy(policy);
    ApplyInMemory(empty, KxPolicy::Compare(empty, wanted, MergeMode::Merge));
    EXPECT_EQ(KxPolicy::PolicyToText(ReadMemory()), KxPolicy::PolicyToText(wanted));
}

} // namespace

TEST(Apply, MakesTheStoreHoldWhatThePolicySays)
{
    const std::string none = PolicyText("") + "active\nmacro e\n";            // without items
    const std::string blank = none + "set 1 a\n1 ACCESS2  ports=list:,any\n"; // accepted with its set alone
    const auto many = [](int first, int last) { return PolicyText(Numbered(first, last, "a:")) + "active\nmacros\n"; };
    const struct
    {
        std::string Before, Policy;
        MergeMode Mode;
        const char* Calls;
    } cases[] = {
        {kPolicyBefore, "rules 1", MergeMode::Replace, "write "},
        {kPolicyBefore, PolicyText("4d: 2s"), MergeMode::Merge, "write "},
        {kPolicyBefore, PolicyText(""), MergeMode::Replace, "copy active write -1 -2 -3 -4 write "},
        {kPolicyBefore, PolicyText("4d: 2s"), MergeMode::Replace, "copy -4/1 active write -1 -2 -3 write "},
        {kPolicyBefore, PolicyText("2x: 9e:"), MergeMode::Merge, "copy +9 write -2 +2 write "},
        {kPolicyBefore, kPolicyAfter, MergeMode::Merge,
         "copy -1/0 +1/0 +1/5 +1/6 -4/1 +4/1 +4/3 +9 -macros +macro +macro +macro active write -2 +2 write "},
        {kPolicyBefore, kPolicyAfter, MergeMode::Replace,
         "copy -1/0 +1/0 +1/6 -4/1 -4/2 +4/1 +4/3 +9 -macros +macro active write -2 -3 +2 write "},
        {none + "set 1 a\n2 NAT,ANY,,,,,,,SNAT", blank, MergeMode::Merge, "copy write -1 +1 write "},
        {blank + "2 NAT,ANY,,,,,,,SNAT", PolicyText("1a: 2d"), MergeMode::Merge, "-1/2 +1/2 write "},
        {blank + "0 NAT,ANY,,,,,,,SNAT", PolicyText("1a: 0d"), MergeMode::Merge, "copy write -1 +1 write "},
        // There is no room for the new set before the old one is gone.
        {many(1, 63), many(2, 64), MergeMode::Replace, "copy +64 write -1 write "},
        {many(1, 64), many(2, 65), MergeMode::Replace, "copy -1 +65 write "},
    };
    for (const auto& c : cases)
    {
        FillMemory(c.Before);
        Policy store = ReadMemory();
        const Policy policy = ParsedPolicy(c.Policy);
        PolicyDiff diff = KxPolicy::Compare(store, policy, c.Mode);
        KxPolicy::DropRules(store, diff);
        ApplyInMemory(store, diff);
        EXPECT_EQ(MemoryLibrary::g_Calls.str(), c.Calls) << c.Policy;
        EXPECT_TRUE(KxPolicy::Compare(ReadMemory(), policy, c.Mode).IsEmpty()) << c.Policy;
    }
    // Adding at an index in use would leave the library's lock with this thread.
    MemoryLibrary::g_Calls.str({});
    EXPECT_EQ(CopiedStore(kMemory).AddRuleSet(2, nullptr), KXRULE_E_NO_RULESET);
    EXPECT_EQ(MemoryLibrary::g_Calls.str(), "");
}

TEST(Apply, CanBeTakenBackWhereverItStops)
{
    const Policy policy = ParsedPolicy(kPolicyAfter);
    int good = 0;
    for (; good < 20; ++good)
    {
        FillMemory(kPolicyBefore);
        const Policy store = ReadMemory();
        const PolicyDiff diff = KxPolicy::Compare(store, policy, MergeMode::Replace);
        MemoryLibrary::g_Before = [left = good]() mutable { return left-- == 0 ? KXRULE_E_FILE_WRITE : KXRULE_OK; };
        try
        {
            ApplyInMemory(store, diff);
            break;
        }
        catch (const KxPolicy::StoreError& error)
        {
            EXPECT_EQ(error.Result(), KXRULE_E_FILE_WRITE);
            EXPECT_TRUE(good != 6 || error.what() == "adding rule 3 of rule set 4: " + KxPolicy::ResultText(-10057));
        }
        const Policy now = ReadMemory();
        ApplyInMemory(now, KxPolicy::Inverse(store, diff, now));
        EXPECT_EQ(KxPolicy::PolicyToText(ReadMemory()), KxPolicy::PolicyToText(store)) << good;
    }
    EXPECT_EQ(good, 16);
}
