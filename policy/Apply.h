// Applies the differences between a store and a policy to the store.
#pragma once

#include <cstddef>
#include <functional>
#include <stdexcept>
#include <string>

#include "policy/PolicyDiff.h"

namespace KxPolicy
{

/// Thrown by value when the store refuses a change; what() says what was attempted.
class StoreError : public std::runtime_error
{
public:
    StoreError(int32_t result, const std::string& text) : std::runtime_error(text), m_Result(result) {}
    /// The library's result code.
    [[nodiscard]] int32_t Result() const noexcept { return m_Result; }

private:
    int32_t m_Result;
};

/// Throws StoreError, which names what was attempted, if the result is negative.
void Check(int32_t result, const std::string& attempt);

/// What a change needs from a store: functions of the library with their result codes, and two that throw on failure.
class PolicyStore
{
public:
    virtual ~PolicyStore() = default;
    [[nodiscard]] virtual int32_t AddRuleSet(uint16_t index, PFW_RULESET* record) = 0;
    [[nodiscard]] virtual int32_t DeleteRuleSet(uint16_t index) = 0;
    [[nodiscard]] virtual int32_t AddRule(uint16_t ruleSetIndex, uint16_t ruleIndex, const PFW_RULE* rule) = 0;
    [[nodiscard]] virtual int32_t DeleteRule(uint16_t ruleSetIndex, uint16_t ruleIndex) = 0;
    [[nodiscard]] virtual int32_t AddMacro(const PFW_MACRO* record) = 0;
    [[nodiscard]] virtual int32_t DeleteMacro() = 0;
    [[nodiscard]] virtual int32_t SetActiveRuleSet(const uint16_t* indexes, int32_t count) = 0;
    /// Writes what was changed.
    virtual void Write() = 0;
    /// Copies the files of the store. Called before anything removes a rule set.
    virtual void CopyFiles() = 0;
};

/// Makes the changes and writes them. The files are replaced only at the end, each as a whole. The store is copied
/// before a rule set is removed or renamed. Throws StoreError at the first change that is refused.
/// @param progress  called with the number of rule sets done and the total number of those that change
void Apply(PolicyStore& store, const Policy& before, const PolicyDiff& diff,
           const std::function<void(size_t done, size_t all)>& progress);

} // namespace KxPolicy
