// The four exports: read the text, compare it with the store, change the store as a whole or not at all. KxPolicy.h
// documents them.
#define KXPOLICY_API // the exports are compiled here, not imported
#include "api/include/KxPolicy.h"

#include <algorithm>
#include <exception>
#include <new>

#include "common/srclib/KxComn_Handle.h"
#include "policy/LibraryStore.h"
#include "policy/Lint.h"
#include "policy/ResultCodes.h"
#include "policy/RulesText.h"

namespace
{

using namespace KxPolicy;

constexpr wchar_t kRuleLibrary[] = L"KxPfwRul.dll";
constexpr uint32_t kKnownFlags = KXPOLICY_REPLACE | KXPOLICY_ALLOW_EMPTY;

/// Why a call ends, thrown by value.
struct Refusal
{
    int32_t Code;
    std::string Text;
};

/// Changes that could not be taken back: thrown where there may be no memory for a message.
struct InPart
{
};

/// The caller's callback, called with existing texts only: reporting needs no memory.
class Listener
{
public:
    Listener(KXPOLICY_REPORT report, void* context) noexcept : m_Report(report), m_Context(context) {}

    [[nodiscard]] bool IsListening() const noexcept { return m_Report != nullptr; }
    void Tell(int32_t severity, const Diagnostic& found) const
    {
        Tell(severity, found.Line, found.Column, found.Path.c_str(), found.Text.c_str());
    }
    void Tell(const LintFinding& found) const
    {
        Tell(KXPOLICY_WARNING, 0, 0, found.Where().c_str(), found.Text.c_str());
    }
    void TellOfStore(const char* text) const { Tell(KXPOLICY_ERROR, 0, 0, "", text); }

private:
    void Tell(int32_t severity, size_t line, size_t column, const char* where, const char* text) const
    {
        if (IsListening())
            m_Report(severity, static_cast<uint32_t>(line), static_cast<uint32_t>(column), where, text, m_Context);
    }

    KXPOLICY_REPORT m_Report;
    void* m_Context;
};

/// The frame of every export: lets no exception out.
template <class Body>
int32_t Contain(const Listener& listener, const Body& body) noexcept
{
    try
    {
        return body();
    }
    catch (const Refusal& refusal)
    {
        listener.TellOfStore(refusal.Text.c_str());
        return refusal.Code;
    }
    catch (const InPart&)
    {
        listener.TellOfStore("the policy was applied in part, and the changes could not be taken back");
        return KXPOLICY_E_PARTLY;
    }
    catch (...)
    {
        return KXPOLICY_E_MEMORY; // nothing else can be thrown here
    }
}

struct ModulePolicy
{
    using pointer = HMODULE;
    static pointer invalid() noexcept { return nullptr; }
    static bool close(pointer module) noexcept { return ::FreeLibrary(module) != FALSE; }
};

/// The functions that the caller provides, or those of the library that the process has loaded, which stays loaded
/// during the call.
class RuleFunctions
{
public:
    explicit RuleFunctions(const KXRULE_LIBRARY* given)
    {
        if (given != nullptr)
        {
            m_Functions = *given;
            return;
        }
        HMODULE module = nullptr;
        if (::GetModuleHandleExW(0, kRuleLibrary, &module) == FALSE)
            throw Refusal{KXPOLICY_E_LIBRARY, "KxPfwRul.dll is not loaded in this process"};
        m_Module.reset(module);
#define KX_FIND(name, parameters) Find(#name, m_Functions.name);
        KXRULE_FUNCTIONS(KX_FIND)
#undef KX_FIND
    }
    [[nodiscard]] const KXRULE_LIBRARY& operator*() const noexcept
    {
        return m_Functions;
    }

private:
    template <class Function>
    void Find(const char* name, Function& function)
    {
        function = reinterpret_cast<Function>(reinterpret_cast<void*>(::GetProcAddress(m_Module.get(), name)));
        if (function == nullptr)
            throw Refusal{KXPOLICY_E_LIBRARY, std::string("KxPfwRul.dll has no function ") + name};
    }

    KxCommon::UniqueHandle<ModulePolicy> m_Module;
    KXRULE_LIBRARY m_Functions = {};
};

/// The policy of a text; nothing if it has errors, all of which have been reported.
std::optional<Policy> ReadText(const char* text, size_t size, const Listener& listener)
{
    std::optional<Policy> policy(std::in_place);
    std::vector<Diagnostic> diagnostics;
    if (!ReadAnyPolicy(size == 0 ? std::string_view() : std::string_view(text, size), *policy, diagnostics))
        policy.reset();
    for (const Diagnostic& found : diagnostics)
        listener.Tell(KXPOLICY_ERROR, found);
    return policy;
}

Policy ReadStore(const KXRULE_LIBRARY& library)
{
    return KxPolicy::ReadStore(library, [](size_t, size_t) {});
}

constexpr MergeMode ModeOf(uint32_t flags) noexcept
{
    return (flags & KXPOLICY_REPLACE) != 0 ? MergeMode::Replace : MergeMode::Merge;
}

/// Of what is probably not intended. The policy may name what remains of the store.
void Warn(const Policy& policy, const Policy& store, uint32_t flags, const Listener& listener)
{
    if (!listener.IsListening())
        return;
    const Policy beside = Remaining(store, policy, ModeOf(flags));
    for (const LintFinding& found : Lint(policy, &beside))
        listener.Tell(found);
}

/// 64-bit FNV-1a over everything, including counts.
class Stamp
{
public:
    explicit Stamp(const Policy& policy)
    {
        Add(policy.Active->size());
        Add(policy.Active->data(), policy.Active->size() * sizeof(uint16_t));
        Add(policy.Macros->size());
        for (const MacroRecord& macro : *policy.Macros)
        {
            Add(macro.Name.size());
            Add(macro.Name.data(), macro.Name.size());
            Add(macro.Items.size());
            Add(macro.Items.data(), macro.Items.size() * sizeof(MACRO_ITEM));
        }
        for (const RuleSetRecord& ruleSet : policy.RuleSets)
        {
            Add(ruleSet.Index);
            Add(ruleSet.Name.size());
            Add(ruleSet.Name.data(), ruleSet.Name.size() * sizeof(KXWCHAR));
            Add(ruleSet.Rules.size());
            Add(ruleSet.Rules.data(), ruleSet.Rules.size() * sizeof(PFW_RULE));
        }
    }
    [[nodiscard]] uint64_t Value() const noexcept { return m_Value; }

private:
    void Add(uint64_t number) noexcept { Add(&number, sizeof number); }
    void Add(const void* from, size_t size) noexcept
    {
        const unsigned char* const bytes = static_cast<const unsigned char*>(from);
        for (size_t i = 0; i < size; ++i)
            m_Value = (m_Value ^ bytes[i]) * 0x100000001B3u;
    }

    uint64_t m_Value = 0xCBF29CE484222325u;
};

/// What is to be changed, unless there is a reason to refuse it.
PolicyDiff Differences(const Policy& store, const Policy& policy, uint32_t flags)
{
    PolicyDiff diff = Compare(store, policy, ModeOf(flags));
    std::string excess = ExcessText(store, diff);
    if (!excess.empty())
        throw Refusal{KXPOLICY_E_LIMIT, std::move(excess)};
    if ((flags & KXPOLICY_ALLOW_EMPTY) == 0 && IsEmptying(store, diff))
        throw Refusal{KXPOLICY_E_EMPTY, "the policy would remove every rule set"};
    return diff;
}

int32_t CountOf(const PolicyDiff& diff) noexcept
{
    return static_cast<int32_t>(diff.RuleSets.size()) + (diff.Macros ? 1 : 0) + (diff.Active ? 1 : 0);
}

/// Takes changes back in memory: no further write is attempted.
class UndoneStore final : public LibraryStore
{
public:
    using LibraryStore::LibraryStore;
    int32_t DeleteRuleSet(uint16_t index) override
    {
        const int32_t result = LibraryStore::DeleteRuleSet(index);
        return result == KXRULE_E_FILE_OPEN || result == KXRULE_E_FILE_WRITE ? KXRULE_OK
                                                                             : result; // it is gone nevertheless
    }
    void Write() override {}
};

void Undo(const KXRULE_LIBRARY& library, const Policy& before, const PolicyDiff& diff)
{
    try
    {
        const Policy now = ReadStore(library);
        UndoneStore store(library);
        Apply(store, now, Inverse(before, diff, now), [](size_t, size_t) {});
    }
    catch (...)
    {
        throw InPart();
    }
}

/// The library's code for a failed change, or what it means if the change was possible in the store as it was read.
int32_t CodeOf(const StoreError& error) noexcept
{
    switch (error.Result())
    {
    case KXRULE_E_FILE_OPEN:
    case KXRULE_E_FILE_WRITE:
    case KXRULE_E_NULL_POINTER:
        return error.Result();
    default:
        return KXPOLICY_E_CHANGED;
    }
}

void ApplyOrUndo(const KXRULE_LIBRARY& library, const Policy& before, const PolicyDiff& diff)
{
    LibraryStore store(library);
    try
    {
        Apply(store, before, diff, [](size_t, size_t) {});
    }
    catch (const StoreError& error)
    {
        Undo(library, before, diff);
        throw Refusal{CodeOf(error), error.what()};
    }
    catch (...)
    {
        Undo(library, before, diff);
        throw;
    }
}

/// then(functions, store, policy) for a policy that is good: what difference and apply begin with.
template <class Then>
int32_t WithPolicy(const KXRULE_LIBRARY* library, const char* text, size_t size, uint32_t flags,
                   const Listener& listener, const Then& then)
{
    if ((text == nullptr && size != 0) || (flags & ~kKnownFlags) != 0)
        return KXPOLICY_E_ARGUMENT;
    return Contain(listener,
                   [&]
                   {
                       const std::optional<Policy> policy = ReadText(text, size, listener);
                       if (!policy)
                           return KXPOLICY_E_TEXT;
                       const RuleFunctions functions(library);
                       const Policy store = ReadStore(*functions);
                       Warn(*policy, store, flags, listener);
                       return then(*functions, store, *policy);
                   });
}

} // namespace

int32_t kxPolicyCheck(const char* text, size_t size, KXPOLICY_REPORT report, void* context)
{
    const Listener listener(report, context);
    if (text == nullptr && size != 0)
        return KXPOLICY_E_ARGUMENT;
    return Contain(listener,
                   [&]
                   {
                       const std::optional<Policy> policy = ReadText(text, size, listener);
                       if (!policy)
                           return KXPOLICY_E_TEXT;
                       Warn(*policy, Policy(), 0, listener);
                       return KXRULE_OK;
                   });
}

int32_t kxPolicyExport(const KXRULE_LIBRARY* library, uint32_t flags, uint64_t* stamp, KXPOLICY_TAKE take,
                       void* context)
{
    if (flags != 0 || take == nullptr)
        return KXPOLICY_E_ARGUMENT;
    return Contain(Listener(nullptr, nullptr),
                   [&]
                   {
                       const RuleFunctions functions(library);
                       const Policy store = ReadStore(*functions);
                       const std::string text = PolicyToJson(store);
                       if (stamp != nullptr)
                           *stamp = Stamp(store).Value();
                       take(text.c_str(), text.size(), context);
                       return KXRULE_OK;
                   });
}

int32_t kxPolicyDifference(const KXRULE_LIBRARY* library, const char* text, size_t size, uint32_t flags,
                           uint64_t* stamp, KXPOLICY_TAKE take, KXPOLICY_REPORT report, void* context)
{
    return WithPolicy(library, text, size, flags, Listener(report, context),
                      [&](const KXRULE_LIBRARY&, const Policy& store, const Policy& policy)
                      {
                          const PolicyDiff diff = Differences(store, policy, flags);
                          const std::string lines = take == nullptr ? std::string() : DiffText(diff);
                          if (stamp != nullptr)
                              *stamp = Stamp(store).Value();
                          if (take != nullptr)
                              take(lines.c_str(), lines.size(), context);
                          return CountOf(diff);
                      });
}

int32_t kxPolicyApply(const KXRULE_LIBRARY* library, const char* text, size_t size, uint32_t flags,
                      const uint64_t* stamp, KXPOLICY_REPORT report, void* context)
{
    return WithPolicy(library, text, size, flags, Listener(report, context),
                      [&](const KXRULE_LIBRARY& functions, const Policy& store, const Policy& policy)
                      {
                          if (stamp != nullptr && *stamp != Stamp(store).Value())
                              throw Refusal{KXPOLICY_E_CHANGED, "the store has changed since the stamp was taken"};
                          const PolicyDiff diff = Differences(store, policy, flags);
                          if (diff.IsEmpty())
                              return 0;
                          // A full disk, or a library that is not initialised, shows before anything is changed.
                          if (const int32_t result = functions.kxRuleWrite(); result != KXRULE_OK)
                              throw Refusal{result, "writing earlier changes: " + ResultText(result)};
                          ApplyOrUndo(functions, store, diff);
                          return CountOf(diff);
                      });
}
