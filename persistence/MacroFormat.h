// The macro file's fields after its magic number.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/include/KxPfwRule.h"
#include "persistence/EncryptStream.h"
#include "persistence/FileHead.h"

struct MacroFields
{
    std::string Name;
    std::vector<MACRO_ITEM> Items;
};

namespace MacroFormat
{

/// Reads a whole file, from its head on. Macros that precede a defect are appended.
[[nodiscard]] FileDefect Read(CEncryptStream& stream, std::vector<MacroFields>& macros);
/// The same from after the head on.
[[nodiscard]] FileDefect ReadBody(CEncryptStream& stream, std::vector<MacroFields>& macros);
/// The number of macros, which follows the version; throws CEncryptStream::Exception. It reserves nothing.
[[nodiscard]] uint32_t ReadCount(CEncryptStream& stream);
/// One macro. False when an item could not be read; throws as above for the other fields.
[[nodiscard]] bool ReadMacro(CEncryptStream& stream, MacroFields& macro);

/// Version and count; throws as above.
void WriteHead(CEncryptStream& stream, uint32_t count);
/// One macro. False when an item could not be written; throws as above for the other fields.
[[nodiscard]] bool WriteMacro(CEncryptStream& stream, const std::string& name, const std::vector<MACRO_ITEM>& items);

} // namespace MacroFormat
