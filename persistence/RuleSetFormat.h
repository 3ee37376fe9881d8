// The rule set file's fields behind its magic, both versions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "api/KxPfwRule.h"
#include "common/srclib/KxComn_String.h"
#include "persistence/EncryptStream.h"

namespace RuleSetFormat
{

/// Index and name are stored as soon as they are read.
struct Header
{
    uint16_t Index = 0;
    KxCommon::WideString Name;
    uint32_t RuleCount = 0;
};

/// The version record; throws CEncryptStream::Exception.
[[nodiscard]] uint32_t ReadVersion(CEncryptStream& stream);
/// Index, name and count behind a version that is one of the two known; throws as above.
void ReadHeader(CEncryptStream& stream, uint32_t version, Header& header);
/// Hands RuleCount (as a signed number) records to take, one at a time. False when one cannot be read.
[[nodiscard]] bool ReadRules(CEncryptStream& stream, const Header& header,
                             const std::function<void(const PFW_RULE&)>& take);

/// Version, index, name and count; throws as above.
void WriteHeader(CEncryptStream& stream, const Header& header);
/// The records, in order. False when one cannot be written.
[[nodiscard]] bool WriteRules(CEncryptStream& stream, const PFW_RULE* const rules[], size_t count);

} // namespace RuleSetFormat
