// A rule set's file: which step failed, in trace lines and codes. The layout is persistence/RuleSetFormat.h's and
// docs/format.md's.
#include <cstring>
#include <functional>

#include "common/srclib/KxComn_Trace.h"
#include "persistence/EncryptFile.h"
#include "persistence/FileFormat.h"
#include "persistence/RuleFiles.h"
#include "persistence/RuleSetFormat.h"
#include "repository/RuleSet.h"

using KxCommon::kTraceCall;
using KxCommon::kTraceError;

namespace
{

[[nodiscard]] int32_t Fail(const char* what, int32_t code) noexcept
{
    KX_TRACE(kTraceError, "\t%s", what);
    return code;
}

} // namespace

int32_t CRuleSet::Read(const std::string& directory, uint32_t* version, CStreamBuffer* lent)
{
    KX_TRACE(kTraceCall, "CRuleSet::Read Enter (%s)", directory.c_str());
    const int32_t result = Decode(directory, version, lent);
    // Only now that the file is closed: this may read whole programs, and nobody else can open the file meanwhile.
    for (size_t i = 0; i < m_Rules.Size(); ++i)
        m_Rules.ValueAt(i).TakeOver();
    if (result == KXRULE_OK)
        KX_TRACE(kTraceCall, "CRuleSet::Read Return");
    return result;
}

int32_t CRuleSet::Decode(const std::string& directory, uint32_t* version, CStreamBuffer* lent)
{
    CEncryptFile file(lent);
    if (!file.Open((directory + m_FileName).c_str(), GENERIC_READ))
        return Fail("File open error", KXRULE_E_FILE_OPEN);
    char magic[FileFormat::kMagicBytes] = {}; // a shorter file is a file with another magic
    if (!file.Read(magic, sizeof magic, false))
        return Fail("File read error", KXRULE_E_FILE_READ);
    if (std::memcmp(magic, FileFormat::kRuleSetMagic, sizeof magic) != 0)
        return Fail("File magic does not match", KXRULE_E_RULESET_FORMAT);
    try
    {
        const uint32_t fileVersion = RuleSetFormat::ReadVersion(file);
        if (version != nullptr)
            *version = fileVersion;
        if (fileVersion != FileFormat::kVersion && fileVersion != FileFormat::kOldVersion)
            return Fail("File version does not match", KXRULE_E_RULESET_FORMAT);

        RuleSetFormat::Header header;
        RuleSetFormat::ReadHeader(file, fileVersion, header);
        m_Index = header.Index;
        m_Name = std::move(header.Name);
        if (m_Index == 0) // means "none" and "all" everywhere else: such a set could never be deleted alone
            return Fail("File index is 0", KXRULE_E_FILE_READ);
        // kept: the old version's rules have another layout; such a set is read without them.
        if (fileVersion == FileFormat::kVersion && !ReadRules(file, RuleSetFormat::RuleCount(header)))
            return Fail("File read error [Body]", KXRULE_E_FILE_READ);
    }
    catch (CEncryptFile::Exception)
    {
        return Fail("CEncryptFile exception occurs", KXRULE_E_FILE_READ);
    }
    return KXRULE_OK;
}

// Each record is decrypted where the rule will stay: in new memory, the first touch is most of what reading costs.
bool CRuleSet::ReadRules(CEncryptStream& stream, int32_t count)
{
    const auto read = [&stream](PFW_RULE& record)
    {
        if (!RuleSetFormat::ReadRule(stream, record))
            throw CEncryptStream::ReadError;
    };
    try
    {
        for (; count > 0; --count)
            m_Rules.ReplaceKeyed(KeyOf, read);
    }
    catch (CEncryptStream::Exception)
    {
        return false;
    }
    return true;
}

int32_t CRuleSet::Write(const std::string& directory, CStreamBuffer* lent) const
{
    KX_TRACE(kTraceCall, "CRuleSet::Write Enter (%s)", directory.c_str());
    const std::function<int32_t(CEncryptStream&)> encode = [this](CEncryptStream& stream) -> int32_t
    {
        RuleSetFormat::WriteHeader(stream, {m_Index, m_Name, static_cast<uint32_t>(m_Rules.Size())});
        std::vector<const PFW_RULE*> records(m_Rules.Size());
        for (size_t i = 0; i < records.size(); ++i)
            records[i] = &m_Rules.ValueAt(i).Record();
        if (!RuleSetFormat::WriteRules(stream, records.data(), records.size()) || !stream.Finish())
            return Fail("File write error [File-Body]", KXRULE_E_FILE_WRITE);
        return KXRULE_OK;
    };
    const int32_t result = RuleFiles::Write(
        {directory, FileFormat::kRuleSetTemporary, m_FileName, FileFormat::kRuleSetMagic, false, encode, lent});
    if (result == KXRULE_OK)
        KX_TRACE(kTraceCall, "CRuleSet::Write return");
    return result;
}
