// What a read would find and do, according to the table in persistence/Recovery.h.
#include "persistence/Survey.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

#include "persistence/EncryptFile.h"
#include "persistence/RuleFileNames.h"

namespace
{

struct NoCase
{
    bool operator()(const std::string& a, const std::string& b) const
    {
        using namespace KxCommon::String;
        return CompareNoCase(ToWide(a), ToWide(b)) < 0;
    }
};
using Names = std::set<std::string, NoCase>;

/// Reuses the buffer and the memory of the rules.
LookedAt Look(const RuleDirectory& directory, const std::string& name, std::optional<FileKind> kind,
              CStreamBuffer* lent, std::vector<PFW_RULE> rules)
{
    LookedAt seen;
    seen.Name = name;
    seen.File.Rules = std::move(rules);
    CEncryptFile stream(lent);
    seen.File.Head.Defect = directory.OpenToLook(stream, name, &seen.Error);
    if (seen.File.Head.Defect == FileDefect::None)
    {
        seen.Bytes = stream.Size();
        seen.File.Read(stream, kind);
    }
    return seen;
}

class Surveyor
{
public:
    Surveyor(const RuleDirectory& directory, const std::function<void(Surveyed&)>& take)
        : m_Directory(directory), m_Take(take)
    {
    }

    void Go()
    {
        std::vector<std::string> names;
        static_cast<void>(m_Directory.FindFiles(names));
        std::copy_if(names.begin(), names.end(), std::inserter(m_Unlisted, m_Unlisted.end()),
                     RuleFiles::IsRuleSetFileName);
        const MasterFields fields = LookAtMaster();
        LookAtMacros(fields);
        for (size_t i = 0; i < fields.RuleSetFileNames.size(); ++i)
            LookAtRuleSet(fields.RuleSetFileNames[i], i, fields.RuleSetFileNames.size());
        for (const uint16_t index : fields.ActiveRuleSets)
        {
            if (!m_IsDamaged && !m_Indexes.contains(index))
                TellOfMaster(Sight::NoSuchSet, {}, index);
        }
        for (const std::string& name : m_Unlisted)
            LookAtRest(name, Sight::Unlisted);
        names.clear();
        static_cast<void>(m_Directory.FindTemporaryFiles(names));
        std::sort(names.begin(), names.end());
        for (const std::string& name : names)
            LookAtRest(name, Sight::Temporary);
    }

private:
    Surveyed Look(const std::string& name, Sight sight, std::optional<FileKind> kind)
    {
        Surveyed seen{::Look(m_Directory, name, kind, &m_Lent, std::move(m_Rules))};
        seen.What = sight;
        if (!seen.IsWhole() && kind)
        {
            const Recovery& recovery = RecoveryOf(*kind, seen.File.Head.Defect);
            seen.Then = recovery.What;
            seen.Result = recovery.Result;
            seen.IsThere = !seen.IsUnopened() || m_Directory.MayExist(name);
        }
        return seen;
    }
    void TellOfMaster(Sight sight, const std::string& name, uint16_t index = 0)
    {
        Surveyed seen;
        seen.Name = name;
        seen.What = sight;
        seen.Index = index;
        m_Take(seen);
    }

    MasterFields LookAtMaster()
    {
        Surveyed seen = Look(m_Directory.MasterFileName(), Sight::Master, FileKind::Master);
        if (seen.File.Head.Defect == FileDefect::Missing && m_Unlisted.empty())
            seen.Then = Remedy::GoOn; // a first start
        m_OfMaster = seen.Then;
        m_IsDamaged = !seen.IsWhole() && (seen.Then != Remedy::GoOn || seen.IsThere);
        m_IsMasterWhole = seen.IsWhole();
        MasterFields fields = seen.File.Master;
        m_Take(seen);
        return fields;
    }

    void LookAtMacros(const MasterFields& fields)
    {
        const std::string& name = m_Directory.MacroFileName();
        if (!fields.MacroFileName.empty() && fields.MacroFileName != name)
            TellOfMaster(Sight::MacroName, fields.MacroFileName);
        Surveyed seen = Look(name, Sight::Macros, FileKind::Macros);
        m_IsDamaged = m_IsDamaged || (!seen.IsWhole() && seen.IsThere);
        m_AreMacrosWhole = seen.IsWhole();
        m_Take(seen);
    }

    void LookAtRuleSet(const std::string& name, size_t position, size_t last)
    {
        if (!m_Directory.IsUsableRuleSetFileName(name))
            return TellOfMaster(Sight::BadName, name);
        if (!m_Listed.insert(name).second)
            return TellOfMaster(Sight::Twice, name);
        m_Unlisted.erase(name);
        Surveyed seen = Look(name, Sight::RuleSet, FileKind::RuleSet);
        seen.Position = position;
        seen.Last = last;
        seen.IsMoved = m_OfMaster == Remedy::BackUp && seen.IsThere; // before it is looked for
        const uint16_t rescue = RuleFiles::IndexFromFileName(name);
        seen.HasRescue = (seen.IsMoved || !seen.IsWhole()) && rescue != 0 && !m_Indexes.contains(rescue);
        m_IsDamaged = m_IsDamaged || !seen.IsWhole();
        if (seen.IsWhole() && !seen.IsMoved)
            seen.IsRepeated = !m_Indexes.insert(seen.File.Set.Index).second;
        m_Take(seen);
        m_Rules = std::move(seen.File.Rules); // memory that was not taken is reused for the next set
        m_Rules.clear();
    }

    /// Files that nothing reads: if one is the only copy of its contents, it must not be removed.
    void LookAtRest(const std::string& name, Sight sight)
    {
        Surveyed seen = Look(name, sight, sight == Sight::Unlisted ? std::optional(FileKind::RuleSet) : std::nullopt);
        seen.Then = m_OfMaster;
        seen.IsMoved = sight == Sight::Unlisted && m_OfMaster == Remedy::BackUp;
        const FileKind kind = seen.File.Head.Kind;
        seen.IsOnlyCopy = seen.IsWhole() && !(kind == FileKind::RuleSet  ? m_Indexes.contains(seen.File.Set.Index)
                                              : kind == FileKind::Master ? m_IsMasterWhole
                                                                         : m_AreMacrosWhole);
        m_Take(seen);
    }

    const RuleDirectory& m_Directory;
    const std::function<void(Surveyed&)>& m_Take;
    CStreamBuffer m_Lent;
    std::vector<PFW_RULE> m_Rules;
    Remedy m_OfMaster = Remedy::GoOn;
    bool m_IsDamaged = false;
    bool m_IsMasterWhole = false;
    bool m_AreMacrosWhole = false;
    Names m_Listed;
    Names m_Unlisted; // rule set files that the master file has not named so far
    std::set<uint16_t> m_Indexes;
};

} // namespace

LookedAt LookAt(const RuleDirectory& directory, const std::string& name, std::optional<FileKind> kind,
                CStreamBuffer* lent)
{
    return Look(directory, name, kind, lent, {});
}

void Survey(const RuleDirectory& directory, const std::function<void(Surveyed&)>& take)
{
    Surveyor(directory, take).Go();
}
