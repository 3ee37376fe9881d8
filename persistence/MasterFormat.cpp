// The master file: the macro file's name, the next rule set index, the active list and the names of all rule set files.
// docs/format.md, "Master file".
#include "persistence/MasterFormat.h"

namespace MasterFormat
{

FileDefect Read(CEncryptStream& stream, MasterFields& fields)
{
    const FileDefect defect = ReadHead(stream, FileKind::Master).Defect;
    return defect == FileDefect::None ? ReadBody(stream, fields) : defect;
}

FileDefect ReadBody(CEncryptStream& stream, MasterFields& fields)
try
{
    uint32_t names = 0;
    stream.ReadString(fields.MacroFileName).ReadU16(fields.NextIndex).ReadArray(fields.ActiveRuleSets).ReadU32(names);
    for (uint32_t i = 0; i < names; ++i)
    {
        std::string name;
        stream.ReadString(name);
        fields.RuleSetFileNames.push_back(std::move(name));
    }
    return FileDefect::None;
}
catch (CEncryptStream::Exception)
{
    return FileDefect::Damaged;
}

void WriteFields(CEncryptStream& stream, const MasterFields& fields)
{
    stream.WriteVersion()
        .WriteString(fields.MacroFileName)
        .WriteU16(fields.NextIndex)
        .WriteArray(fields.ActiveRuleSets)
        .WriteU32(static_cast<uint32_t>(fields.RuleSetFileNames.size()));
    for (const std::string& name : fields.RuleSetFileNames)
        stream.WriteString(name);
}

} // namespace MasterFormat
