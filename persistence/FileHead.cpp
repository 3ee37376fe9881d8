// The head of a rule file; docs/format.md.
#include "persistence/FileHead.h"

#include <cstring>

#include "persistence/FileFormat.h"

namespace
{

bool IsKnownVersion(FileKind kind, uint32_t version) noexcept
{
    return version == FileFormat::kVersion || (kind == FileKind::RuleSet && version == FileFormat::kOldVersion);
}

} // namespace

const char* MagicOf(FileKind kind) noexcept
{
    return kind == FileKind::Master   ? FileFormat::kMasterMagic
           : kind == FileKind::Macros ? FileFormat::kMacroMagic
                                      : FileFormat::kRuleSetMagic;
}

FileHead ReadHead(CEncryptStream& stream)
{
    FileHead head;
    char magic[FileFormat::kMagicBytes] = {}; // a shorter file reads as success, with zeros
    if (!stream.Read(magic, sizeof magic, false))
    {
        head.Defect = FileDefect::Unreadable;
        return head;
    }
    for (const FileKind kind : {FileKind::Master, FileKind::Macros, FileKind::RuleSet})
    {
        if (std::memcmp(magic, MagicOf(kind), sizeof magic) == 0)
        {
            head.IsKnown = true;
            head.Kind = kind;
        }
    }
    if (!head.IsKnown)
    {
        head.Defect = FileDefect::WrongMagic;
        return head;
    }
    try
    {
        stream.ReadU32(head.Version);
        head.Defect = IsKnownVersion(head.Kind, head.Version) ? FileDefect::None : FileDefect::WrongVersion;
    }
    catch (CEncryptStream::Exception)
    {
        head.Defect = FileDefect::Damaged;
    }
    return head;
}

FileHead ReadHead(CEncryptStream& stream, FileKind expected)
{
    FileHead head = ReadHead(stream);
    if (head.IsKnown && head.Kind != expected)
        head.Defect = FileDefect::WrongMagic;
    return head;
}
