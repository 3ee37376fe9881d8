// Every allocation failing: once, and from then on. (System calls on files: crash/CrashWinTest.cpp.)
#include <functional>
#include <stdexcept>

#include "api/Library.h"
#include "persistence/Files.h"
#include "repository/RuleMaster.h"
#include "tests/torture/Faults.h"
#include "tests/torture/TortureTest.h"

using Files::Operation;

namespace
{

Faults g_FileFaults;

DWORD FileFault(Operation)
{
    return g_FileFaults.IsFailing() ? g_FileFaults.Error : ERROR_SUCCESS;
}

} // namespace

class FaultsTest : public TortureTest
{
protected:
    void SetUp() override
    {
        TortureTest::SetUp();
        FillStore(100); // more than a stream gathers before it writes
        ASSERT_EQ(kxRuleWrite(), 0);
        m_Before = Snapshot();
        ChangeStore();
        ASSERT_EQ(kxRuleWrite(), 0);
        m_After = Snapshot();
        ::Files::SetFaultHook(FileFault);
    }
    void TearDown() override
    {
        ::Files::SetFaultHook(nullptr);
        TortureTest::TearDown();
    }
    /// The store of m_Before in memory and on the disk, with the change made in memory.
    void Begin()
    {
        Close();
        Restore(m_Before);
        Open();
        ChangeStore();
    }
    /// Acts with the first call failing, then with the second and so on, until none fails any more; that call alone,
    /// and also together with all later ones. Each time starts from the state that begin makes.
    template <class Begin, class Act, class Check>
    void ForEachFault(const std::string& name, Campaign& campaign, const Begin& begin, const Act& act,
                      const Check& check)
    {
        for (const bool isForGood : {false, true})
        {
            bool hasFailed = true;
            for (uint32_t k = 1; hasFailed && !HasFailure(); ++k)
            {
                SCOPED_TRACE(name + ", allocation " + std::to_string(k) + (isForGood ? " and all after it" : ""));
                begin();
                const DWORD handles = Handles();
                g_AllocationFaults.Arm(k, isForGood, 0);
                const int32_t result = act();
                hasFailed = g_AllocationFaults.Disarm();
                campaign.Count(1);
                EXPECT_LE(Handles(), handles);
                check(result, hasFailed);
            }
        }
    }

    Files m_Before, m_After;
};

// A change is written at the next tick, again until it succeeds; without a change nothing is written.
TEST_F(FaultsTest, TimedWritesGoOnUntilOneSucceeds)
{
    const auto tick = [](DWORD error)
    {
        g_FileFaults.Arm(1, true, error);
        CRuleMaster::CallbackFuncWriteTimeOut(&g_RuleMaster);
        return g_FileFaults.Disarm();
    };
    Begin();
    EXPECT_TRUE(tick(ERROR_DISK_FULL));
    EXPECT_EQ(Snapshot(), m_Before);
    EXPECT_TRUE(tick(ERROR_DISK_FULL)) << "tries again";
    EXPECT_TRUE(tick(ERROR_SUCCESS));
    EXPECT_EQ(Snapshot(), m_After);
    EXPECT_FALSE(tick(ERROR_DISK_FULL)) << "no change, but a file was touched";

    // What a refresh has changed before its callback throws still counts as a change.
    ASSERT_EQ(AddSet(4, {Build::Access(1, L"SYSTEM"), Build::Access(2, L"SYSTEM")}), 0);
    tick(ERROR_SUCCESS);
    const std::string before = ReadFile("KxRl0004.dat");
    const std::vector<uint8_t> hash(KXRULE_HASH_BYTES, 7);
    const auto throws = [](uint32_t, const PFW_RULE*, void*) -> int32_t { throw std::runtime_error("callback"); };
    EXPECT_EQ(kxRuleUpdateHashValue(L"SYSTEM", hash.data(), throws, nullptr), KXRULE_E_HASH_LIBRARY);
    EXPECT_EQ(Rules(4)[0].Access.abAppHash[0] + Rules(4)[1].Access.abAppHash[0], 7) << "one of two";
    EXPECT_TRUE(tick(ERROR_SUCCESS));
    EXPECT_NE(ReadFile("KxRl0004.dat"), before);
}

TEST_F(FaultsTest, LackOfMemoryIsToldAndNeverTakenForDamage)
{
    Campaign campaign("fails: allocation");
    auto set = Build::RuleSet(0, L"a name that does not fit into the string object itself", {Build::Access(1)});
    auto macro = Build::Macro("a name that does not fit into the string", {Build::Item("a")});
    const PFW_RULE rule = Build::Access(1);
    const uint16_t active[] = {2, 3};
    struct
    {
        const char* name;
        std::function<int32_t()> call;
        int32_t failure;
        bool isReadAnew; // starts from a store that is not read yet
    } const rows[] = {
        {"kxRuleRead", kxRuleRead, KXRULE_E_FILE_READ, true},
        {"kxRuleWrite", kxRuleWrite, KXRULE_E_FILE_WRITE, false},
        {"kxRuleDeleteRuleSet", [] { return kxRuleDeleteRuleSet(2); }, KXRULE_E_FILE_WRITE, false},
        {"kxRuleAddRuleSet", [&] { return kxRuleAddRuleSet(0, set.get()); }, KXRULE_E_NULL_POINTER, false},
        {"kxRuleAddRule", [&] { return kxRuleAddRule(1, 200, &rule); }, KXRULE_E_NULL_POINTER, false},
        {"kxRuleAddMacro", [&] { return kxRuleAddMacro(macro.get()); }, KXRULE_E_NULL_POINTER, false},
        {"kxRuleSetActiveRuleSet", [&] { return kxRuleSetActiveRuleSet(active, 2); }, KXRULE_E_NULL_POINTER, false},
        {"kxRuleGetRuleString", [] { return std::min(0, kxRuleGetRuleString(2, 7, nullptr, 0)); }, KXRULE_E_RULE_TEXT,
         false},
        {"kxRuleGetRuleString2", [&] { return std::min(0, kxRuleGetRuleString2(&rule, nullptr, 0)); },
         KXRULE_E_RULE_TEXT, false},
        {"kxRuleGetMacroString", [&] { return std::min(0, kxRuleGetMacroString(macro.get(), nullptr, 0)); },
         KXRULE_E_MACRO_TEXT, false},
    };
    for (const auto& row : rows)
    {
        Files before;
        std::vector<uint16_t> indexes;
        size_t rules = 0;
        int32_t macros = 0;
        ForEachFault(
            row.name, campaign,
            [&]
            {
                Begin();
                if (row.isReadAnew)
                {
                    Close();
                    Restore(m_Before);
                    ASSERT_EQ(kxRuleInitialize(Directory().c_str(), nullptr), 0);
                }
                before = Snapshot();
                indexes = SetIndexes();
                rules = Rules(1).size();
                macros = kxRuleGetMacroCount();
            },
            row.call,
            [&](int32_t result, bool hasFailed)
            {
                EXPECT_TRUE(result == 0 || (hasFailed && result == row.failure)) << result;
                const Files now = Snapshot();
                if (row.failure != KXRULE_E_FILE_WRITE)
                    EXPECT_EQ(now, before) << "nothing is moved, copied or written";
                else if (row.name == std::string("kxRuleWrite"))
                    ExpectOldOrNew(now, m_Before, m_After);
                if (result != 0 && row.failure == KXRULE_E_NULL_POINTER)
                {
                    EXPECT_EQ(SetIndexes(), indexes);
                    EXPECT_EQ(Rules(1).size(), rules);
                    EXPECT_EQ(kxRuleGetMacroCount(), macros);
                    EXPECT_EQ(row.call(), 0) << "the next try";
                }
            });
    }
}
