// The store of this process, accessed through the functions of the rule library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "api/include/KxPfwRule.h"
#include "policy/Apply.h"

namespace KxPolicy
{

/// Everything in the store. The names of macros are cut to their field, as the library returns them. If other threads
/// change the store meanwhile, each list, rule set and macro is complete, but they may be from different moments.
/// @param progress  called with the number of rule sets read and the total
[[nodiscard]] Policy ReadStore(const KXRULE_LIBRARY& library,
                               const std::function<void(size_t done, size_t all)>& progress);

/// Changes go to the library, and stay in memory except for deletions of rule sets. The files are not copied.
class LibraryStore : public PolicyStore
{
public:
    explicit LibraryStore(const KXRULE_LIBRARY& library) noexcept : m_Library(library) {}

    /// Adding at an index in use would leave the library's lock with this thread, so that is refused here.
    int32_t AddRuleSet(uint16_t index, PFW_RULESET* record) override;
    int32_t DeleteRuleSet(uint16_t index) override;
    int32_t AddRule(uint16_t ruleSetIndex, uint16_t ruleIndex, const PFW_RULE* rule) override;
    int32_t DeleteRule(uint16_t ruleSetIndex, uint16_t ruleIndex) override;
    int32_t AddMacro(const PFW_MACRO* record) override;
    int32_t DeleteMacro() override;
    int32_t SetActiveRuleSet(const uint16_t* indexes, int32_t count) override;
    void Write() override;
    void CopyFiles() override {}

private:
    /// Called before each change.
    virtual void BeginChange() {}

    const KXRULE_LIBRARY& m_Library;
};

} // namespace KxPolicy
