// Conversions between UTF-8, in which policies are read and written, and the UTF-16 and narrow text of the records.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "common/srclib/KxComn_String.h"

namespace KxPolicy
{

/// A surrogate without its other half becomes U+FFFD.
[[nodiscard]] std::string ToUtf8(KxCommon::WideStringView text);
/// Text that is UTF-8; whatever is not becomes U+FFFD.
[[nodiscard]] KxCommon::WideString FromUtf8(std::string_view text);

/// Narrow text of a record in readable form.
[[nodiscard]] std::string NarrowToUtf8(std::string_view narrow);
/// The same, but always text that Utf8ToNarrow accepts: invalid bytes become another character or are omitted.
[[nodiscard]] std::string NarrowToReturnableUtf8(std::string_view narrow);
/// Nothing if a character has no counterpart in the active code page.
[[nodiscard]] std::optional<std::string> Utf8ToNarrow(std::string_view text);

} // namespace KxPolicy
