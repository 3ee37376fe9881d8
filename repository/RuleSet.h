// CRuleSet: one named collection of rules, ordered by rule index.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "api/include/KxPfwRule.h"
#include "common/srclib/KxComn_Lock.h"
#include "common/srclib/KxComn_String.h"
#include "repository/IndexMap.h"
#include "rules/Rule.h"

class CEncryptStream;
class CStreamBuffer;
class RuleDirectory;
enum class FileDefect;

/// Every stored rule's wRuleIndex equals its key. No lock of its own: changes are made under the master lock, reads
/// under the global lock (docs/threads.md).
class CRuleSet
{
public:
    CRuleSet() = default;
    /// From a record and the ruleCount rules that follow it. (ruleCount is the record's own count, which the caller has
    /// read only once, since the record is foreign memory and may change.) Of two rules with the same index the later
    /// one counts; their number is not limited here (the master has a limit).
    CRuleSet(const PFW_RULESET& record, int32_t ruleCount);
    explicit CRuleSet(const PFW_RULESET& record) : CRuleSet(record, record.nRuleCount) {}
    CRuleSet(const CRuleSet&) = default;
    CRuleSet(CRuleSet&&) = default;
    CRuleSet& operator=(const CRuleSet&) = default;
    CRuleSet& operator=(CRuleSet&&) = default;
    virtual ~CRuleSet() = default; // the only virtual operation

    /// 0, KXRULE_E_TOO_MANY_RULES (there are 1024; checked first), KXRULE_E_RULE_EXISTS.
    [[nodiscard]] int32_t AddRule(uint16_t ruleIndex, const CRule& rule);
    /// 0 deletes all. 0, KXRULE_E_NO_RULE.
    [[nodiscard]] int32_t DeleteRule(uint16_t ruleIndex) noexcept;
    /// Null when there is none.
    [[nodiscard]] const CRule* FindRule(uint16_t ruleIndex) const noexcept { return m_Rules.Find(ruleIndex); }
    /// Stores a rule under its own index, replacing an existing one: for rules from records and files.
    void PutRule(const PFW_RULE& record);

    [[nodiscard]] int32_t RuleCount() const noexcept { return static_cast<int32_t>(m_Rules.Size()); }
    /// All rule indexes, ascending.
    [[nodiscard]] const std::vector<uint16_t>& RuleIndexes() const noexcept { return m_Rules.Keys(); }

    /// Writes the head and at most maxRules (0 or more) rules, ascending, at record.
    void CopyRecord(PFW_RULESET* record, int32_t maxRules) const noexcept;

    /// CRule::UpdateHash for every rule, ascending. A rule's failure does not end the walk; the first one is returned.
    [[nodiscard]] int32_t UpdateHash(const KXWCHAR* applicationPath, const uint8_t* hash, KXRULE_HASH_CALLBACK callback,
                                     void* context, std::vector<uint16_t>& changed, CLock& recordLock);

    [[nodiscard]] uint16_t Index() const noexcept { return m_Index; }
    void SetIndex(uint16_t index) noexcept { m_Index = index; }
    [[nodiscard]] const KxCommon::WideString& Name() const noexcept { return m_Name; }
    void SetName(KxCommon::WideString name) noexcept { m_Name = std::move(name); }
    /// The name of the set's file in the rule directory; empty until it is read or written.
    [[nodiscard]] const std::string& FileName() const noexcept { return m_FileName; }
    void SetFileName(std::string fileName) noexcept { m_FileName = std::move(fileName); }

    /// RuleSetFile.cpp. The file is FileName() in the directory.
    /// 0, KXRULE_E_FILE_OPEN, KXRULE_E_FILE_READ, KXRULE_E_RULESET_FORMAT. What was read before a failure stays.
    /// *version is set to the file's version as soon as it is known. Lets std::bad_alloc through: lack of memory is
    /// not damage. Both gather the bytes in the lent buffer, if there is one.
    [[nodiscard]] int32_t Read(const RuleDirectory& directory, uint32_t* version = nullptr,
                               CStreamBuffer* lent = nullptr);
    /// As RuleDirectory::Copier: called right before the existing file is replaced.
    using Copier = std::function<uint32_t(const std::string& fileName)>;
    /// 0, KXRULE_E_FILE_OPEN, KXRULE_E_FILE_WRITE.
    [[nodiscard]] int32_t Write(RuleDirectory& directory, const Copier& copier, CStreamBuffer* lent = nullptr) const;

private:
    using Rules = IndexMap<CRule>;
    // The index is taken from the copy of a record: the original is foreign memory and may change.
    [[nodiscard]] static uint16_t KeyOf(const CRule& rule) noexcept { return rule.Record().wRuleIndex; }
    struct FileOrder;
    [[nodiscard]] FileDefect Decode(const RuleDirectory& directory, uint32_t* version, CStreamBuffer* lent,
                                    FileOrder& order);
    [[nodiscard]] bool ReadRules(CEncryptStream& stream, int32_t count, FileOrder& order);

    [[maybe_unused]] uint64_t m_Companion = 0; // belongs to the set and is copied with it; not interpreted here
    std::string m_FileName;
    uint16_t m_Index = 0;
    KxCommon::WideString m_Name;
    Rules m_Rules;
};
