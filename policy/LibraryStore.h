// The store of the rule library that a process has, through the library's functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "api/include/KxPfwRule.h"
#include "policy/Apply.h"

namespace KxPolicy
{

/// Everything in the store. The macros' names are cut to their field as the library hands them out. When other threads
/// change the store meanwhile, each list, rule set and macro is whole, but they may be of different moments.
/// @param progress  called with the number of rule sets read and the number of all
[[nodiscard]] Policy ReadStore(const KXRULE_LIBRARY& library,
                               const std::function<void(size_t done, size_t all)>& progress);

/// Changes go to the library, in memory but for deletions of rule sets. The files are not copied.
class LibraryStore : public PolicyStore
{
public:
    explicit LibraryStore(const KXRULE_LIBRARY& library) noexcept : m_Library(library) {}

    /// Asking the library for an index in use would leave its lock with this thread, so that is refused here.
    int32_t AddRuleSet(uint16_t index, PFW_RULESET* record) override;
    int32_t DeleteRuleSet(uint16_t index) override;
    int32_t AddRule(uint16_t ruleSetIndex, uint16_t ruleIndex, const PFW_RULE* rule) override;
    int32_t DeleteRule(uint16_t ruleSetIndex, uint16_t ruleIndex) override;
    int32_t AddMacro(const PFW_MACRO* record) override;
    int32_t DeleteMacro() override;
    int32_t SetActiveRuleSet(const uint16_t* indexes, int32_t count) override;
    void Write() override;
    void KeepCopy() override {}

private:
    /// Called before each change.
    virtual void BeginChange() {}

    const KXRULE_LIBRARY& m_Library;
};

} // namespace KxPolicy
