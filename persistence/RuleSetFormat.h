// The rule set file's fields after its magic number, both versions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "api/include/KxPfwRule.h"
#include "common/srclib/KxComn_String.h"
#include "persistence/EncryptStream.h"
#include "persistence/FileHead.h"

namespace RuleSetFormat
{

/// Index and name are stored as soon as they are read.
struct Header
{
    uint16_t Index = 0;
    KxCommon::WideString Name;
    uint32_t RuleCount = 0;
};

/// Index, name and count, which follow one of the two known versions; throws CEncryptStream::Exception.
void ReadHeader(CEncryptStream& stream, uint32_t version, Header& header);
/// The number of records after the header. kept: a count with the top bit set is negative and means none.
[[nodiscard]] int32_t RuleCount(const Header& header) noexcept;
/// One record, decrypted in place. False if it cannot be read; rule is then unspecified.
[[nodiscard]] bool ReadRule(CEncryptStream& stream, PFW_RULE& rule);
/// Reads everything after the head; take is called with every rule, also with those that precede a defect. (The rules
/// of an old version are not read, hence not checked.)
[[nodiscard]] FileDefect ReadBody(CEncryptStream& stream, uint32_t version, Header& header,
                                  const std::function<void(const PFW_RULE&)>& take);

/// Version, index, name and count; throws as above.
void WriteHeader(CEncryptStream& stream, const Header& header);
/// The records, in order. False when one cannot be written.
[[nodiscard]] bool WriteRules(CEncryptStream& stream, const PFW_RULE* const rules[], size_t count);

} // namespace RuleSetFormat
