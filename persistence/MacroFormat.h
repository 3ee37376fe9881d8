// The macro file's fields behind its magic.
#pragma once

#include <list>

#include "persistence/EncryptStream.h"
#include "persistence/FileHead.h"
#include "rules/Macro.h"

namespace MacroFormat
{

/// A whole file, from its head on. Macros before a defect are there.
[[nodiscard]] FileDefect Read(CEncryptStream& stream, std::list<CMacro>& macros);
/// Reads the macros behind the version, appending each complete one. False when an item could not be read. Throws
/// CEncryptStream::Exception for every other field. No count reserves anything.
[[nodiscard]] bool ReadMacros(CEncryptStream& stream, std::list<CMacro>& macros);
/// Version, count and macros. False when an item could not be written; throws as above.
[[nodiscard]] bool WriteMacros(CEncryptStream& stream, const std::list<CMacro>& macros);

} // namespace MacroFormat
