// The master's file operations: what is read and written in which order, and what becomes of damage. The layouts are
// in persistence/ and docs/format.md, recovery is explained in docs/recovery.md.
#include <algorithm>
#include <cstring>
#include <functional>
#include <new>
#include <utility>

#include "common/srclib/KxComn_Names.h"
#include "common/srclib/KxComn_Trace.h"
#include "persistence/Backup.h"
#include "persistence/EncryptFile.h"
#include "persistence/MacroFormat.h"
#include "persistence/MasterFormat.h"
#include "persistence/RuleFileNames.h"
#include "persistence/RuleFiles.h"
#include "repository/RuleMaster.h"
#include "repository/RuleSetRescue.h"

using KxCommon::kTraceCall;
using KxCommon::kTraceError;

namespace
{

using Encoder = std::function<int32_t(CEncryptStream&)>;

// One step of ReadAll or WriteAll. Lack of memory is a failure of the step, never taken for damage of a file. Nor does
// anything else pass: the hash library is called while rules are read, and what it throws must not get round the steps
// that follow a failure.
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

// A name out of a file for a trace line: it may be of any length and forge lines.
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

[[nodiscard]] bool IsSameFile(const std::string& a, const std::string& b)
{
    return KxCommon::String::EqualNoCase(KxCommon::String::ToWide(a), KxCommon::String::ToWide(b));
}

} // namespace

// ------------------------------------------------------------------------------------------------------- reading --

int32_t CRuleMaster::ReadAll()
{
    KX_TRACE(kTraceCall, "CMasterFile::ReadAll Enter");
    while (!MayChange())
    {
    }
    if (!m_IsLive)
        return KXRULE_E_FILE_OPEN;
    {
        MasterGuard guard(m_Lock);
        Empty();
        m_UnkeptSets.clear();
        m_IsReadIncomplete = false;
        m_SafetyCopy = {};
        bool isMasterBackedUp = false;
        const int32_t result = ReadFiles(isMasterBackedUp);
        // The files of a store without a master file must be listed, or the next start takes them for garbage.
        if (isMasterBackedUp && !m_RuleSets.IsEmpty())
            m_IsDirty = true;
        if (result != KXRULE_OK)
        {
            m_IsReadIncomplete = true;
            guard.KeepLocked(); // kept: docs/threads.md, "Locks that outlive a call"
            return result;
        }
    }
    KX_TRACE(kTraceCall, "CMasterFile::ReadAll Return");
    return KXRULE_OK;
}

int32_t CRuleMaster::ReadFiles(bool& isMasterBackedUp)
{
    int32_t result = Step("ReadMasterFile", KXRULE_E_FILE_READ,
                          [&]() KX_REQUIRES(m_Lock) { return ReadMasterFile(isMasterBackedUp); });
    if (result == KXRULE_OK)
        result = Step("ReadMacroFile", KXRULE_E_FILE_READ, [&]() KX_REQUIRES(m_Lock) { return ReadMacroFile(); });
    if (result == KXRULE_OK)
        result = Step("ReadRuleSetFile", KXRULE_E_FILE_READ, [&]() KX_REQUIRES(m_Lock) { return ReadRuleSetFile(); });
    return result;
}

int32_t CRuleMaster::ReadMasterFile(bool& isBackedUp)
{
    KX_TRACE(kTraceCall, "CRuleMaster::ReadMasterFile Enter");
    m_RuleSets.Clear();
    m_NextIndex = 1;
    try
    {
        if (!ReadMasterFields())
            return KXRULE_OK;
    }
    // The file is closed by now: an open one could not be moved away.
    catch (const RuleMasterException& exception)
    {
        KX_TRACE_WIDE(kTraceError, KXW("\tRead master file failed [%S]"), exception.what());
        isBackedUp = true;
    }
    catch (CEncryptFile::Exception)
    {
        KX_TRACE(kTraceError, "\tCEncryptFile exception occurs");
        isBackedUp = true;
    }
    if (isBackedUp && !Backup::BackupAllRules(m_RulePath, m_MasterFileName))
        m_IsReadIncomplete = true; // what stayed is not written over either
    KX_TRACE(kTraceCall, "CRuleMaster::ReadMasterFile Return");
    return KXRULE_OK;
}

bool CRuleMaster::ReadMasterFields()
{
    CEncryptFile file;
    const std::string path = m_RulePath + m_MasterFileName;
    if (!file.Open(path.c_str(), GENERIC_READ))
    {
        NoteUnopened(::GetLastError());
        KX_TRACE(kTraceCall, "\tRule master file does not exist");
        bool isComplete = true;
        const bool isFirstStart = RuleFiles::FindRuleSetFiles(m_RulePath, &isComplete).empty();
        if (!isComplete)
            m_IsReadIncomplete = true;
        if (isFirstStart)
            return false;
        KX_TRACE(kTraceError, "Master file open failed. But ruleset file exists.");
        throw RuleMasterException("Garbage ruleset file exists");
    }
    switch (MasterFormat::ReadHead(file))
    {
    case MasterFormat::Head::Unreadable:
        KX_TRACE(kTraceError, "\tMasterFile read error");
        throw RuleMasterException("Read fail");
    case MasterFormat::Head::WrongMagic:
        KX_TRACE(kTraceError, "\tMasterFile does not match magic");
        throw RuleMasterException("Wrong magic");
    case MasterFormat::Head::WrongVersion:
        KX_TRACE(kTraceError, "\tMasterFile does not match file version");
        throw RuleMasterException("Wrong version");
    case MasterFormat::Head::Good:
        break;
    }

    MasterFields fields;
    fields.MacroFileName = m_MacroFileName;
    fields.NextIndex = m_NextIndex;
    try
    {
        MasterFormat::ReadFields(file, fields);
    }
    catch (...) // what was read before the failure counts
    {
        TakeMasterFields(std::move(fields));
        throw;
    }
    TakeMasterFields(std::move(fields));
    return true;
}

void CRuleMaster::TakeMasterFields(MasterFields&& fields)
{
    // The key is no secret: whoever may write the directory can name any file, and this one is written to. An empty
    // name would make every write fail.
    if (RuleFiles::IsBareName(fields.MacroFileName) && !RuleFiles::IsRuleSetFileName(fields.MacroFileName) &&
        !IsSameFile(fields.MacroFileName, m_MasterFileName))
        m_MacroFileName = fields.MacroFileName;
    else
        KX_TRACE(kTraceError, "\tMacro file name ignored (%s)", Printable(fields.MacroFileName).c_str());
    m_NextIndex = fields.NextIndex;
    m_ActiveRuleSets = std::move(fields.ActiveRuleSets); // both were emptied before the read
    m_RuleSetFileNames = std::move(fields.RuleSetFileNames);
}

// kept: a file that cannot be opened counts as one that does not exist. But if it is there, it was not read, and the
// first write must not replace it without a copy.
void CRuleMaster::NoteUnopened(DWORD error)
{
    if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND)
        m_IsReadIncomplete = true;
}

int32_t CRuleMaster::ReadMacroFile()
{
    KX_TRACE(kTraceCall, "CRuleMaster::ReadMacroFile Enter");
    CEncryptFile file;
    const std::string path = m_RulePath + m_MacroFileName;
    if (!file.Open(path.c_str(), GENERIC_READ))
    {
        NoteUnopened(::GetLastError());
        KX_TRACE(kTraceCall, "\tMacro file does not exist");
        return KXRULE_OK;
    }
    char magic[FileFormat::kMagicBytes] = {}; // a shorter file is a file with another magic
    if (!file.Read(magic, sizeof magic, false))
    {
        KX_TRACE(kTraceError, "\tMacroFile read error");
        return KXRULE_E_FILE_READ;
    }
    if (std::memcmp(magic, FileFormat::kMacroMagic, sizeof magic) != 0)
    {
        KX_TRACE(kTraceError, "\tMacroFile does not match magic");
        return KXRULE_E_MACRO_FORMAT;
    }
    try
    {
        uint32_t version = 0;
        file.ReadU32(version);
        if (version != FileFormat::kVersion)
        {
            KX_TRACE(kTraceError, "\tMasterFile does not match version"); // kept: the line speaks of the master file
            return KXRULE_E_MACRO_FORMAT;
        }
        if (!MacroFormat::ReadMacros(file, m_Macros))
        {
            KX_TRACE(kTraceError, "\tMasterFile read value error"); // kept: the line speaks of the master file
            return KXRULE_E_FILE_READ;
        }
    }
    catch (CEncryptFile::Exception)
    {
        KX_TRACE(kTraceError, "\tCEncryptFile exception occurs");
        return KXRULE_E_FILE_READ;
    }
    KX_TRACE(kTraceCall, "CRuleMaster::ReadMacroFile Return");
    return KXRULE_OK;
}

bool CRuleMaster::IsUsableRuleSetFileName(const std::string& name) const
{
    return RuleFiles::IsBareName(name) && !IsSameFile(name, m_MasterFileName) && !IsSameFile(name, m_MacroFileName);
}

int32_t CRuleMaster::ReadRuleSetFile()
{
    KX_TRACE(kTraceCall, "CRuleMaster::ReadRuleSetFile Enter (index %d)", 0);
    KX_TRACE(kTraceCall, "\tThe number of RuleSet=%d", static_cast<int>(m_RuleSetFileNames.size()));
    int32_t result = KXRULE_OK;
    CStreamBuffer buffer; // one for all files
    for (const std::string& fileName : m_RuleSetFileNames)
    {
        if (!IsUsableRuleSetFileName(fileName)) // hostile, or a set that was listed before it was ever written
        {
            KX_TRACE(kTraceError, "\tCRuleSet::Read() error %d (file=\"%s\")", KXRULE_E_FILE_OPEN,
                     Printable(fileName).c_str());
            continue;
        }
        CRuleSet ruleSet;
        ruleSet.SetFileName(fileName);
        KX_TRACE(kTraceCall, "\tCall CRuleSet::Read(%s)", fileName.c_str());
        uint32_t version = 0;
        result = ruleSet.Read(m_RulePath, &version, &buffer);
        if (result == KXRULE_OK)
        {
            if (version == FileFormat::kOldVersion)
                m_UnkeptSets.insert(ruleSet.Index());
            StoreRuleSet(std::move(ruleSet));
            continue;
        }
        KX_TRACE(kTraceError, "\tCRuleSet::Read() error %d (file=\"%s\")", result, fileName.c_str());
        result = RescueRuleSet(std::move(ruleSet), result != KXRULE_E_FILE_OPEN);
    }
    KX_TRACE(kTraceCall, "CRuleMaster::ReadRuleSetFile Return (%d)", result);
    return result;
}

void CRuleMaster::StoreRuleSet(CRuleSet&& ruleSet)
{
    const uint16_t index = ruleSet.Index();
    if (m_RuleSets.Contains(index))
        KX_TRACE(kTraceError, "\tRuleSet index %u is listed twice, the later file counts (file=\"%s\")",
                 static_cast<unsigned>(index), ruleSet.FileName().c_str());
    m_RuleSets.Replace(index, std::move(ruleSet));
}

int32_t CRuleMaster::RescueRuleSet(CRuleSet&& ruleSet, bool isDamaged)
{
    const uint16_t index = RuleFiles::IndexFromFileName(ruleSet.FileName());
    ruleSet.SetIndex(index);
    KX_TRACE(kTraceError, "\tCreating a rescue RuleSet instead of a broken/deleted RuleSet %s",
             ruleSet.FileName().c_str());
    // Whatever the failure was: a file that is there is kept, also one that somebody else holds open. That one may well
    // be whole, so it does not take the place of an earlier copy.
    const bool isKept = Backup::KeepBroken(m_RulePath, ruleSet.FileName(), isDamaged) == 0;
    // No such set could be told from others: 0 means "none", and a set of that index from another file is not replaced
    // by a rescue. (A forged list may also name any number of files that are missing.)
    if (index == 0 || m_RuleSets.Contains(index))
    {
        KX_TRACE(kTraceError, "\tNo rescue RuleSet for index %u (file=\"%s\")", static_cast<unsigned>(index),
                 ruleSet.FileName().c_str());
        return KXRULE_OK;
    }
    RuleSetRescue::MakeRescueSet(ruleSet);
    int32_t result = KXRULE_OK;
    if (isKept)
    {
        result = ruleSet.Write(m_RulePath);
        if (result != KXRULE_OK)
            KX_TRACE(kTraceError, "\tFail to create RuleSet file (%d)", result);
    }
    else
    {
        m_UnkeptSets.insert(index); // the file stays as it is until there is a copy of it
    }
    StoreRuleSet(std::move(ruleSet));
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
    while (!MayChange()) // the timer's thread owns the master lock here, so for it nobody else can
    {
    }
    if (!m_IsLive)
        return KXRULE_E_FILE_OPEN;
    int32_t result = Step("WriteMacroFile", KXRULE_E_FILE_WRITE, [&] { return WriteMacroFile(); });
    if (result == KXRULE_OK)
        result = Step("WriteRuleSetFile", KXRULE_E_FILE_WRITE, [&] { return WriteRuleSetFile(); });
    if (result == KXRULE_OK)
        result = Step("WriteMasterFile", KXRULE_E_FILE_WRITE, [&] { return WriteMasterFile(); });
    if (result == KXRULE_OK)
        KX_TRACE(kTraceCall, "CMasterFile::WriteAll Return");
    return result;
}

// A store that could not be read whole is not written over: files lie in the directory whose rules are not in memory,
// and the list that is written next does not name them. False: they could not be copied, so nothing may be written.
bool CRuleMaster::KeepUnreadFiles()
{
    if (m_IsReadIncomplete && m_SafetyCopy.Complete(m_RulePath, m_MasterFileName, m_MacroFileName))
    {
        m_IsReadIncomplete = false;
        m_RuleSetFileNames.clear(); // WriteOneRuleSet need not keep them once more
    }
    return !m_IsReadIncomplete;
}

int32_t CRuleMaster::WriteMasterFile()
{
    KX_TRACE(kTraceCall, "CRuleMaster::WriteMasterFile Enter");
    const MasterGuard guard(m_Lock);
    if (!KeepUnreadFiles())
        return KXRULE_E_FILE_WRITE;
    const Encoder encode = [this](CEncryptStream& stream) KX_REQUIRES(m_Lock) -> int32_t
    {
        MasterFields fields;
        fields.MacroFileName = m_MacroFileName;
        fields.NextIndex = m_NextIndex;
        fields.ActiveRuleSets = m_ActiveRuleSets;
        for (size_t i = 0; i < m_RuleSets.Size(); ++i)
            fields.RuleSetFileNames.push_back(m_RuleSets.ValueAt(i).FileName());
        MasterFormat::WriteFields(stream, fields);
        if (!stream.Finish())
            throw CEncryptStream::WriteError;
        return KXRULE_OK;
    };
    const int32_t result = RuleFiles::Write(
        {m_RulePath, FileFormat::kMasterTemporary, m_MasterFileName, FileFormat::kMasterMagic, true, encode});
    if (result == KXRULE_OK)
        KX_TRACE(kTraceCall, "CRuleMaster::WriteMasterFile Return");
    return result;
}

int32_t CRuleMaster::WriteMacroFile()
{
    KX_TRACE(kTraceCall, "CRuleMaster::WriteMacroFile Enter");
    const MasterGuard guard(m_Lock);
    if (!KeepUnreadFiles())
        return KXRULE_E_FILE_WRITE;
    const Encoder encode = [this](CEncryptStream& stream) KX_REQUIRES(m_Lock) -> int32_t
    {
        if (MacroFormat::WriteMacros(stream, m_Macros) && stream.Finish())
            return KXRULE_OK;
        KX_TRACE(kTraceError, "\tFile write error");
        return KXRULE_E_FILE_WRITE;
    };
    const int32_t result = RuleFiles::Write(
        {m_RulePath, FileFormat::kMacroTemporary, m_MacroFileName, FileFormat::kMacroMagic, true, encode});
    if (result == KXRULE_OK)
        KX_TRACE(kTraceCall, "CRuleMaster::WriteMacroFile Return");
    return result;
}

int32_t CRuleMaster::WriteRuleSetFile()
{
    KX_TRACE(kTraceCall, "CRuleMaster::WriteRuleSetFile Enter (index %d)", 0);
    int32_t result = KXRULE_OK;
    {
        const MasterGuard guard(m_Lock);
        MarkDisplacedRuleSets();
        CStreamBuffer buffer; // one for all files
        for (size_t i = 0; i < m_RuleSets.Size() && result == KXRULE_OK; ++i)
        {
            const uint16_t index = m_RuleSets.KeyAt(i);
            if (!m_Modified.test(index))
                continue;
            result = WriteOneRuleSet(m_RuleSets.ValueAt(i), buffer);
            if (result == KXRULE_OK)
                m_Modified.reset(index);
        }
    }
    KX_TRACE(kTraceCall, "CRuleMaster::WriteRuleSetFile Return (%d)", result);
    return result;
}

// Two files may have had their names exchanged: a set that is written takes the file of another one, which must then be
// written as well, or the list would name a file that no longer holds it.
void CRuleMaster::MarkDisplacedRuleSets()
{
    for (bool isDone = false; !isDone;)
    {
        isDone = true;
        for (size_t i = 0; i < m_RuleSets.Size(); ++i)
        {
            const uint16_t index = m_RuleSets.KeyAt(i);
            const std::string& fileName = m_RuleSets.ValueAt(i).FileName();
            const uint16_t taker = RuleFiles::IndexFromFileName(fileName);
            if (taker == index || m_Modified.test(index) || !m_Modified.test(taker) || !m_RuleSets.Contains(taker) ||
                !IsSameFile(fileName, RuleFiles::RuleSetFileName(taker)))
                continue;
            m_Modified.set(index);
            isDone = false;
        }
    }
}

// A file that cannot be read for good, as on a bad sector, is moved out of the way: it must not keep all others from being
// written. One that is held open, or has no room for its copy, is tried again with the next write.
bool CRuleMaster::KeepUnread(const std::string& fileName)
{
    switch (Backup::KeepBroken(m_RulePath, fileName, false))
    {
    case ERROR_SUCCESS:
        return true;
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
    case ERROR_LOCK_VIOLATION:
    case ERROR_HANDLE_DISK_FULL:
    case ERROR_DISK_FULL:
        return false;
    default:
        return Backup::MoveBroken(m_RulePath, fileName);
    }
}

int32_t CRuleMaster::WriteOneRuleSet(CRuleSet& ruleSet, CStreamBuffer& buffer)
{
    std::string former = ruleSet.FileName();
    std::string target = RuleFiles::RuleSetFileName(ruleSet.Index());
    if (m_UnkeptSets.count(ruleSet.Index()) != 0)
    {
        if (!KeepUnread(former))
            return KXRULE_E_FILE_WRITE;      // the file holds rules that were not read
        m_UnkeptSets.erase(ruleSet.Index()); // once: the next copy might be one of half a file
    }
    // The file that is written over now is somebody else's: the set came from a file of another name, or it is new and
    // the master file listed that name for another one.
    const auto isTarget = [&target](const std::string& name) { return IsSameFile(name, target); };
    const bool isForeign = former.empty() ? std::any_of(m_RuleSetFileNames.begin(), m_RuleSetFileNames.end(), isTarget)
                                          : !IsSameFile(former, target);
    if (isForeign && !KeepUnread(target))
        return KXRULE_E_FILE_WRITE;
    ruleSet.SetFileName(std::move(target));
    KX_TRACE(kTraceCall, "\tCall CRuleSet::Write");
    const int32_t result = ruleSet.Write(m_RulePath, &buffer);
    KX_TRACE(kTraceCall, "\tReturn CRuleSet::Write (%d)", result);
    if (result != KXRULE_OK)
        ruleSet.SetFileName(std::move(former)); // a master file must not list a file that never came to be
    return result;
}
