// The macro file: every macro with its items, in the order in which they were added. docs/format.md, "Macro file".
#include "persistence/MacroFormat.h"

#include <algorithm>
#include <iterator>

#include "persistence/Aes128.h"

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
    const void* batch[Aes128::kMostChains];
    for (size_t begin = 0; begin < items.size(); begin += std::size(batch))
    {
        const size_t count = std::min(std::size(batch), items.size() - begin);
        for (size_t i = 0; i < count; ++i)
            batch[i] = &items[begin + i];
        if (!stream.WriteRecords(batch, count, sizeof(MACRO_ITEM)))
            return false;
    }
    return true;
}

} // namespace

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
