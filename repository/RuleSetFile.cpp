// Reads and writes a rule set's file; trace lines and codes say which step failed. For the layout see
// persistence/RuleSetFormat.h and docs/format.md.
#include <functional>
#include <map>

#include "common/srclib/KxComn_Trace.h"
#include "persistence/EncryptFile.h"
#include "persistence/FileFormat.h"
#include "persistence/Recovery.h"
#include "persistence/RuleDirectory.h"
#include "persistence/RuleSetFormat.h"
#include "repository/RuleSet.h"

using KxCommon::kTraceCall;
using KxCommon::kTraceError;

/// The rules of a file in its order, including those that a later one replaces.
struct CRuleSet::FileOrder
{
    std::vector<uint16_t> Keys;
    std::map<size_t, CRule> Replaced; // by place in Keys
    std::map<uint16_t, size_t> Last;  // the last place of a key; empty until a rule is replaced, which no writer causes

    void Add(uint16_t key, const CRule* former)
    {
        if (former != nullptr)
        {
            if (Last.empty())
            {
                for (size_t i = 0; i < Keys.size(); ++i)
                    Last[Keys[i]] = i;
            }
            Replaced.emplace(Last[key], *former);
        }
        if (!Last.empty())
            Last[key] = Keys.size();
        Keys.push_back(key);
    }
    void TakeOver(Rules& rules)
    {
        for (size_t i = 0; i < Keys.size(); ++i)
        {
            const auto replaced = Replaced.find(i);
            if (CRule* const rule = replaced == Replaced.end() ? rules.Find(Keys[i]) : &replaced->second)
                rule->TakeOver();
        }
    }
};

int32_t CRuleSet::Read(const RuleDirectory& directory, uint32_t* version, CStreamBuffer* lent)
{
    KX_TRACE(kTraceCall, "CRuleSet::Read Enter (%s)", directory.Given().c_str());
    FileOrder order;
    const FileDefect defect = Decode(directory, version, lent, order);
    // Only now that the file is closed: this may read whole programs, and meanwhile nobody else could open the file.
    order.TakeOver(m_Rules);
    if (defect != FileDefect::None)
    {
        const Recovery& recovery = RecoveryOf(FileKind::RuleSet, defect);
        KX_TRACE(kTraceError, "%s", recovery.Line);
        return recovery.Result;
    }
    KX_TRACE(kTraceCall, "CRuleSet::Read Return");
    return KXRULE_OK;
}

FileDefect CRuleSet::Decode(const RuleDirectory& directory, uint32_t* version, CStreamBuffer* lent, FileOrder& order)
{
    CEncryptFile file(lent);
    if (const FileDefect defect = directory.Open(file, m_FileName); defect != FileDefect::None)
        return defect;
    const FileHead head = ReadHead(file, FileKind::RuleSet);
    if (version != nullptr)
        *version = head.Version;
    if (head.Defect != FileDefect::None)
        return head.Defect;
    try
    {
        RuleSetFormat::Header header;
        RuleSetFormat::ReadHeader(file, head.Version, header);
        m_Index = header.Index;
        m_Name = std::move(header.Name);
        if (m_Index == 0) // such a set could never be deleted by itself
            return FileDefect::NoIndex;
        // kept: the old version's rules have another layout; such a set is read without them.
        if (head.Version == FileFormat::kVersion && !ReadRules(file, RuleSetFormat::RuleCount(header), order))
            return FileDefect::DamagedItem;
    }
    catch (CEncryptFile::Exception)
    {
        return FileDefect::Damaged;
    }
    return FileDefect::None;
}

// Each record is decrypted where the rule will stay: touching new memory is most of the cost of reading.
bool CRuleSet::ReadRules(CEncryptStream& stream, int32_t count, FileOrder& order)
{
    const auto read = [&stream](PFW_RULE& record)
    {
        if (!RuleSetFormat::ReadRule(stream, record))
            throw CEncryptStream::ReadError;
    };
    const auto note = [this, &order](const CRule& rule)
    {
        const uint16_t key = KeyOf(rule);
        order.Add(key, m_Rules.Find(key));
        return key;
    };
    try
    {
        for (; count > 0; --count)
            m_Rules.ReplaceKeyed(note, read);
    }
    catch (CEncryptStream::Exception)
    {
        return false;
    }
    return true;
}

int32_t CRuleSet::Write(RuleDirectory& directory, const Copier& copier, CStreamBuffer* lent) const
{
    KX_TRACE(kTraceCall, "CRuleSet::Write Enter (%s)", directory.Given().c_str());
    const std::function<int32_t(CEncryptStream&)> encode = [this](CEncryptStream& stream) -> int32_t
    {
        RuleSetFormat::WriteHeader(stream, {m_Index, m_Name, static_cast<uint32_t>(m_Rules.Size())});
        std::vector<const PFW_RULE*> records(m_Rules.Size());
        for (size_t i = 0; i < records.size(); ++i)
            records[i] = &m_Rules.ValueAt(i).Record();
        if (RuleSetFormat::WriteRules(stream, records.data(), records.size()) && stream.Finish())
            return KXRULE_OK;
        KX_TRACE(kTraceError, "\tFile write error [File-Body]");
        return KXRULE_E_FILE_WRITE;
    };
    const int32_t result = directory.Write({FileKind::RuleSet, m_FileName, encode, copier, lent});
    if (result == KXRULE_OK)
        KX_TRACE(kTraceCall, "CRuleSet::Write return");
    return result;
}
