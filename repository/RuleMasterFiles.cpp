// The master's file operations: what is read and written in which order. RuleMasterReading.cpp reads each file,
// RuleSetFiles decides what may be overwritten; docs/recovery.md explains both.
#include <algorithm>
#include <new>
#include <utility>

#include "common/srclib/KxComn_Trace.h"
#include "persistence/Files.h"
#include "persistence/MacroFormat.h"
#include "persistence/MasterFormat.h"
#include "persistence/RuleFileNames.h"
#include "repository/RuleMaster.h"

using KxCommon::kTraceCall;
using KxCommon::kTraceError;

namespace
{

using Encoder = std::function<int32_t(CEncryptStream&)>;

// One step of ReadAll or WriteAll. Lack of memory is a failure of the step, never mistaken for a damaged file. No other
// exception gets through either: the hash library is called while rules are read, and what it throws must not skip the
// steps that follow a failure.
template <class Operation>
[[nodiscard]] int32_t Step(const char* name, int32_t unexpected,
                           const Operation& operation) KX_NO_THREAD_SAFETY_ANALYSIS // the operations carry their own
{
    int32_t result = unexpected;
    try
    {
        result = operation();
    }
    catch (const std::bad_alloc&)
    {
        KX_TRACE(kTraceError, "\tout of memory");
    }
    catch (...)
    {
        KX_TRACE(kTraceError, "\tunexpected exception");
    }
    if (result != KXRULE_OK)
        KX_TRACE(kTraceError, "\t%s error (%d)", name, result);
    return result;
}

} // namespace

// ------------------------------------------------------------------------------------------------------- reading --

int32_t CRuleMaster::ReadAll()
{
    KX_TRACE(kTraceCall, "CMasterFile::ReadAll Enter");
    {
        ChangeGuard change(m_Lock, m_OuterLock, [this](ReadToken) { return RequireLife(); });
        if (!change)
            return change.Refusal();
        Empty();
        m_Files.Clear();
        m_ReadState = ReadState::Whole; // until something is found that cannot be read
        const int32_t result = ReadFiles();
        if (result != KXRULE_OK)
        {
            m_ReadState = ReadState::Partial;
            m_Files.NoteNothingSafe();
            // Earlier changes are gone; later ones are marked anew.
            m_IsDirty = false;
            m_Modified.reset();
            change.HoldOn(); // kept: docs/threads.md, "Locks that outlive a call"
            return result;
        }
    }
    KX_TRACE(kTraceCall, "CMasterFile::ReadAll Return");
    return KXRULE_OK;
}

int32_t CRuleMaster::ReadFiles()
{
    MasterFields fields;
    bool isBackedUp = false;
    int32_t result = Step("ReadMasterFile", KXRULE_E_FILE_READ,
                          [&]() KX_REQUIRES(m_Lock) { return ReadMasterFile(fields, isBackedUp); });
    if (result != KXRULE_OK)
        return result;
    result = Step("ReadMacroFile", KXRULE_E_FILE_READ, [&]() KX_REQUIRES(m_Lock) { return ReadMacroFile(); });
    const bool isRead = result == KXRULE_OK;
    if (isRead)
        result = Step("ReadRuleSetFile", KXRULE_E_FILE_READ,
                      [&]() KX_REQUIRES(m_Lock) { return ReadRuleSetFile(fields.RuleSetFileNames); });
    // What could be read of a damaged master file is in no file now: without a new one, the next read would not find
    // it.
    if (isBackedUp)
    {
        const auto write = [&]() KX_REQUIRES(m_Lock)
        {
            if (isRead)
                fields.RuleSetFileNames = ListedNames();
            else // the next read makes rescue sets of them
                std::erase_if(fields.RuleSetFileNames, [&](const std::string& name) KX_REQUIRES(m_Lock)
                              { return !m_Directory.IsUsableRuleSetFileName(name); });
            const bool tellsNothing = fields.RuleSetFileNames.empty() && m_Content.ActiveRuleSets.empty() &&
                                      m_NextIndex == 1 && m_Directory.MacroFileName() == FileFormat::kMacroFileName;
            return tellsNothing ? KXRULE_OK : StoreMaster(fields.RuleSetFileNames);
        };
        if (Step("WriteMasterFile", KXRULE_E_FILE_WRITE, write) != KXRULE_OK)
            m_IsDirty = true;
    }
    // Another program has the macro file open: as if nothing had been read.
    if (!isRead && result == KXRULE_E_FILE_OPEN)
    {
        m_Content.ActiveRuleSets.clear();
        m_NextIndex = 1;
    }
    return result;
}

// ------------------------------------------------------------------------------------------------------- writing --

int32_t CRuleMaster::FlushRule()
{
    if (!m_IsDirty)
    {
        KX_TRACE(kTraceCall, "CRuleMaster::FlushRule not necessary");
        return KXRULE_OK;
    }
    return WriteAll();
}

int32_t CRuleMaster::WriteAll()
{
    KX_TRACE(kTraceCall, "CMasterFile::WriteAll Enter");
    // The timer's thread comes with the master lock and without the outer one, which is not touched then, since no
    // other thread can hold on to the master lock.
    const ChangeGuard change(m_Lock, m_OuterLock, [this](ReadToken) { return RequireLife(); });
    if (!change)
        return change.Refusal();
    int32_t result =
        Step("WriteMacroFile", KXRULE_E_FILE_WRITE, [&]() KX_REQUIRES(m_Lock) { return WriteMacroFile(); });
    if (result == KXRULE_OK)
        result =
            Step("WriteRuleSetFile", KXRULE_E_FILE_WRITE, [&]() KX_REQUIRES(m_Lock) { return WriteRuleSetFile(); });
    if (result == KXRULE_OK)
        result = Step("WriteMasterFile", KXRULE_E_FILE_WRITE, [&]() KX_REQUIRES(m_Lock) { return WriteMasterFile(); });
    if (result == KXRULE_OK)
        KX_TRACE(kTraceCall, "CMasterFile::WriteAll Return");
    return result;
}

// Every writer passes here: a file that is about to be replaced and holds more than memory does is copied first. (A
// store that was not read completely is copied as a whole, since the list that is written next does not name what was
// not read.)
uint32_t CRuleMaster::CopyReplaced(const std::string& fileName)
{
    if (m_ReadState != ReadState::Whole)
    {
        const uint32_t busy = m_Directory.CopyUnread(m_Files);
        if (busy == ERROR_SUCCESS)
            m_ReadState = ReadState::Whole; // what could not be copied for another reason is still noted, file by file
        else if (fileName == m_Directory.MasterFileName())
            return busy; // the file that is open elsewhere would be in no list
    }
    if (!m_Files.HoldsMore(fileName))
        return ERROR_SUCCESS;
    const uint32_t error = m_Directory.CopyOrRename(fileName, RuleDirectory::Reason::Replaced);
    if (error == ERROR_SUCCESS)
        m_Files.NoteSafe(fileName);
    return error;
}

int32_t CRuleMaster::WriteMasterFile()
{
    KX_TRACE(kTraceCall, "CRuleMaster::WriteMasterFile Enter");
    const int32_t result = StoreMaster(ListedNames());
    if (result == KXRULE_OK)
        KX_TRACE(kTraceCall, "CRuleMaster::WriteMasterFile Return");
    return result;
}

int32_t CRuleMaster::StoreMaster(const std::vector<std::string>& names)
{
    const Encoder encode = [&](CEncryptStream& stream) KX_REQUIRES(m_Lock) -> int32_t
    {
        MasterFormat::WriteFields(stream, {m_Directory.MacroFileName(), m_NextIndex, m_Content.ActiveRuleSets, names});
        if (!stream.Finish())
            throw CEncryptStream::WriteError;
        return KXRULE_OK;
    };
    // A file that was listed and not read must not drop out of the list without a copy while it may still become
    // readable.
    const RuleDirectory::Copier copier = [&](const std::string& fileName) KX_REQUIRES(m_Lock) -> uint32_t
    {
        for (const std::string& name : m_Files.Unlisted(names))
        {
            const uint32_t error = m_Directory.CopyBroken(name, RuleDirectory::Reason::Replaced);
            if (Files::IsBusy(error))
                return error;
            if (error == ERROR_SUCCESS)
                m_Files.NoteSafe(name);
        }
        return CopyReplaced(fileName);
    };
    const int32_t result = m_Directory.Write({FileKind::Master, m_Directory.MasterFileName(), encode, copier});
    if (result == KXRULE_OK)
    {
        m_Files.NoteSafe(m_Directory.MasterFileName());
        m_Files.ListOnly(names);
    }
    return result;
}

int32_t CRuleMaster::WriteMacroFile()
{
    KX_TRACE(kTraceCall, "CRuleMaster::WriteMacroFile Enter");
    const Encoder encode = [this](CEncryptStream& stream) KX_REQUIRES(m_Lock) -> int32_t
    {
        MacroFormat::WriteHead(stream, static_cast<uint32_t>(m_Content.Macros.size()));
        const auto write = [&stream](const CMacro& macro)
        { return MacroFormat::WriteMacro(stream, macro.Name(), macro.Items()); };
        if (std::all_of(m_Content.Macros.begin(), m_Content.Macros.end(), write) && stream.Finish())
            return KXRULE_OK;
        KX_TRACE(kTraceError, "\tFile write error");
        return KXRULE_E_FILE_WRITE;
    };
    const int32_t result = m_Directory.Write({FileKind::Macros, m_Directory.MacroFileName(), encode, m_CopyReplaced});
    if (result != KXRULE_OK)
        return result;
    m_Files.NoteSafe(m_Directory.MacroFileName());
    KX_TRACE(kTraceCall, "CRuleMaster::WriteMacroFile Return");
    return KXRULE_OK;
}

int32_t CRuleMaster::WriteRuleSetFile()
{
    KX_TRACE(kTraceCall, "CRuleMaster::WriteRuleSetFile Enter (index %d)", 0);
    int32_t result = KXRULE_OK;
    for (size_t i = 0; i < m_Content.RuleSets.Size() && result == KXRULE_OK; ++i)
    {
        if (m_Modified.test(m_Content.RuleSets.KeyAt(i)))
            result = WriteInTurn(m_Content.RuleSets.KeyAt(i));
    }
    KX_TRACE(kTraceCall, "CRuleMaster::WriteRuleSetFile Return (%d)", result);
    return result;
}

// Writes a set under its own name. A set that occupies that file moves to its own name first, and so on; in a cycle
// none can, and the set is written where it is. (A loop rather than recursion: a forged list may chain 65535 names.
// Each link then costs a master file, since no two can move at a time without a third name.)
int32_t CRuleMaster::WriteInTurn(uint16_t index)
{
    std::vector<uint16_t> queue{index};
    while (queue.size() <= m_Content.RuleSets.Size())
    {
        const std::optional<uint16_t> owner = m_Files.OwnerOf(RuleFiles::RuleSetFileName(queue.back()));
        if (!owner || owner == queue.back())
            break;
        if (owner == index)
            return WriteOneRuleSet(index, m_Content.RuleSets.Find(index)->FileName());
        queue.push_back(*owner);
    }
    int32_t result = KXRULE_OK;
    for (; result == KXRULE_OK && !queue.empty(); queue.pop_back())
        result = WriteOneRuleSet(queue.back(), RuleFiles::RuleSetFileName(queue.back()));
    return result;
}

int32_t CRuleMaster::WriteOneRuleSet(uint16_t index, std::string target)
{
    CRuleSet* const ruleSet = m_Content.RuleSets.Find(index);
    const RuleSetFiles::Verdict verdict = m_Files.MayReplace(target, index);
    if (ruleSet == nullptr || verdict == RuleSetFiles::Verdict::No)
        return KXRULE_E_FILE_WRITE;
    if (verdict == RuleSetFiles::Verdict::ListFirst)
    {
        if (const int32_t result = StoreMaster(ListedNames()); result != KXRULE_OK)
            return result;
    }
    std::string former = ruleSet->FileName();
    RuleSetFiles::Claim claim = m_Files.Prepare(target, index, former);
    ruleSet->SetFileName(std::move(target));
    KX_TRACE(kTraceCall, "\tCall CRuleSet::Write");
    const int32_t result = ruleSet->Write(m_Directory, m_CopyReplaced, &m_WriteBuffer);
    KX_TRACE(kTraceCall, "\tReturn CRuleSet::Write (%d)", result);
    if (result != KXRULE_OK)
    {
        ruleSet->SetFileName(std::move(former)); // a master file must not list a file that was never written
        return result;
    }
    claim.Take();
    m_Modified.reset(index);
    return KXRULE_OK;
}
