// CRuleMaster: the one in-memory store. It owns rule sets, active list and macros, tracks what must be written, and
// reads and writes the rule directory.
#pragma once

#include <atomic>
#include <bitset>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "api/include/KxPfwRule.h"
#include "common/srclib/KxComn_CriticalSection.h"
#include "common/srclib/KxComn_LockRanks.h"
#include "persistence/PfwTimer.h"
#include "persistence/RuleDirectory.h"
#include "persistence/RuleSetFiles.h"
#include "repository/IndexMap.h"
#include "repository/MasterLock.h"
#include "repository/RuleSet.h"
#include "rules/Macro.h"
#include "rules/RuleText.h"

struct MasterFields;

/// Locks (docs/threads.md). The exports call every operation but UpdateHashValue, IsLive and WaitForHolder with the
/// outer (global) lock held; the timer's thread comes without it. The master lock guards every change. Operations that
/// only read are shown that the outer lock is held, never wait for the master lock, and take the record lock for the
/// moment of copying a rule, because the hash refresh changes hashes without the outer lock. A changing operation
/// releases the outer lock while it waits for another thread that holds on to the master lock. Operations that run out
/// of memory let std::bad_alloc through and leave the store unchanged (except DeleteRuleSet, which writes, and
/// UpdateHashValue, which marks what it has changed); ReadAll and the writers turn it into a code.
class CRuleMaster
{
public:
    /// Thrown and caught by the master file reader.
    class RuleMasterException
    {
    public:
        explicit RuleMasterException(const char* text) noexcept : m_Text(text) {}
        [[nodiscard]] const char* what() const noexcept { return m_Text; }

    private:
        const char* m_Text;
    };

    explicit CRuleMaster(CLock& outerLock) : m_OuterLock(outerLock) {}
    CRuleMaster(const CRuleMaster&) = delete;
    CRuleMaster& operator=(const CRuleMaster&) = delete;

    // ----- life
    /// Starts with an empty store: directory, write interval, timer. Always 0. Not to be called while IsLive.
    int32_t Init(const std::string& rulePath, const char* masterFileName);
    /// Writes pending changes, releases a lock that is held on, stops the timer. Always 0. Not to be called while
    /// MustWaitForHolder.
    int32_t Finalize();
    [[nodiscard]] bool IsLive() const noexcept { return m_IsLive; }
    /// Whether another thread holds on to the lock while there is something to write, which only that thread may do.
    [[nodiscard]] bool MustWaitForHolder() const noexcept { return m_IsDirty && m_Lock.IsHeldOnByOther(); }
    /// Returns when no other thread holds on to the lock or nothing is left to write.
    void WaitForHolder() noexcept;

    // ----- files (RuleMasterFiles.cpp)
    /// kept: after a failure the calling thread holds on to the master lock.
    [[nodiscard]] int32_t ReadAll();
    [[nodiscard]] int32_t WriteAll();
    /// WriteAll when anything is dirty.
    [[nodiscard]] int32_t FlushRule();

    // ----- rule sets
    void SetActiveRuleSet(std::vector<uint16_t> indexes);
    /// Both copy at most maxCount entries (none if the pointer is null) and return the total number.
    [[nodiscard]] int32_t GetActiveRuleSet(ReadToken token, uint16_t* indexes, int32_t maxCount) const noexcept;
    [[nodiscard]] int32_t GetRuleSetIndex(ReadToken token, uint16_t* indexes, int32_t maxCount) const noexcept;
    /// On success the set's rules have been moved into the store, and its index is the assigned one. kept: if the index
    /// is in use, the calling thread holds on to the master lock.
    [[nodiscard]] int32_t AddRuleSet(uint16_t index, CRuleSet& ruleSet);
    [[nodiscard]] int32_t DeleteRuleSet(uint16_t index);
    /// The number of rules, or KXRULE_E_NO_RULESET. See kxRuleGetRuleSet for what is copied.
    [[nodiscard]] int32_t GetRuleSet(ReadToken token, uint16_t index, PFW_RULESET* ruleSet,
                                     int32_t maxRules) const noexcept;

    // ----- rules
    [[nodiscard]] int32_t GetRuleTopIndex(ReadToken token, uint16_t ruleSetIndex) const noexcept;
    [[nodiscard]] int32_t GetRuleBottomIndex(ReadToken token, uint16_t ruleSetIndex) const noexcept;
    [[nodiscard]] int32_t AddRule(uint16_t ruleSetIndex, uint16_t ruleIndex, const CRule& rule);
    [[nodiscard]] int32_t DeleteRule(uint16_t ruleSetIndex, uint16_t ruleIndex);
    [[nodiscard]] int32_t GetRule(ReadToken token, uint16_t ruleSetIndex, uint16_t ruleIndex,
                                  PFW_RULE* rule) const noexcept;
    /// dwActive, or a code.
    [[nodiscard]] int32_t IsRuleActive(ReadToken token, uint16_t ruleSetIndex, uint16_t ruleIndex) const noexcept;
    [[nodiscard]] int32_t GetRuleString(ReadToken token, uint16_t ruleSetIndex, uint16_t ruleIndex,
                                        RuleText::Line& line) const noexcept;
    [[nodiscard]] int32_t UpdateHashValue(const KXWCHAR* applicationPath, const uint8_t* hash,
                                          KXRULE_HASH_CALLBACK callback, void* context);

    // ----- macros
    void AddMacro(CMacro macro);
    void DeleteMacro();
    [[nodiscard]] int32_t GetMacroCount(ReadToken token) const noexcept;
    /// The bytes needed, at most 2^31 - 1; the buffer is filled if it is large enough.
    [[nodiscard]] int32_t GetMacro(ReadToken token, void* buffer, int32_t bufferSize) const noexcept;

    /// The timer's callback; the context is the master.
    static void CallbackFuncWriteTimeOut(void* context);

private:
    /// What callers see. It changes under the outer lock and the master lock together, so either is enough to read it.
    /// Two things change under the master lock alone: hashes, which the record lock guards, and the names of rule set
    /// files, which no getter reads.
    struct Content
    {
        std::vector<uint16_t> ActiveRuleSets; // as last given, with duplicates and unknown indexes
        IndexMap<CRuleSet> RuleSets;
        std::list<CMacro> Macros;
    };
    enum class ReadState
    {
        NotRead, // after Init or a first start: files that appear in the directory belong to others
        Whole,   // memory holds what the files hold, or they have been copied
        Partial  // something could not be opened or read, or has been moved away
    };

    [[nodiscard]] const Content& Read(ReadToken /*token*/) const noexcept KX_NO_THREAD_SAFETY_ANALYSIS
    {
        return m_Content;
    }
    /// 0, KXRULE_E_FILE_OPEN: nothing is read, written or deleted outside a life.
    [[nodiscard]] int32_t RequireLife() const noexcept { return m_IsLive ? KXRULE_OK : KXRULE_E_FILE_OPEN; }
    /// 0, KXRULE_E_NO_RULESET.
    [[nodiscard]] int32_t RequireRuleSet(ReadToken token, uint16_t index) const noexcept;
    /// Checks the limits: 0, KXRULE_E_TOO_MANY_RULESETS, KXRULE_E_TOO_MANY_RULES.
    [[nodiscard]] int32_t RefuseRuleSet(ReadToken token, const CRuleSet& ruleSet) const noexcept;
    /// The rule, or null and in result the code that says what is missing.
    [[nodiscard]] const CRule* FindRule(ReadToken token, uint16_t ruleSetIndex, uint16_t ruleIndex,
                                        int32_t& result) const noexcept;
    [[nodiscard]] uint16_t AllocateIndex() noexcept KX_REQUIRES(m_Lock);
    void MarkModified(uint16_t ruleSetIndex) noexcept KX_REQUIRES(m_Lock);
    void Empty() noexcept KX_REQUIRES(m_Lock);

    // RuleMasterReading.cpp
    [[nodiscard]] int32_t ReadFiles() KX_REQUIRES(m_Lock);
    [[nodiscard]] int32_t ReadMasterFile(MasterFields& fields, bool& isBackedUp) KX_REQUIRES(m_Lock);
    [[nodiscard]] FileDefect ReadMasterFields(MasterFields& fields) KX_REQUIRES(m_Lock);
    [[nodiscard]] bool IsFirstStart() KX_REQUIRES(m_Lock);
    [[nodiscard]] int32_t ReadMacroFile() KX_REQUIRES(m_Lock);
    [[nodiscard]] int32_t ReadRuleSetFile(const std::vector<std::string>& fileNames) KX_REQUIRES(m_Lock);
    [[nodiscard]] int32_t RescueRuleSet(CRuleSet&& ruleSet, bool isDamaged) KX_REQUIRES(m_Lock);
    void StoreRuleSet(CRuleSet&& ruleSet, bool holdsMore) KX_REQUIRES(m_Lock);

    // RuleMasterFiles.cpp
    [[nodiscard]] int32_t WriteMasterFile() KX_REQUIRES(m_Lock);
    [[nodiscard]] int32_t WriteMacroFile() KX_REQUIRES(m_Lock);
    [[nodiscard]] int32_t WriteRuleSetFile() KX_REQUIRES(m_Lock);
    /// WriteMasterFile without its trace lines, for a master file that a read or the order of writes needs in between.
    [[nodiscard]] int32_t StoreMaster(const std::vector<std::string>& names) KX_REQUIRES(m_Lock);
    [[nodiscard]] std::vector<std::string> ListedNames() const KX_REQUIRES(m_Lock);
    [[nodiscard]] int32_t WriteInTurn(uint16_t index) KX_REQUIRES(m_Lock);
    [[nodiscard]] int32_t WriteOneRuleSet(uint16_t index, std::string target) KX_REQUIRES(m_Lock);
    [[nodiscard]] uint32_t CopyReplaced(const std::string& fileName) KX_REQUIRES(m_Lock);

    CLock& m_OuterLock;
    MasterLock m_Lock;
    // Held to copy a record or to store a hash.
    mutable CCriticalSectionLock m_RecordLock{KxCommon::Synchronize::LockRank::Record};

    uint32_t m_WriteInterval = 0; // milliseconds
    uint16_t m_NextIndex KX_GUARDED_BY(m_Lock) = 1;
    Content m_Content KX_GUARDED_BY(m_Lock);
    CPfwTimer m_WriteTimer;
    std::atomic<bool> m_IsDirty = false;                 // something changed since the last successful timed write
    std::bitset<65536> m_Modified KX_GUARDED_BY(m_Lock); // rule sets whose files must be written

    std::atomic<bool> m_IsLive = false; // between Init and Finalize
    ReadState m_ReadState KX_GUARDED_BY(m_Lock) = ReadState::NotRead;
    RuleDirectory m_Directory KX_GUARDED_BY(m_Lock);
    RuleSetFiles m_Files KX_GUARDED_BY(m_Lock);
    CStreamBuffer m_WriteBuffer KX_GUARDED_BY(m_Lock); // lent to each file in turn: its pages are new only once
    const RuleDirectory::Copier m_CopyReplaced = [this](const std::string& fileName) KX_NO_THREAD_SAFETY_ANALYSIS
    { return CopyReplaced(fileName); };
};
