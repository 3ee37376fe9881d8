// How the master reads each kind of file. The table in persistence/Recovery.h says what happens after damage;
// docs/recovery.md is that table in words.
#include <utility>

#include "common/srclib/KxComn_Names.h"
#include "common/srclib/KxComn_Trace.h"
#include "persistence/EncryptFile.h"
#include "persistence/MacroFormat.h"
#include "persistence/MasterFormat.h"
#include "persistence/Recovery.h"
#include "persistence/RuleFileNames.h"
#include "repository/RuleMaster.h"
#include "repository/RuleSetRescue.h"

using KxCommon::kTraceCall;
using KxCommon::kTraceError;

namespace
{

// A name from a file for a trace line: it may have any length and could otherwise forge lines.
[[nodiscard]] std::string Printable(const std::string& name)
{
    std::string text = name.substr(0, 200);
    for (char& character : text)
    {
        if (static_cast<unsigned char>(character) < 32)
            character = '?';
    }
    return text;
}

} // namespace

int32_t CRuleMaster::ReadMasterFile(MasterFields& fields, bool& isBackedUp)
{
    KX_TRACE(kTraceCall, "CRuleMaster::ReadMasterFile Enter");
    m_Content.RuleSets.Clear();
    m_NextIndex = 1;
    const FileDefect defect = ReadMasterFields(fields);
    if (defect == FileDefect::None)
    {
        m_Files.NoteSafe(m_Directory.MasterFileName());
        KX_TRACE(kTraceCall, "CRuleMaster::ReadMasterFile Return");
        return KXRULE_OK;
    }
    if (defect == FileDefect::Missing && IsFirstStart())
        return KXRULE_OK;
    const Recovery& recovery = RecoveryOf(FileKind::Master, defect);
    if (recovery.What == Remedy::Stop)
        return recovery.Result;
    try
    {
        KX_TRACE(kTraceError, "%s", recovery.Line);
        if (recovery.Text != nullptr)
            throw RuleMasterException(recovery.Text);
    }
    catch (const RuleMasterException& exception)
    {
        KX_TRACE_WIDE(kTraceError, KXW("\tRead master file failed [%S]"), exception.what());
    }
    isBackedUp = true;
    m_ReadState = ReadState::Partial;
    m_Directory.BackupAllRules(); // what it cannot move is copied before it is overwritten
    KX_TRACE(kTraceCall, "CRuleMaster::ReadMasterFile Return");
    return KXRULE_OK;
}

// The file is closed when this returns, since an open one could not be moved away. What was read before a defect
// counts.
FileDefect CRuleMaster::ReadMasterFields(MasterFields& fields)
{
    FileDefect defect = FileDefect::None;
    {
        CEncryptFile file;
        defect = m_Directory.Open(file, m_Directory.MasterFileName());
        if (defect == FileDefect::Missing)
            KX_TRACE(kTraceCall, "\tRule master file does not exist");
        fields.MacroFileName = m_Directory.MacroFileName();
        fields.NextIndex = m_NextIndex;
        if (defect == FileDefect::None)
            defect = MasterFormat::Read(file, fields);
    }
    if (defect != FileDefect::None && defect != FileDefect::Damaged)
        return defect;
    if (!m_Directory.TakeMacroFileName(fields.MacroFileName))
        KX_TRACE(kTraceError, "\tMacro file name ignored (%s)", Printable(fields.MacroFileName).c_str());
    m_NextIndex = fields.NextIndex;
    m_Content.ActiveRuleSets = fields.ActiveRuleSets;
    return defect;
}

// Neither a master file nor rule set files: a new directory, or one whose volume is not mounted yet. Files that appear
// later have not been read, and neither has a master file that exists but cannot be opened.
bool CRuleMaster::IsFirstStart()
{
    std::vector<std::string> names;
    const bool isComplete = m_Directory.FindRuleSetFiles(names);
    m_ReadState = isComplete ? ReadState::NotRead : ReadState::Partial;
    return names.empty();
}

int32_t CRuleMaster::ReadMacroFile()
{
    KX_TRACE(kTraceCall, "CRuleMaster::ReadMacroFile Enter");
    std::vector<MacroFields> macros;
    FileDefect defect = FileDefect::None;
    {
        CEncryptFile file;
        defect = m_Directory.Open(file, m_Directory.MacroFileName());
        if (defect == FileDefect::None)
            defect = MacroFormat::Read(file, macros);
    }
    for (MacroFields& macro : macros) // those before a defect stay
        m_Content.Macros.emplace_back(std::move(macro.Name), std::move(macro.Items));
    if (defect == FileDefect::None)
    {
        m_Files.NoteSafe(m_Directory.MacroFileName());
        KX_TRACE(kTraceCall, "CRuleMaster::ReadMacroFile Return");
        return KXRULE_OK;
    }
    const Recovery& recovery = RecoveryOf(FileKind::Macros, defect);
    if (recovery.What == Remedy::GoOn)
    {
        KX_TRACE(kTraceCall, "\tMacro file does not exist");
        if (m_Directory.MayExist(m_Directory.MacroFileName())) // it exists but cannot be opened
            m_ReadState = ReadState::Partial;
    }
    else if (recovery.Line != nullptr)
        KX_TRACE(kTraceError, "%s", recovery.Line);
    return recovery.Result;
}

int32_t CRuleMaster::ReadRuleSetFile(const std::vector<std::string>& fileNames)
{
    KX_TRACE(kTraceCall, "CRuleMaster::ReadRuleSetFile Enter (index %d)", 0);
    KX_TRACE(kTraceCall, "\tThe number of RuleSet=%d", static_cast<int>(fileNames.size()));
    int32_t result = KXRULE_OK;
    CStreamBuffer buffer; // one for all files
    for (const std::string& fileName : fileNames)
    {
        if (!m_Directory.IsUsableRuleSetFileName(fileName)) // hostile, or of a set that was listed but never written
        {
            KX_TRACE(kTraceError, "\tCRuleSet::Read() error %d (file=\"%s\")", KXRULE_E_FILE_OPEN,
                     Printable(fileName).c_str());
            continue;
        }
        if (!m_Files.List(fileName))
            continue;
        CRuleSet ruleSet;
        ruleSet.SetFileName(fileName);
        KX_TRACE(kTraceCall, "\tCall CRuleSet::Read(%s)", fileName.c_str());
        uint32_t version = 0;
        result = ruleSet.Read(m_Directory, &version, &buffer);
        if (result == KXRULE_OK)
        {
            StoreRuleSet(std::move(ruleSet), version == FileFormat::kOldVersion);
            continue;
        }
        KX_TRACE(kTraceError, "\tCRuleSet::Read() error %d (file=\"%s\")", result, fileName.c_str());
        result = RescueRuleSet(std::move(ruleSet), result != KXRULE_E_FILE_OPEN);
    }
    KX_TRACE(kTraceCall, "CRuleMaster::ReadRuleSetFile Return (%d)", result);
    return result;
}

void CRuleMaster::StoreRuleSet(CRuleSet&& ruleSet, bool holdsMore)
{
    const uint16_t index = ruleSet.Index();
    const CRuleSet* const earlier = m_Content.RuleSets.Find(index);
    if (earlier != nullptr)
    {
        KX_TRACE(kTraceError, "\tRuleSet index %u is listed twice, the later file counts (file=\"%s\")",
                 static_cast<unsigned>(index), ruleSet.FileName().c_str());
        m_Files.NoteUnread(earlier->FileName());
    }
    RuleSetFiles::Claim claim = m_Files.Prepare(ruleSet.FileName(), index);
    m_Content.RuleSets.Replace(index, std::move(ruleSet));
    claim.Take(holdsMore);
}

int32_t CRuleMaster::RescueRuleSet(CRuleSet&& ruleSet, bool isDamaged)
{
    const uint16_t index = RuleFiles::IndexFromFileName(ruleSet.FileName());
    ruleSet.SetIndex(index);
    KX_TRACE(kTraceError, "\tCreating a rescue RuleSet instead of a broken/deleted RuleSet %s",
             ruleSet.FileName().c_str());
    // Such a set could not be told from others: 0 means "none", and a set with that index from another file is not
    // replaced by a rescue set. (A forged list may also name any number of missing files.)
    if (index == 0 || m_Content.RuleSets.Contains(index))
    {
        if (isDamaged && m_Directory.CopyBroken(ruleSet.FileName(), RuleDirectory::Reason::Damaged) == ERROR_SUCCESS)
            m_Files.NoteSafe(ruleSet.FileName());
        KX_TRACE(kTraceError, "\tNo rescue RuleSet for index %u (file=\"%s\")", static_cast<unsigned>(index),
                 ruleSet.FileName().c_str());
        return KXRULE_OK;
    }
    // Whatever the failure was, an existing file is about to be replaced. One that could not be opened may be
    // undamaged.
    const uint32_t refusal = m_Directory.CopyOrRename(ruleSet.FileName(), isDamaged ? RuleDirectory::Reason::Damaged
                                                                                    : RuleDirectory::Reason::Unopened);
    RuleSetRescue::MakeRescueSet(ruleSet);
    const int32_t result = ruleSet.Write(m_Directory, [refusal](const std::string&) { return refusal; });
    if (result != KXRULE_OK)
        KX_TRACE(kTraceError, "\tFail to create RuleSet file (%d)", result);
    StoreRuleSet(std::move(ruleSet), refusal != ERROR_SUCCESS || result != KXRULE_OK);
    return result;
}
