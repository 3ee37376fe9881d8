// The store in memory. Its file operations are in RuleMasterFiles.cpp; docs/threads.md explains the locks.
#include "repository/RuleMaster.h"

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

#include "common/srclib/KxComn_Settings.h"
#include "common/srclib/KxComn_Trace.h"

using KxCommon::kTraceCall;
using RecordGuard = KxCommon::Synchronize::ScopedLock<CCriticalSectionLock>;

namespace
{

constexpr uint32_t kTimerProcess = 0;
constexpr uint32_t kTimerIndex = 0xFFFFFFAE;
constexpr uint32_t kLastPatience = 2000; // milliseconds; nobody tries again after Finalize

int32_t CopyIndexes(const std::vector<uint16_t>& from, uint16_t* to, int32_t maxCount) noexcept
{
    if (to != nullptr && maxCount > 0)
        std::copy_n(from.begin(), std::min<size_t>(from.size(), static_cast<size_t>(maxCount)), to);
    return static_cast<int32_t>(from.size());
}

} // namespace

int32_t CRuleMaster::Init(const std::string& rulePath, const char* masterFileName)
{
    const bool isNamed = masterFileName != nullptr && *masterFileName != 0;
    {
        const MasterGuard guard(m_Lock);
        m_NextIndex = 1;
        Empty();
        m_ReadState = ReadState::NotRead;
        m_Files.Clear();
        m_Directory.Locate(rulePath, isNamed ? masterFileName : FileFormat::kMasterFileName);
        m_Directory.MakeIfMissing();
        m_WriteInterval = KxCommon::Settings::WriteInterval();
        m_IsDirty = false;
        m_Modified.reset();
        m_IsLive = true;
    }
    // Without a timer the store still works: changes are then written by kxRuleWrite, kxRuleFlush and Finalize.
    m_WriteTimer.Register(kTimerProcess, kTimerIndex, CallbackFuncWriteTimeOut, m_WriteInterval, this, true);
    const MasterGuard guard(m_Lock);
    KX_TRACE(kTraceCall, "RulePath=%s, RuleMaster=%s", m_Directory.Given().c_str(),
             m_Directory.MasterFileName().c_str());
    return KXRULE_OK;
}

int32_t CRuleMaster::Finalize()
{
    // If another thread holds on to the lock, there is nothing to write. The timer's thread, which is waited for below,
    // may be waiting for the lock.
    m_Lock.ReleaseHeldOn();
    if (!m_IsLive)
        return KXRULE_OK;
    {
        // A hash refresh comes without the outer lock: its changes are written too, and none begins afterwards.
        const MasterGuard guard(m_Lock);
        m_Directory.SetPatience(kLastPatience);
        if (m_IsDirty)
            static_cast<void>(WriteAll()); // there is nobody left to tell; a kxRuleFlush before would
        m_WriteBuffer = {};
        m_IsLive = false;
    }
    m_WriteTimer.Unregister(kTimerProcess, kTimerIndex);
    return KXRULE_OK;
}

void CRuleMaster::WaitForHolder() noexcept
{
    while (MustWaitForHolder())
        m_Lock.WaitOnceWhileHeldOnByOther();
}

int32_t CRuleMaster::RequireRuleSet(ReadToken token, uint16_t index) const noexcept
{
    return Read(token).RuleSets.Contains(index) ? KXRULE_OK : KXRULE_E_NO_RULESET;
}

void CRuleMaster::Empty() noexcept
{
    m_Content.RuleSets.Clear();
    m_Content.Macros.clear();
    m_Content.ActiveRuleSets.clear();
}

std::vector<std::string> CRuleMaster::ListedNames() const
{
    std::vector<std::string> names;
    for (size_t i = 0; i < m_Content.RuleSets.Size(); ++i)
        names.push_back(m_Content.RuleSets.ValueAt(i).FileName());
    return names;
}

void CRuleMaster::MarkModified(uint16_t ruleSetIndex) noexcept
{
    m_IsDirty = true;
    m_Modified.set(ruleSetIndex);
}

void CRuleMaster::SetActiveRuleSet(std::vector<uint16_t> indexes)
{
    const ChangeGuard change(m_Lock, m_OuterLock);
    m_IsDirty = true;
    m_Content.ActiveRuleSets = std::move(indexes);
}

int32_t CRuleMaster::GetActiveRuleSet(ReadToken token, uint16_t* indexes, int32_t maxCount) const noexcept
{
    return CopyIndexes(Read(token).ActiveRuleSets, indexes, maxCount);
}

int32_t CRuleMaster::GetRuleSetIndex(ReadToken token, uint16_t* indexes, int32_t maxCount) const noexcept
{
    return CopyIndexes(Read(token).RuleSets.Keys(), indexes, maxCount);
}

int32_t CRuleMaster::RefuseRuleSet(ReadToken token, const CRuleSet& ruleSet) const noexcept
{
    if (Read(token).RuleSets.Size() >= KXRULE_MAX_RULESETS)
        return KXRULE_E_TOO_MANY_RULESETS;
    return ruleSet.RuleCount() > KXRULE_MAX_RULES ? KXRULE_E_TOO_MANY_RULES : KXRULE_OK;
}

int32_t CRuleMaster::AddRuleSet(uint16_t index, CRuleSet& ruleSet)
{
    KX_TRACE(kTraceCall, "CRuleMaster::AddRuleSet Enter");
    {
        ChangeGuard change(m_Lock, m_OuterLock, [&](ReadToken token) { return RefuseRuleSet(token, ruleSet); });
        if (!change)
        {
            KX_TRACE(kTraceCall, "CRuleMaster::AddRuleSet Return (%d)", change.Refusal());
            return change.Refusal();
        }
        if (index != 0 && m_Content.RuleSets.Contains(index))
        {
            if (m_IsLive)        // otherwise nobody would finalise, which releases the lock
                change.HoldOn(); // kept: docs/threads.md, "Locks that outlive a call"
            return KXRULE_E_NO_RULESET;
        }
        const uint16_t assigned = index != 0 ? index : AllocateIndex();
        m_Content.RuleSets.Emplace(assigned, std::move(ruleSet)).SetIndex(assigned);
        MarkModified(assigned);
        ruleSet.SetIndex(assigned); // NOLINT(bugprone-use-after-move): the caller asks the moved-from set for its index
        m_NextIndex = assigned;
    }
    KX_TRACE(kTraceCall, "CRuleMaster::AddRuleSet Return (%d)", KXRULE_OK);
    return KXRULE_OK;
}

// kept: the search starts at the index given out last, not after it, and a start above the limit is given out
// unchanged.
uint16_t CRuleMaster::AllocateIndex() noexcept
{
    uint32_t candidate = std::max<uint32_t>(m_NextIndex, 1); // a master file may say 0, which means "none" elsewhere
    while (m_Content.RuleSets.Contains(static_cast<uint16_t>(candidate)))
        candidate = candidate + 1 > KXRULE_MAX_RULESET_INDEX ? 1 : candidate + 1;
    return static_cast<uint16_t>(candidate);
}

int32_t CRuleMaster::DeleteRuleSet(uint16_t index)
{
    const ChangeGuard change(m_Lock, m_OuterLock,
                             [&](ReadToken token)
                             {
                                 const int32_t refusal = RequireLife();
                                 return refusal != KXRULE_OK || index == 0 ? refusal : RequireRuleSet(token, index);
                             });
    if (!change)
        return change.Refusal();

    std::vector<std::string> files;
    for (size_t i = 0; i < m_Content.RuleSets.Size(); ++i)
    {
        const std::string& name = m_Content.RuleSets.ValueAt(i).FileName();
        const bool isMeant = index == 0 || m_Content.RuleSets.KeyAt(i) == index;
        if (isMeant && !name.empty()) // a set that was never written has no file
            files.push_back(name);
    }
    for (const std::string& file : files)
        m_Files.Disown(file);
    m_IsDirty = true;
    if (index == 0)
    {
        m_Content.RuleSets.Clear();
        m_Modified.reset();
        m_NextIndex = 1;
    }
    else
    {
        m_Modified.reset(index);
        m_Content.RuleSets.Erase(index);
    }

    // The list on disk stops naming the files before they are removed: a crash in between leaves a file too many, not
    // one too few.
    const int32_t result = WriteMasterFile();
    if (result != KXRULE_OK)
        return result;
    for (const std::string& file : files)
    {
        // A file that holds more than the deleted set is removed only if there is a copy of it.
        const bool holdsMore = m_Files.HoldsMore(file);
        if (m_Files.Release(file) &&
            (!holdsMore || m_Directory.CopyOrRename(file, RuleDirectory::Reason::Replaced) == ERROR_SUCCESS))
            m_Directory.Remove(file);
    }
    return KXRULE_OK;
}

int32_t CRuleMaster::GetRuleSet(ReadToken token, uint16_t index, PFW_RULESET* ruleSet, int32_t maxRules) const noexcept
{
    const CRuleSet* const found = Read(token).RuleSets.Find(index);
    if (found == nullptr)
        return KXRULE_E_NO_RULESET;
    if (ruleSet != nullptr && maxRules >= 0)
    {
        const RecordGuard guard(m_RecordLock);
        found->CopyRecord(ruleSet, maxRules);
    }
    return found->RuleCount();
}

int32_t CRuleMaster::GetRuleTopIndex(ReadToken token, uint16_t ruleSetIndex) const noexcept
{
    const CRuleSet* const found = Read(token).RuleSets.Find(ruleSetIndex);
    if (found == nullptr)
        return KXRULE_E_NO_RULESET;
    return found->RuleIndexes().empty() ? 0 : found->RuleIndexes().front();
}

int32_t CRuleMaster::GetRuleBottomIndex(ReadToken token, uint16_t ruleSetIndex) const noexcept
{
    const CRuleSet* const found = Read(token).RuleSets.Find(ruleSetIndex);
    if (found == nullptr)
        return KXRULE_E_NO_RULESET;
    return found->RuleIndexes().empty() ? 0 : found->RuleIndexes().back();
}

// kept: a refused change marks the set all the same.
int32_t CRuleMaster::AddRule(uint16_t ruleSetIndex, uint16_t ruleIndex, const CRule& rule)
{
    const ChangeGuard change(m_Lock, m_OuterLock, [&](ReadToken token) { return RequireRuleSet(token, ruleSetIndex); });
    if (!change)
        return change.Refusal();
    MarkModified(ruleSetIndex);
    return m_Content.RuleSets.Find(ruleSetIndex)->AddRule(ruleIndex, rule);
}

int32_t CRuleMaster::DeleteRule(uint16_t ruleSetIndex, uint16_t ruleIndex)
{
    const ChangeGuard change(m_Lock, m_OuterLock, [&](ReadToken token) { return RequireRuleSet(token, ruleSetIndex); });
    if (!change)
        return change.Refusal();
    MarkModified(ruleSetIndex);
    return m_Content.RuleSets.Find(ruleSetIndex)->DeleteRule(ruleIndex);
}

const CRule* CRuleMaster::FindRule(ReadToken token, uint16_t ruleSetIndex, uint16_t ruleIndex,
                                   int32_t& result) const noexcept
{
    const CRuleSet* const ruleSet = Read(token).RuleSets.Find(ruleSetIndex);
    const CRule* const rule = ruleSet == nullptr ? nullptr : ruleSet->FindRule(ruleIndex);
    result = ruleSet == nullptr ? KXRULE_E_NO_RULESET : rule == nullptr ? KXRULE_E_NO_RULE : KXRULE_OK;
    return rule;
}

int32_t CRuleMaster::GetRule(ReadToken token, uint16_t ruleSetIndex, uint16_t ruleIndex, PFW_RULE* rule) const noexcept
{
    int32_t result = KXRULE_OK;
    const CRule* const found = FindRule(token, ruleSetIndex, ruleIndex, result);
    if (found == nullptr)
        return result;
    const RecordGuard guard(m_RecordLock);
    return found->GetRule(rule);
}

int32_t CRuleMaster::IsRuleActive(ReadToken token, uint16_t ruleSetIndex, uint16_t ruleIndex) const noexcept
{
    int32_t result = KXRULE_OK;
    const CRule* const found = FindRule(token, ruleSetIndex, ruleIndex, result);
    return found == nullptr ? result : static_cast<int32_t>(found->Record().dwActive);
}

int32_t CRuleMaster::GetRuleString(ReadToken token, uint16_t ruleSetIndex, uint16_t ruleIndex,
                                   RuleText::Line& line) const noexcept
{
    int32_t result = KXRULE_OK;
    const CRule* const found = FindRule(token, ruleSetIndex, ruleIndex, result);
    if (found == nullptr)
        return result;
    const RecordGuard guard(m_RecordLock);
    return found->GetRuleString(line);
}

int32_t CRuleMaster::UpdateHashValue(const KXWCHAR* applicationPath, const uint8_t* hash, KXRULE_HASH_CALLBACK callback,
                                     void* context)
{
    const MasterGuard guard(m_Lock);
    if (!m_IsLive)
        return KXRULE_OK;

    std::vector<uint16_t> changed;
    int32_t result = KXRULE_OK;
    // By key, not by position: a callback that breaks its contract may delete other sets (but not the one it is called
    // for).
    for (uint32_t key = 0; result == KXRULE_OK && key <= std::numeric_limits<uint16_t>::max(); ++key)
    {
        const size_t position = m_Content.RuleSets.LowerBound(static_cast<uint16_t>(key));
        if (position >= m_Content.RuleSets.Size())
            break;
        key = m_Content.RuleSets.KeyAt(position);
        try
        {
            result = m_Content.RuleSets.ValueAt(position).UpdateHash(applicationPath, hash, callback, context, changed,
                                                                     m_RecordLock);
        }
        catch (...) // thrown by the callback, or out of memory: what has changed is written all the same
        {
            for (const uint16_t index : changed)
                MarkModified(index);
            throw;
        }
    }
    for (const uint16_t index : changed)
        MarkModified(index);
    return result;
}

void CRuleMaster::AddMacro(CMacro macro)
{
    const ChangeGuard change(m_Lock, m_OuterLock);
    m_IsDirty = true;
    m_Content.Macros.push_back(std::move(macro));
}

void CRuleMaster::DeleteMacro()
{
    const ChangeGuard change(m_Lock, m_OuterLock);
    m_IsDirty = true;
    m_Content.Macros.clear();
}

int32_t CRuleMaster::GetMacroCount(ReadToken token) const noexcept
{
    return static_cast<int32_t>(Read(token).Macros.size());
}

int32_t CRuleMaster::GetMacro(ReadToken token, void* buffer, int32_t bufferSize) const noexcept
{
    uint64_t needed = 0;
    for (const CMacro& macro : Read(token).Macros)
        needed += macro.RecordBytes();
    needed = std::min<uint64_t>(needed, std::numeric_limits<int32_t>::max());
    const int32_t result = static_cast<int32_t>(needed);
    // A sum that had to be capped fits no buffer, not even one of that size.
    if (buffer == nullptr || result > bufferSize || result == std::numeric_limits<int32_t>::max())
        return result;
    unsigned char* out = static_cast<unsigned char*>(buffer);
    for (const CMacro& macro : Read(token).Macros)
    {
        macro.CopyRecord(out);
        out += macro.RecordBytes();
    }
    return result;
}

void CRuleMaster::CallbackFuncWriteTimeOut(void* context)
{
    KX_TRACE(kTraceCall, "################ CRuleMaster::CallbackFuncWriteTimeOut Enter ####################");
    CRuleMaster* const master = static_cast<CRuleMaster*>(context);
    if (master != nullptr && master->m_IsDirty)
    {
        const MasterGuard guard(master->m_Lock);
        if (master->WriteAll() == KXRULE_OK)
        {
            master->m_IsDirty = false;
            master->m_Modified.reset();
        }
    }
    KX_TRACE(kTraceCall, "++++++++++++++++ CRuleMaster::CallbackFuncWriteTimeOut Leave +++++++++++++++++++++");
}
