// The master file's fields after its magic number and version.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "persistence/EncryptStream.h"
#include "persistence/FileHead.h"

struct MasterFields
{
    std::string MacroFileName;
    uint16_t NextIndex = 1;
    std::vector<uint16_t> ActiveRuleSets;
    std::vector<std::string> RuleSetFileNames;
};

namespace MasterFormat
{

/// Reads a whole file, from its head on. What precedes a defect is in fields.
[[nodiscard]] FileDefect Read(CEncryptStream& stream, MasterFields& fields);
/// The same from after the head on. Each field is stored as soon as it is read (ActiveRuleSets and RuleSetFileNames are
/// appended to). The count of names reserves nothing.
[[nodiscard]] FileDefect ReadBody(CEncryptStream& stream, MasterFields& fields);
/// Writes everything after the magic number, version first.
void WriteFields(CEncryptStream& stream, const MasterFields& fields);

} // namespace MasterFormat
