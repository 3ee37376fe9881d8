// The macro file: every macro with its items, in the order in which they were added. docs/format.md, "Macro file".
#include "persistence/MacroFormat.h"

#include <utility>
#include <vector>

namespace MacroFormat
{

namespace
{

bool ReadItems(CEncryptStream& stream, uint32_t count, std::vector<MACRO_ITEM>& items)
{
    for (uint32_t i = 0; i < count; ++i)
    {
        MACRO_ITEM item;
        if (!stream.Read(&item, sizeof item, true))
            return false;
        items.push_back(item);
    }
    return true;
}

bool WriteItems(CEncryptStream& stream, const std::vector<MACRO_ITEM>& items)
{
    std::vector<const void*> records;
    records.reserve(items.size());
    for (const MACRO_ITEM& item : items)
        records.push_back(&item);
    return stream.WriteRecords(records.data(), records.size(), sizeof(MACRO_ITEM));
}

} // namespace

FileDefect Read(CEncryptStream& stream, std::list<CMacro>& macros)
{
    const FileDefect defect = ReadHead(stream, FileKind::Macros).Defect;
    try
    {
        return defect == FileDefect::None && !ReadMacros(stream, macros) ? FileDefect::DamagedItem : defect;
    }
    catch (CEncryptStream::Exception)
    {
        return FileDefect::Damaged;
    }
}

bool ReadMacros(CEncryptStream& stream, std::list<CMacro>& macros)
{
    uint32_t macroCount = 0;
    stream.ReadU32(macroCount);
    for (uint32_t i = 0; i < macroCount; ++i)
    {
        std::string name;
        uint32_t itemCount = 0;
        std::vector<MACRO_ITEM> items;
        stream.ReadString(name).ReadU32(itemCount);
        if (!ReadItems(stream, itemCount, items))
            return false;
        macros.emplace_back(std::move(name), std::move(items));
    }
    return true;
}

bool WriteMacros(CEncryptStream& stream, const std::list<CMacro>& macros)
{
    stream.WriteVersion().WriteU32(static_cast<uint32_t>(macros.size()));
    for (const CMacro& macro : macros)
    {
        stream.WriteString(macro.Name()).WriteU32(static_cast<uint32_t>(macro.Items().size()));
        if (!WriteItems(stream, macro.Items()))
            return false;
    }
    return true;
}

} // namespace MacroFormat
