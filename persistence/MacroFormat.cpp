// The macro file: every macro with its items, in the order in which they were added. docs/format.md, "Macro file".
#include "persistence/MacroFormat.h"

#include <utility>

namespace MacroFormat
{

FileDefect Read(CEncryptStream& stream, std::vector<MacroFields>& macros)
{
    const FileDefect defect = ReadHead(stream, FileKind::Macros).Defect;
    return defect == FileDefect::None ? ReadBody(stream, macros) : defect;
}

FileDefect ReadBody(CEncryptStream& stream, std::vector<MacroFields>& macros)
{
    try
    {
        for (uint32_t count = ReadCount(stream); count > 0; --count)
        {
            MacroFields macro;
            if (!ReadMacro(stream, macro))
                return FileDefect::DamagedItem;
            macros.push_back(std::move(macro));
        }
        return FileDefect::None;
    }
    catch (CEncryptStream::Exception)
    {
        return FileDefect::Damaged;
    }
}

uint32_t ReadCount(CEncryptStream& stream)
{
    uint32_t count = 0;
    stream.ReadU32(count);
    return count;
}

bool ReadMacro(CEncryptStream& stream, MacroFields& macro)
{
    uint32_t itemCount = 0;
    stream.ReadString(macro.Name).ReadU32(itemCount);
    for (uint32_t i = 0; i < itemCount; ++i)
    {
        MACRO_ITEM item;
        if (!stream.Read(&item, sizeof item, true))
            return false;
        macro.Items.push_back(item);
    }
    return true;
}

void WriteHead(CEncryptStream& stream, uint32_t count)
{
    stream.WriteVersion().WriteU32(count);
}

bool WriteMacro(CEncryptStream& stream, const std::string& name, const std::vector<MACRO_ITEM>& items)
{
    stream.WriteString(name).WriteU32(static_cast<uint32_t>(items.size()));
    std::vector<const void*> records;
    records.reserve(items.size());
    for (const MACRO_ITEM& item : items)
        records.push_back(&item);
    return stream.WriteRecords(records.data(), records.size(), sizeof(MACRO_ITEM));
}

} // namespace MacroFormat
