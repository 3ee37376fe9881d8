// CRule: one rule of a rule set, checked and normalised.
#pragma once

#include <concepts>
#include <cstdint>
#include <vector>

#include "api/include/KxPfwRule.h"
#include "common/srclib/KxComn_Lock.h"
#include "rules/RuleText.h"

/// Holds one record by value. No lock of its own; see docs/threads.md for who may touch it when.
class CRule
{
public:
    /// All bytes zero.
    CRule() noexcept;
    /// Copies the record and normalises it (rules/Normalise.h). Then an access rule with an application, dwSystem 0 and
    /// a hash of zeroes gets its hash from the hash library; a failure there is ignored.
    explicit CRule(const PFW_RULE& record);
    /// For a record that fill writes in place, which saves a copy; TakeOver must still be called. Exceptions of fill
    /// pass through.
    template <std::invocable<PFW_RULE&> Fill>
    explicit CRule(const Fill& fill)
    {
        // A plain store touches new memory first: a page fault within the cipher's loop would cost more.
        *(reinterpret_cast<volatile uint8_t*>(&m_Rule) + sizeof m_Rule - 1) = 0;
        fill(m_Rule);
    }
    /// Normalises the record and fills the hash, as above: a second step, because it may read whole programs.
    void TakeOver();
    CRule(const CRule&) = default;
    CRule& operator=(const CRule&) = default;
    virtual ~CRule() = default; // the only virtual operation

    /// Copies the 2845 bytes and does nothing else.
    void SetRule(const PFW_RULE& record) noexcept { m_Rule = record; }
    /// 0, or KXRULE_E_NULL_POINTER, traced.
    [[nodiscard]] int32_t GetRule(PFW_RULE* out) const;
    /// The rule as one line. 0, or KXRULE_E_RULE_TEXT (kind not 1 to 5) with line unchanged.
    [[nodiscard]] int32_t GetRuleString(RuleText::Line& line) const noexcept;

    [[nodiscard]] const PFW_RULE& Record() const noexcept { return m_Rule; }
    void SetIndex(uint16_t ruleIndex) noexcept { m_Rule.wRuleIndex = ruleIndex; }

    /// Refreshes the application hash (RuleHash.cpp). Always at the offsets of an access rule, whatever the kind.
    /// @param applicationPath  NUL-terminated, or null for every rule that is not a system rule
    /// @param hash             20 bytes or null
    /// @param changed          rule sets with changes; ruleSetIndex is appended unless already present
    /// @param recordLock       held while the hash bytes are stored; readers of records take it too
    /// @return 0, KXRULE_E_HASH_LIBRARY, or the status of the hash function
    [[nodiscard]] int32_t UpdateHash(uint16_t ruleSetIndex, const KXWCHAR* applicationPath, const uint8_t* hash,
                                     KXRULE_HASH_CALLBACK callback, void* context, std::vector<uint16_t>& changed,
                                     CLock& recordLock);

private:
    int32_t FillHash();

    [[maybe_unused]] uint64_t m_Companion = 0; // belongs to the rule and is copied with it; not interpreted here
    PFW_RULE m_Rule;
};
