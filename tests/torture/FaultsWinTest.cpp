// Every system call on a file, and every allocation, failing: once, and from then on.
#include <functional>
#include <stdexcept>

#include "api/Library.h"
#include "common/srclib/KxComn_Files.h"
#include "repository/RuleMaster.h"
#include "tests/torture/Faults.h"
#include "tests/torture/TortureTest.h"

using KxCommon::Files::Operation;

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
        KxCommon::Files::SetFaultHook(FileFault);
    }
    void TearDown() override
    {
        KxCommon::Files::SetFaultHook(nullptr);
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
    /// Acts with the first call failing, the second and so on, until none fails any more; that one alone, and all after
    /// it, too. Each time from the state that begin makes.
    template <class Begin, class Act, class Check>
    void ForEachFault(const std::string& name, Campaign& campaign, Faults& faults, DWORD error, const Begin& begin,
                      const Act& act, const Check& check)
    {
        for (const bool isForGood : {false, true})
        {
            bool hasFailed = true;
            for (uint32_t k = 1; hasFailed && !HasFailure(); ++k)
            {
                SCOPED_TRACE(name + ", error " + std::to_string(error) + ", call " + std::to_string(k) +
                             (isForGood ? " and all after it" : ""));
                begin();
                const DWORD handles = Handles();
                faults.Arm(k, isForGood, error);
                const int32_t result = act();
                hasFailed = faults.Disarm();
                campaign.Count(1);
                EXPECT_LE(Handles(), handles);
                check(result, hasFailed, isForGood);
            }
        }
    }

    Files m_Before, m_After;
};

TEST_F(FaultsTest, AnyFileCallOfAWriteMayFail)
{
    Campaign campaign("fails: file call of a write");
    struct
    {
        const char* name;
        std::function<int32_t()> write;
    } const rows[] = {{"kxRuleWrite", kxRuleWrite},
                      {"kxRuleFlush", kxRuleFlush},
                      {"kxRuleFinalize", []
                       {
                           const int32_t result = kxRuleFinalize(); // tells nobody of a failure
                           return result == 0 ? KXRULE_E_FILE_WRITE : result;
                       }}};
    for (const auto& row : rows)
    {
        for (const DWORD error : {ERROR_DISK_FULL, ERROR_ACCESS_DENIED, ERROR_SHARING_VIOLATION})
        {
            if (error != ERROR_DISK_FULL && Campaign::Seconds() == 0)
                continue; // the replacement waits for these to pass, which takes its time
            ForEachFault(
                row.name, campaign, g_FileFaults, error, [this] { Begin(); }, row.write,
                [&](int32_t result, bool, bool)
                {
                    const Files now = Snapshot();
                    EXPECT_TRUE(result == 0 || result == KXRULE_E_FILE_OPEN || result == KXRULE_E_FILE_WRITE) << result;
                    EXPECT_TRUE(result != 0 || now == m_After) << "success without the files of success";
                    ExpectOldOrNew(now, m_Before, m_After);
                    if (row.name == std::string("kxRuleFinalize"))
                        ASSERT_EQ(kxRuleInitialize(Directory().c_str(), nullptr), 0);
                    else
                        EXPECT_EQ(row.write(), 0) << "the next try";
                });
        }
    }
}

TEST_F(FaultsTest, AnyFileCallOfADeletionMayFail)
{
    Campaign campaign("fails: file call of a deletion");
    ForEachFault(
        "kxRuleDeleteRuleSet", campaign, g_FileFaults, ERROR_ACCESS_DENIED,
        [this]
        {
            Close();
            Restore(m_Before);
            Open();
        },
        [] { return kxRuleDeleteRuleSet(1); },
        [&](int32_t result, bool, bool)
        {
            const Files now = Snapshot();
            EXPECT_EQ(now.at("KxRl0002.dat"), m_Before.at("KxRl0002.dat"));
            EXPECT_TRUE(result == 0 || now == m_Before) << "files deleted though the list still names them";
            EXPECT_EQ(SetIndexes(), (std::vector<uint16_t>{2}));
            Reopen();
            EXPECT_EQ(SetIndexes(), (std::vector<uint16_t>{2}));
            EXPECT_FALSE(Exists("RuleBackup"));
        });
}

TEST_F(FaultsTest, NoFailureOfAReadLosesAFile)
{
    Campaign campaign("fails: file call of a read");
    for (const DWORD error : {ERROR_ACCESS_DENIED, ERROR_CRC, ERROR_NOT_ENOUGH_MEMORY})
    {
        ForEachFault(
            "kxRuleRead", campaign, g_FileFaults, error,
            [this]
            {
                ASSERT_EQ(kxRuleFinalize(), 0);
                Restore(m_Before);
                ASSERT_EQ(kxRuleInitialize(Directory().c_str(), nullptr), 0);
            },
            kxRuleRead,
            [&](int32_t result, bool, bool isForGood)
            {
                EXPECT_TRUE(result == 0 || result == KXRULE_E_FILE_OPEN || result == KXRULE_E_FILE_READ ||
                            result == KXRULE_E_FILE_WRITE)
                    << result;
                if (error == ERROR_NOT_ENOUGH_MEMORY && !isForGood)
                {
                    EXPECT_FALSE(Exists("RuleBackup")) << "lack of memory is taken for damage";
                }
                ExpectNothingLost(Snapshot(), m_Before);
                ASSERT_EQ(kxRuleAddMacro(Build::Macro("m", {Build::Item("x")}).get()), 0);
                static_cast<void>(AddSet(0)); // a caller that writes all the same
                EXPECT_EQ(kxRuleWrite(), 0);
                Files mustBeThere = m_Before; // but for what was read and is now written with the change
                mustBeThere.erase("KxRulMas.dat");
                if (kxRuleGetMacroCount() == 2)
                    mustBeThere.erase("KxRulMac.dat");
                ExpectNothingLost(Snapshot(), mustBeThere);
            });
    }
}

// A change is written at the next tick for as long as it takes, and nothing without a change.
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

    // What a refresh had changed when its callback threw is a change all the same.
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

// The damaged file is kept, but there is no room for the rescue set: the read fails, and nothing gets lost on the way.
TEST_F(FaultsTest, ARescueSetThatCannotBeWrittenFailsTheRead)
{
    Close();
    Restore(m_Before);
    const std::string damaged = m_Before.at("KxRl0002.dat").substr(0, 1000);
    WriteFile("KxRl0002.dat", damaged);
    ASSERT_EQ(kxRuleInitialize(Directory().c_str(), nullptr), 0);
    KxCommon::Files::SetFaultHook([](Operation operation) -> DWORD
                                  { return operation == Operation::Write ? ERROR_DISK_FULL : ERROR_SUCCESS; });
    EXPECT_EQ(kxRuleRead(), KXRULE_E_FILE_WRITE);
    EXPECT_EQ(ReadFile("KxRl0002.dat"), damaged);
    EXPECT_EQ(ReadFile("RuleBackup\\KxRl0002.dat.brk"), damaged);
    KxCommon::Files::SetFaultHook(FileFault);
    Reopen();
    EXPECT_EQ(RuleIndexes(2), (std::vector<uint16_t>{30000, 30001, 30002}));
    EXPECT_EQ(Rules(1).size(), 3u);
}

// Nothing goes over a file that holds what is not in memory. While it is held open the write fails; when it cannot be read
// at all it is moved aside, so that it does not keep the others from being written.
TEST_F(FaultsTest, AFileThatCannotBeCopiedIsMovedAside)
{
    static DWORD error;
    for (const bool isForeign : {false, true}) // a damaged file, and that of another set
    {
        SCOPED_TRACE(isForeign);
        Close();
        Restore(m_Before);
        const std::string there = isForeign ? m_Before.at("KxRl0002.dat") : m_Before.at("KxRl0001.dat").substr(0, 1000);
        WriteFile("KxRl0001.dat", there);
        if (isForeign)
            WriteFile("KxRl0002.dat", m_Before.at("KxRl0001.dat"));
        KxCommon::Files::SetFaultHook([](Operation operation)
                                      { return operation == Operation::Copy ? error : ERROR_SUCCESS; });
        error = ERROR_CRC;
        Open();
        EXPECT_EQ(kxRuleDeleteRule(1, 9999), -10016); // marks the set
        error = ERROR_SHARING_VIOLATION;
        EXPECT_EQ(kxRuleWrite(), KXRULE_E_FILE_WRITE);
        EXPECT_EQ(ReadFile("KxRl0001.dat"), there);
        error = ERROR_CRC;
        EXPECT_EQ(kxRuleWrite(), 0);
        EXPECT_EQ(ReadFile("RuleBackup\\KxRl0001.dat.brk"), there);
        KxCommon::Files::SetFaultHook(FileFault);
        Reopen();
        EXPECT_EQ(SetIndexes(), (std::vector<uint16_t>{1, 2}));
        EXPECT_EQ(Rules(1).size(), 3u);
    }
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
            row.name, campaign, g_AllocationFaults, 0,
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
            [&](int32_t result, bool hasFailed, bool)
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
