// The rule directory: how its files are found and opened, and the one way in which all of them are written.
// docs/format.md, "How a file is written", explains why through a temporary file and why moved.
#include "persistence/RuleDirectory.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>

#include "common/srclib/KxComn_Windows.h"

#include "api/include/KxPfwRule.h"
#include "common/srclib/KxComn_Trace.h"
#include "common/srclib/Utility.h"
#include "persistence/EncryptFile.h"
#include "persistence/Files.h"
#include "persistence/RuleFileNames.h"

namespace
{

// A target with one of these is never replaced by a move. A copy is refused for read-only, hidden and system files and
// for directories, and follows a link; a move would behave differently, or replace the link.
constexpr DWORD kOddAttributes =
    FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_DIRECTORY;

// The system's longest path, minus what a dated copy of the master file needs.
constexpr size_t kLongestPath = 223;

const char* TemporaryPrefix(FileKind kind) noexcept
{
    return kind == FileKind::Master   ? FileFormat::kMasterTemporary
           : kind == FileKind::Macros ? FileFormat::kMacroTemporary
                                      : FileFormat::kRuleSetTemporary;
}

bool IsOddTarget(const char* path) noexcept
{
    const DWORD attributes = Files::Attributes(path);
    return attributes != INVALID_FILE_ATTRIBUTES &&
           ((attributes & kOddAttributes) != 0 ||
            ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 && Files::IsLink(path)));
}

FileDefect DefectOf(bool isOpen, uint32_t* error)
{
    if (isOpen)
        return FileDefect::None;
    const DWORD code = ::GetLastError();
    if (error != nullptr)
        *error = code;
    return Files::IsBusy(code) ? FileDefect::Busy : FileDefect::Missing;
}

// A stream that compares what would be written to a file with what the file holds.
class CComparison final : public CEncryptStream
{
public:
    explicit CComparison(HANDLE file) : m_File(file) {}
    /// True if everything up to now is equal; the file may be longer.
    [[nodiscard]] bool IsSame() const noexcept { return m_IsSame; }
    [[nodiscard]] uint64_t Bytes() const noexcept { return m_Bytes; }

protected:
    bool ReadBytes(void*, uint32_t, uint32_t*) override { return false; }
    bool WriteBytes(const void* in, uint32_t size) override
    {
        uint32_t got = 0;
        m_Held.resize(m_IsSame ? size : 0);
        m_IsSame = m_IsSame && Files::Read(m_File, m_Held.data(), size, &got) && got == size &&
                   std::memcmp(m_Held.data(), in, size) == 0;
        m_Bytes += size;
        return true; // a difference is not a failure
    }
    uint64_t RemainingBytes() override { return 0; }

private:
    HANDLE m_File;
    std::vector<uint8_t> m_Held;
    uint64_t m_Bytes = 0;
    bool m_IsSame = true;
};

} // namespace

void RuleDirectory::Locate(const std::string& given, const std::string& masterFileName)
{
    // An empty path (the library's own directory could not be found) must not become the root of the drive.
    m_Given = given.empty() ? ".\\" : given;
    KxCommon::AppendSeparator(m_Given);
    m_Path = Files::FullPath(m_Given);
    KxCommon::AppendSeparator(m_Path);
    m_MasterFileName = masterFileName;
    m_MacroFileName = FileFormat::kMacroFileName;
    m_Patience = kPatience;
    m_Written[0] = m_Written[1] = {};
    if (m_Path.size() > kLongestPath)
        KX_TRACE(KxCommon::kTraceError, "\tRule path is too long for the names of backups (%s)", m_Given.c_str());
}

void RuleDirectory::MakeIfMissing() const
{
    if (Files::Attributes(m_Path.c_str()) != FILE_ATTRIBUTE_DIRECTORY)
        static_cast<void>(Files::MakeDirectory(m_Path.c_str()));
}

bool RuleDirectory::IsSameFile(const std::string& a, const std::string& b)
{
    return KxCommon::String::EqualNoCase(KxCommon::String::ToWide(a), KxCommon::String::ToWide(b));
}

// The key is not secret: whoever may write the directory can name any file in the master file, and the library writes
// to this one. An empty name would make every write fail.
bool RuleDirectory::TakeMacroFileName(const std::string& name)
{
    if (!RuleFiles::IsBareName(name) || RuleFiles::IsOwnRuleSetFileName(name) || IsSameFile(name, m_MasterFileName))
        return false;
    m_MacroFileName = name;
    return true;
}

bool RuleDirectory::IsUsableRuleSetFileName(const std::string& name) const
{
    return RuleFiles::IsBareName(name) && !IsSameFile(name, m_MasterFileName) && !IsSameFile(name, m_MacroFileName);
}

FileDefect RuleDirectory::Open(CEncryptFile& file, const std::string& fileName) const
{
    return DefectOf(file.Open(PathOf(fileName).c_str(), GENERIC_READ), nullptr);
}

FileDefect RuleDirectory::OpenToLook(CEncryptFile& file, const std::string& fileName, uint32_t* error) const
{
    return DefectOf(file.OpenToLook(PathOf(fileName).c_str()), error);
}

bool RuleDirectory::Find(const std::string& pattern, bool (*isMeant)(std::string_view),
                         std::vector<std::string>& names) const
{
    std::vector<std::string> found;
    const bool isComplete = Files::FindFiles(PathOf(pattern), found);
    std::copy_if(found.begin(), found.end(), std::back_inserter(names), isMeant);
    return isComplete;
}

bool RuleDirectory::FindRuleSetFiles(std::vector<std::string>& names) const
{
    return Find(std::string(FileFormat::kRuleSetPrefix) + "????" + FileFormat::kRuleSetExtension,
                RuleFiles::IsRuleSetFileName, names);
}

bool RuleDirectory::FindTemporaryFiles(std::vector<std::string>& names) const
{
    return Find("*.tmp", RuleFiles::IsTemporaryFileName, names);
}

bool RuleDirectory::FindFiles(std::vector<std::string>& names) const
{
    std::vector<std::string> found = {m_MasterFileName, m_MacroFileName};
    const bool isComplete = FindRuleSetFiles(found);
    std::copy_if(found.begin(), found.end(), std::back_inserter(names),
                 [this](const std::string& name) { return IsFile(name); });
    return isComplete;
}

bool RuleDirectory::MayExist(const std::string& fileName) const
{
    return Files::MayExist(PathOf(fileName).c_str());
}

bool RuleDirectory::Remove(const std::string& fileName) const
{
    return Files::Delete(PathOf(fileName).c_str());
}

// A directory with a rule file's name holds nothing that could be copied.
bool RuleDirectory::IsFile(const std::string& name) const
{
    const DWORD attributes = Files::Attributes(PathOf(name).c_str());
    return attributes == INVALID_FILE_ATTRIBUTES ? Files::IsUnknown(::GetLastError())
                                                 : (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

bool RuleDirectory::CopyTo(const RuleDirectory& target, const std::string& fileName) const
{
    return Files::Copy(PathOf(fileName).c_str(), target.PathOf(fileName).c_str());
}

bool RuleDirectory::Put(const RuleDirectory& source, const std::string& sourceName, const std::string& fileName) const
{
    const std::string path = Files::TemporaryName(m_Path, FileFormat::kRuleSetTemporary);
    if (path.empty())
        return false;
    if (Files::Copy(source.PathOf(sourceName).c_str(), path.c_str()) &&
        Replace(path.substr(path.find_last_of('\\') + 1), fileName) == KXRULE_OK)
        return true;
    const DWORD error = ::GetLastError();
    static_cast<void>(Files::Delete(path.c_str()));
    ::SetLastError(error);
    return false;
}

int32_t RuleDirectory::Write(const WriteJob& job)
{
    try
    {
        // A caller may have given the master file the name of another one.
        if (job.Kind != FileKind::Master && IsSameFile(job.FileName, m_MasterFileName))
        {
            KX_TRACE(KxCommon::kTraceError, "\tThe master file has the name of another file (%s)",
                     job.FileName.c_str());
            return KXRULE_E_FILE_WRITE;
        }
        if (IsWritten(job))
            return KXRULE_OK;
        // Without a name the open fails, which is what is reported.
        const std::string path = Files::TemporaryName(m_Path, TemporaryPrefix(job.Kind));
        const std::string name = path.substr(path.find_last_of('\\') + 1);
        int32_t result = WriteTemporary(job, name);
        if (result != KXRULE_OK)
            return result;
        m_Aside.clear();
        if (const uint32_t error = job.Copy(job.FileName); error != ERROR_SUCCESS)
        {
            KX_TRACE(KxCommon::kTraceError, "\tCopyFile() failed %lu (%s -> %s)", static_cast<DWORD>(error),
                     ShownPathOf(name).c_str(), ShownPathOf(job.FileName).c_str());
            return KXRULE_E_FILE_WRITE;
        }
        result = Replace(name, job.FileName);
        if (result == KXRULE_OK)
            NoteWritten(job);
        if (result != KXRULE_OK && !m_Aside.empty()) // the name stays unused, so the old file gets it back
            static_cast<void>(Files::Move(PathOf(m_Aside).c_str(), PathOf(job.FileName).c_str(), false));
        return result;
    }
    catch (const std::bad_alloc&)
    {
        KX_TRACE(KxCommon::kTraceError, "\tOut of memory while writing a file");
        return KXRULE_E_FILE_WRITE;
    }
}

// Only if the file can be opened without sharing; otherwise it is written as usual, with the usual failures. If
// somebody else put the file there or touched it, its bytes may not be on the disk; and a large one is written faster
// than compared. Rule set files are not asked about: they are marked when they change.
bool RuleDirectory::IsWritten(const WriteJob& job) const
{
    constexpr uint64_t kLargest = 1 << 20;
    if (job.Kind == FileKind::RuleSet)
        return false;
    const FileStamp& written = m_Written[static_cast<size_t>(job.Kind)];
    if (written == FileStamp() || written.Bytes > kLargest)
        return false;
    FileStamp stamp;
    const KxCommon::UniqueFile file = Files::Open(PathOf(job.FileName).c_str(), GENERIC_READ, OPEN_EXISTING);
    if (!file || !Files::Look(file.get(), &stamp) || stamp != written)
        return false;
    CComparison comparison(file.get());
    return comparison.Write(MagicOf(job.Kind), FileFormat::kMagicBytes, false) && job.Encode(comparison) == KXRULE_OK &&
           comparison.IsSame() && comparison.Bytes() == written.Bytes;
}

void RuleDirectory::NoteWritten(const WriteJob& job)
{
    if (job.Kind == FileKind::RuleSet)
        return;
    FileStamp& written = m_Written[static_cast<size_t>(job.Kind)];
    const KxCommon::UniqueFile file = Files::Open(PathOf(job.FileName).c_str(), GENERIC_READ, OPEN_EXISTING);
    if (!file || !Files::Look(file.get(), &written))
        written = {};
}

// Writes and closes the temporary file.
int32_t RuleDirectory::WriteTemporary(const WriteJob& job, const std::string& name) const
{
    CEncryptFile file(job.Lent);
    if (name.empty() || !file.Open(PathOf(name).c_str(), GENERIC_WRITE, m_Patience))
    {
        if (job.Kind == FileKind::RuleSet)
            KX_TRACE(KxCommon::kTraceError, "\tFile open error");
        else
            KX_TRACE(KxCommon::kTraceError, "\tFile open error (%s)", name.empty() ? "" : ShownPathOf(name).c_str());
        return KXRULE_E_FILE_OPEN;
    }
    if (!file.Write(MagicOf(job.Kind), FileFormat::kMagicBytes, false))
    {
        KX_TRACE(KxCommon::kTraceError, "\tFile write error");
        return KXRULE_E_FILE_WRITE;
    }
    try
    {
        const int32_t result = job.Encode(file);
        if (result != KXRULE_OK)
            return result;
    }
    catch (CEncryptStream::Exception)
    {
        KX_TRACE(KxCommon::kTraceError, "\tCEncryptFile exception occurs");
        return KXRULE_E_FILE_WRITE;
    }
    if (!file.FinishAndFlush() || !file.Close())
    {
        KX_TRACE(KxCommon::kTraceError, "\tFile write error");
        return KXRULE_E_FILE_WRITE;
    }
    return KXRULE_OK;
}

// Puts the complete temporary file over the real one. A move replaces it in one step. Where nothing can be moved, a
// copy remains, which writes into the real file, so that a crash in the middle leaves half a file.
int32_t RuleDirectory::Replace(const std::string& temporaryName, const std::string& fileName) const
{
    const std::string temporary = PathOf(temporaryName);
    const std::string target = PathOf(fileName);
    // "Access denied" is the system's error for a target that another program has open.
    const auto mayPass = [](DWORD error) { return Files::IsBusy(error) || error == ERROR_ACCESS_DENIED; };
    if (!IsOddTarget(target.c_str()))
    {
        const auto move = [&] { return Files::Move(temporary.c_str(), target.c_str(), true); };
        const DWORD refused = Files::Persist(m_Patience, move, mayPass) ? ERROR_SUCCESS : ::GetLastError();
        if (refused == ERROR_SUCCESS || (mayPass(refused) && Files::MoveOverOpen(temporary.c_str(), target.c_str())) ||
            (refused == ERROR_ACCESS_DENIED && MoveAround(temporaryName, fileName)))
            return KXRULE_OK;
    }
    if (!Files::Copy(temporary.c_str(), target.c_str()))
    {
        const DWORD error = ::GetLastError();
        KX_TRACE(KxCommon::kTraceError, "\tCopyFile() failed %lu (%s -> %s)", error, ShownPathOf(temporaryName).c_str(),
                 ShownPathOf(fileName).c_str());
        return KXRULE_E_FILE_WRITE;
    }
    if (!Files::Delete(temporary.c_str()))
    {
        const DWORD error = ::GetLastError();
        KX_TRACE(KxCommon::kTraceError, "\tDeleteFile() failed %lu (%s)", error, ShownPathOf(temporaryName).c_str());
    }
    return KXRULE_OK;
}
