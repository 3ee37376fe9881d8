// The 25 exports: check the arguments, take the global lock, call the master once, trace. KxPfwRule.h documents them,
// docs/threads.md the locks.
#include "api/include/KxPfwRule.h"

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "api/Library.h"
#include "common/srclib/KxComn_CriticalSection.h"
#include "common/srclib/KxComn_Exception.h"
#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_Identity.h"
#include "common/srclib/KxComn_LockRanks.h"
#include "common/srclib/KxComn_Names.h"
#include "common/srclib/KxComn_SecurityAttributes.h"
#include "common/srclib/KxComn_String.h"
#include "common/srclib/KxComn_Trace.h"
#include "common/srclib/Utility.h"
#include "common/trace/KxComn_DebugLog.h"
#include "repository/RuleMaster.h"
#include "rules/Normalise.h"
#include "rules/RuleText.h"

using KxCommon::kTraceCall;
using KxCommon::kTraceError;
using KxCommon::Synchronize::LockRank;
using GlobalGuard = KxCommon::Synchronize::ScopedLock<CCriticalSectionLock>;

HMODULE g_ModuleHandle = nullptr;

namespace
{

constexpr uint32_t kTraceUnit = 1; // this library, among the product's modules that trace

CCriticalSectionLock g_LifecycleLock(LockRank::Lifecycle); // one start or stop at a time
CCriticalSectionLock g_GlobalLock(LockRank::Global);       // one export at a time
KxCommon::UniqueKernelObject g_Mutex;                      // held while the library is initialised

// While the process ends the store is not destroyed: killed threads may have left it half changed.
union Store
{
    Store() : Master(g_GlobalLock) {}
    ~Store()
    {
        if (!KxCommon::IsProcessEnding())
            Master.~CRuleMaster();
    }
    CRuleMaster Master;
};
Store g_Store;

// The frame of every export: lets no exception out.
template <class Body>
int32_t Contain(int32_t resultOfFailure, const Body& body) noexcept
{
    try
    {
        return body();
    }
    catch (KxCommon::Exception::Base* exception)
    {
        const std::unique_ptr<KxCommon::Exception::Base> owner(exception);
    }
    catch (...) // std::bad_alloc, or an exception of a caller's callback
    {
    }
    return resultOfFailure;
}

// For operations that open files, with the rights of the process even if the calling thread impersonates a client: the
// timer writes them as well.
template <class Operation>
int32_t AsProcess(const Operation& operation)
{
    const KxCommon::OwnIdentity identity;
    return identity ? operation() : KXRULE_E_FILE_OPEN;
}

// An export that traces: its Enter line when constructed, its Return line after its operation, still under the global
// lock.
class TracedExport
{
public:
    explicit TracedExport(const char* name) noexcept : m_Name(name) { KX_TRACE(kTraceCall, "%s Enter", m_Name); }

    template <class Operation>
    int32_t UnderGlobalLock(int32_t resultOfFailure, const Operation& operation) const noexcept
    {
        const GlobalGuard guard(g_GlobalLock);
        return WithoutLock(resultOfFailure, operation);
    }

    // For a getter, whose operation takes the token.
    template <class Operation>
    int32_t Reading(int32_t resultOfFailure, const Operation& operation) const noexcept
    {
        const GlobalGuard guard(g_GlobalLock);
        return WithoutLock(resultOfFailure, [&] { return operation(ReadToken(guard)); });
    }

    template <class Operation>
    int32_t WithoutLock(int32_t resultOfFailure, const Operation& operation) const noexcept
    {
        const int32_t result = Contain(resultOfFailure, operation);
        KX_TRACE(kTraceCall, "%s Return (%d)", m_Name, result);
        return result;
    }

private:
    const char* m_Name;
};

int32_t CopyText(std::string_view line, char* text, int32_t textSize) noexcept
{
    KxCommon::String::CopyBounded(text, textSize, line);
    return static_cast<int32_t>(std::min<size_t>(line.size(), INT32_MAX));
}

// Creates the mutex that marks an initialised library, accessible to everybody, or with the system's defaults if the
// attributes cannot be built. Nothing waits for it, so another process that holds a mutex of this name blocks nothing.
KxCommon::UniqueKernelObject CreateLibraryMutex(DWORD* error)
{
    KxCommon::AccessControl::SecurityAttributes attributes;
    attributes.AllowEveryone();
    const KxCommon::WideString name = KxCommon::GlobalName(KxCommon::Names::kMutexName);
    KxCommon::UniqueKernelObject mutex(::CreateMutexW(attributes.Record(), TRUE, name.c_str()));
    *error = ::GetLastError();
    return mutex;
}

int32_t Initialize(const char* rulePath, const char* masterFileName)
{
    const KxCommon::OwnIdentity identity;
    if (!identity)
        return KXRULE_E_MUTEX; // the client could not create it
    const GlobalGuard lifecycle(g_LifecycleLock);
    const std::string ownDirectory = KxCommon::GetApplicationPath(g_ModuleHandle);
    const KxCommon::Storage::Key settings{KxCommon::Storage::kIniFile, ownDirectory.c_str(),
                                          KxCommon::Names::kSettingsFile};
    KxCommon::g_DebugLog.Initialize(KxCommon::Names::kTraceName, settings, kTraceUnit);
    KX_TRACE(kTraceCall, "kxRuleInitialize Enter");
    std::string directory;
    if (rulePath == nullptr || *rulePath == 0)
    {
        KX_TRACE(kTraceCall, "rule path not specified. will use dll's location as rule path");
        directory = ownDirectory;
    }
    else
    {
        directory = rulePath;
    }
    // A master that is still live without the mutex is being finalised by a thread that waits for a lock that is held
    // on.
    if (g_Mutex || g_RuleMaster.IsLive())
    {
        KX_TRACE(kTraceError, "Already Initialized");
        return KXRULE_E_ALREADY_INITIALIZED;
    }
    DWORD error = ERROR_SUCCESS;
    KxCommon::UniqueKernelObject mutex = CreateLibraryMutex(&error);
    if (!mutex)
    {
        KX_TRACE(kTraceError, "Failed to Get Mutex (%u)", static_cast<unsigned>(error));
        return KXRULE_E_MUTEX;
    }
    const GlobalGuard guard(g_GlobalLock);
    const int32_t result = g_RuleMaster.Init(directory, masterFileName);
    g_Mutex = std::move(mutex);
    KX_TRACE(kTraceCall, "kxRuleInitialize Return (%d)", result);
    return result;
}

int32_t Finalize()
{
    const KxCommon::OwnIdentity identity; // without it the library stops all the same
    KX_TRACE(kTraceCall, "kxRuleFinalize Enter");
    for (;;)
    {
        g_RuleMaster.WaitForHolder(); // without a lock: the holder needs both to finalise
        const GlobalGuard lifecycle(g_LifecycleLock);
        if (g_Mutex)
        {
            ::ReleaseMutex(g_Mutex.get()); // fails on a thread other than the initialising one, which is harmless
            g_Mutex.reset();
        }
        const GlobalGuard guard(g_GlobalLock);
        if (g_RuleMaster.MustWaitForHolder())
            continue; // a thread began to hold on after the wait
        const int32_t result = Contain(KXRULE_OK, [] { return g_RuleMaster.Finalize(); });
        KX_TRACE(kTraceCall, "g_RuleMaster.Finalize() Return (%d)", result);
        KxCommon::g_DebugLog.Uninitialize();
        return result;
    }
}

} // namespace

CRuleMaster& g_RuleMaster = g_Store.Master;

// ------------------------------------------------------------------------------------------------------ lifecycle --

int32_t kxRuleInitialize(const char* rulePath, const char* masterFileName)
{
    return Contain(KXRULE_E_MUTEX, [&] { return Initialize(rulePath, masterFileName); });
}

int32_t kxRuleFinalize(void)
{
    return Contain(KXRULE_OK, [] { return Finalize(); });
}

int32_t kxRuleRead(void)
{
    const TracedExport call("kxRuleRead");
    return call.UnderGlobalLock(KXRULE_E_FILE_READ, [] { return AsProcess([] { return g_RuleMaster.ReadAll(); }); });
}

int32_t kxRuleWrite(void)
{
    const TracedExport call("kxRuleWrite");
    return call.UnderGlobalLock(KXRULE_E_FILE_WRITE, [] { return AsProcess([] { return g_RuleMaster.WriteAll(); }); });
}

int32_t kxRuleFlush(void)
{
    const GlobalGuard guard(g_GlobalLock);
    return Contain(KXRULE_E_FILE_WRITE, [] { return AsProcess([] { return g_RuleMaster.FlushRule(); }); });
}

// ------------------------------------------------------------------------------------------------------ rule sets --

int32_t kxRuleSetActiveRuleSet(const uint16_t* indexes, int32_t count)
{
    const TracedExport call("kxRuleSetActiveRuleSet");
    if (indexes == nullptr && count != 0)
    {
        KX_TRACE(kTraceCall, "Pointer to array of rule set is NULL but nCount is not ZERO.");
        return KXRULE_E_NULL_POINTER;
    }
    return Contain(KXRULE_E_NULL_POINTER,
                   [&]() -> int32_t
                   {
                       std::vector<uint16_t> list;
                       if (count > 0)
                           list.assign(indexes, indexes + count);
                       for (const uint16_t index : list)
                       {
                           if (index == 0 || index > KXRULE_MAX_RULESET_INDEX)
                           {
                               KX_TRACE(kTraceError, "Invalid RuleSet index (%d)", static_cast<int>(index));
                               return KXRULE_E_NO_RULESET;
                           }
                       }
                       return call.UnderGlobalLock(KXRULE_E_NULL_POINTER,
                                                   [&]
                                                   {
                                                       g_RuleMaster.SetActiveRuleSet(std::move(list));
                                                       return KXRULE_OK;
                                                   });
                   });
}

int32_t kxRuleGetActiveRuleSet(uint16_t* indexes, int32_t maxCount)
{
    const TracedExport call("kxRuleGetActiveRuleSet");
    return call.Reading(0, [&](ReadToken token) { return g_RuleMaster.GetActiveRuleSet(token, indexes, maxCount); });
}

int32_t kxRuleAddRuleSet(uint16_t index, PFW_RULESET* ruleSet)
{
    const TracedExport call("kxRuleAddRuleSet");
    if (ruleSet == nullptr)
    {
        KX_TRACE(kTraceCall, "Pointer to structure of rule set is NULL.");
        return KXRULE_E_NULL_POINTER;
    }
    const int32_t ruleCount = ruleSet->nRuleCount;
    for (int32_t i = 0; i < ruleCount; ++i)
    {
        // kept: only kind 1 is checked here, where kxRuleAddRule checks kind 6 as well.
        const PFW_RULE& rule = KXRULE_RULES(ruleSet)[i];
        if (rule.dwKind == KXRULE_KIND_ACCESS && Normalise::HasBlankPortList(rule))
            return KXRULE_E_PORT_LIST;
    }
    return call.UnderGlobalLock(KXRULE_E_NULL_POINTER,
                                [&]
                                {
                                    CRuleSet copy(*ruleSet, ruleCount);
                                    const int32_t result = g_RuleMaster.AddRuleSet(index, copy);
                                    ruleSet->wRuleSetIndex = copy.Index(); // after a failure: the record's own
                                    KX_TRACE(kTraceCall, "\tIndex:%d", static_cast<int>(copy.Index()));
                                    return result;
                                });
}

int32_t kxRuleDeleteRuleSet(uint16_t index)
{
    const TracedExport call("kxRuleDeleteRuleSet");
    return call.UnderGlobalLock(KXRULE_E_FILE_WRITE,
                                [&] { return AsProcess([&] { return g_RuleMaster.DeleteRuleSet(index); }); });
}

int32_t kxRuleGetRuleSetIndex(uint16_t* indexes, int32_t maxCount)
{
    const TracedExport call("kxRuleGetRuleSetIndex");
    return call.Reading(0, [&](ReadToken token) { return g_RuleMaster.GetRuleSetIndex(token, indexes, maxCount); });
}

int32_t kxRuleGetRuleSet(uint16_t index, PFW_RULESET* ruleSet, int32_t maxRules)
{
    const TracedExport call("kxRuleGetRuleSet");
    return call.Reading(KXRULE_E_NO_RULESET,
                        [&](ReadToken token) { return g_RuleMaster.GetRuleSet(token, index, ruleSet, maxRules); });
}

// ---------------------------------------------------------------------------------------------------------- rules --

int32_t kxRuleGetRuleTopIndex(uint16_t ruleSetIndex)
{
    const TracedExport call("kxRuleGetRuleTopIndex");
    return call.Reading(KXRULE_E_NO_RULESET,
                        [&](ReadToken token) { return g_RuleMaster.GetRuleTopIndex(token, ruleSetIndex); });
}

int32_t kxRuleGetRuleBottomIndex(uint16_t ruleSetIndex)
{
    const TracedExport call("kxRuleGetRuleBottomIndex");
    return call.Reading(KXRULE_E_NO_RULESET,
                        [&](ReadToken token) { return g_RuleMaster.GetRuleBottomIndex(token, ruleSetIndex); });
}

int32_t kxRuleAddRule(uint16_t ruleSetIndex, uint16_t ruleIndex, const PFW_RULE* rule)
{
    const TracedExport call("kxRuleAddRule");
    if (rule == nullptr)
    {
        KX_TRACE(kTraceCall, "Pointer of Rule structure is NULL.");
        return KXRULE_E_NULL_POINTER;
    }
    if (Normalise::HasBlankPortList(*rule))
        return KXRULE_E_PORT_LIST;
    return call.UnderGlobalLock(KXRULE_E_NULL_POINTER,
                                [&]
                                {
                                    const CRule copy(*rule);
                                    return g_RuleMaster.AddRule(ruleSetIndex, ruleIndex, copy);
                                });
}

int32_t kxRuleDeleteRule(uint16_t ruleSetIndex, uint16_t ruleIndex)
{
    const TracedExport call("kxRuleDeleteRule");
    return call.UnderGlobalLock(KXRULE_E_NULL_POINTER,
                                [&] { return g_RuleMaster.DeleteRule(ruleSetIndex, ruleIndex); });
}

int32_t kxRuleGetRule(uint16_t ruleSetIndex, uint16_t ruleIndex, PFW_RULE* rule)
{
    const GlobalGuard guard(g_GlobalLock);
    return Contain(KXRULE_E_NO_RULE,
                   [&] { return g_RuleMaster.GetRule(ReadToken(guard), ruleSetIndex, ruleIndex, rule); });
}

int32_t kxRuleIsRuleActive(uint16_t ruleSetIndex, uint16_t ruleIndex)
{
    const TracedExport call("kxRuleIsRuleActive");
    return call.Reading(KXRULE_E_NO_RULE,
                        [&](ReadToken token) { return g_RuleMaster.IsRuleActive(token, ruleSetIndex, ruleIndex); });
}

// --------------------------------------------------------------------------------------------------------- macros --

int32_t kxRuleAddMacro(const PFW_MACRO* macro)
{
    const TracedExport call("kxRuleAddMacro");
    if (macro == nullptr)
    {
        KX_TRACE(kTraceCall, "Pointer of Macro structure is NULL.");
        return KXRULE_E_NULL_POINTER;
    }
    return call.UnderGlobalLock(KXRULE_E_NULL_POINTER,
                                [&]
                                {
                                    g_RuleMaster.AddMacro(CMacro(*macro));
                                    return KXRULE_OK;
                                });
}

int32_t kxRuleDeleteMacro(void)
{
    const TracedExport call("kxRuleDeleteMacro");
    return call.UnderGlobalLock(KXRULE_OK,
                                []
                                {
                                    g_RuleMaster.DeleteMacro();
                                    return KXRULE_OK;
                                });
}

int32_t kxRuleGetMacroCount(void)
{
    const TracedExport call("kxRuleGetMacroCount");
    return call.Reading(0, [](ReadToken token) { return g_RuleMaster.GetMacroCount(token); });
}

int32_t kxRuleGetMacro(void* buffer, int32_t bufferSize)
{
    const TracedExport call("kxRuleGetMacro");
    return call.Reading(0, [&](ReadToken token) { return g_RuleMaster.GetMacro(token, buffer, bufferSize); });
}

// ---------------------------------------------------------------------------------------------------------- texts --

int32_t kxRuleGetRuleString(uint16_t ruleSetIndex, uint16_t ruleIndex, char* text, int32_t textSize)
{
    const TracedExport call("kxRuleGetRuleString");
    return call.Reading(KXRULE_E_RULE_TEXT,
                        [&](ReadToken token)
                        {
                            RuleText::Line line;
                            const int32_t result = g_RuleMaster.GetRuleString(token, ruleSetIndex, ruleIndex, line);
                            return result == KXRULE_OK ? CopyText(line.View(), text, textSize) : result;
                        });
}

int32_t kxRuleGetRuleString2(const PFW_RULE* rule, char* text, int32_t textSize)
{
    const TracedExport call("kxRuleGetRuleString2");
    return call.WithoutLock(KXRULE_E_RULE_TEXT,
                            [&]
                            {
                                if (rule == nullptr)
                                    return KXRULE_E_NULL_POINTER;
                                RuleText::Line line;
                                const int32_t result = CRule(*rule).GetRuleString(line);
                                return result == KXRULE_OK ? CopyText(line.View(), text, textSize) : result;
                            });
}

int32_t kxRuleGetMacroString(const PFW_MACRO* macro, char* text, int32_t textSize)
{
    return Contain(KXRULE_E_MACRO_TEXT,
                   [&]
                   {
                       if (macro == nullptr)
                           return KXRULE_E_NULL_POINTER;
                       std::string line;
                       const int32_t result = CMacro(*macro).GetMacroString(line);
                       return result == KXRULE_OK ? CopyText(line, text, textSize) : result;
                   });
}

// ---------------------------------------------------------------------------------------------- application hashes --

int32_t kxRuleUpdateHashValue(const KXWCHAR* applicationPath, const uint8_t* hash, KXRULE_HASH_CALLBACK callback,
                              void* context)
{
    return Contain(KXRULE_E_HASH_LIBRARY,
                   [&] { return g_RuleMaster.UpdateHashValue(applicationPath, hash, callback, context); });
}
