// UTF-8, in which the tool reads and writes, against UTF-16 and the narrow text of the records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/srclib/KxComn_String.h"

namespace KxPolicy
{

/// The bytes of the valid character at the front of text (1 to 4), or 0 when there is none: cut short, overlong, a
/// surrogate, or beyond U+10FFFF.
[[nodiscard]] size_t Utf8CharacterBytes(std::string_view text) noexcept;
void AppendUtf8(std::string& out, uint32_t codePoint);

/// A surrogate without its other half becomes U+FFFD.
[[nodiscard]] std::string ToUtf8(KxCommon::WideStringView text);
/// Text that is UTF-8; whatever is not becomes U+FFFD.
[[nodiscard]] KxCommon::WideString FromUtf8(std::string_view text);

/// Narrow text of a record for people to read.
[[nodiscard]] std::string NarrowToUtf8(std::string_view narrow);
/// The same, but always text that Utf8ToNarrow takes: bytes without a meaning become another character or are left out.
[[nodiscard]] std::string NarrowToReturnableUtf8(std::string_view narrow);
/// Nothing when a character has no counterpart in the active code page.
[[nodiscard]] std::optional<std::string> Utf8ToNarrow(std::string_view text);

} // namespace KxPolicy
