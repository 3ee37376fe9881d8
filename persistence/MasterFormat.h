// The master file's fields after its magic and version.
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

/// A whole file, from its head on. What was read before a defect is in fields.
[[nodiscard]] FileDefect Read(CEncryptStream& stream, MasterFields& fields);
/// The fields after the head, in order. Throws CEncryptStream::Exception. Each is stored as soon as it is read (ActiveRuleSets and RuleSetFileNames are appended to), so
/// what was read before an exception is there. The count of names reserves nothing.
void ReadFields(CEncryptStream& stream, MasterFields& fields);
/// Everything after the magic, version first.
void WriteFields(CEncryptStream& stream, const MasterFields& fields);

} // namespace MasterFormat
