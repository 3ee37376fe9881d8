// Text: conversion between the active code page and UTF-16, formatting, bounded copies. The conversions and the
// formatting are the system's; natively tests/support supplies ASCII ones.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

#include "common/srclib/KxComn_Port.h"
#include "api/KxPfwRule.h"

namespace KxCommon
{

using WideString = std::basic_string<KXWCHAR>;
using WideStringView = std::basic_string_view<KXWCHAR>;

namespace String
{

/// Active code page to UTF-16. Bytes without a meaning are converted as the system does it; empty when it refuses.
[[nodiscard]] WideString ToWide(std::string_view text);

/// UTF-16 to the active code page. Units without a counterpart become the system's default character.
[[nodiscard]] std::string ToNarrow(WideStringView text);

/// Equal as the file system compares names: unit by unit, ignoring case.
[[nodiscard]] bool EqualNoCase(WideStringView a, WideStringView b) noexcept;

/// Copies text as strncpy does: at most size bytes, the rest of the buffer filled with NUL, no terminator when the
/// text has size bytes or more. On a double-byte code page a character cut in half becomes NUL. Nothing is written
/// when out is null or size is below 1.
void CopyBounded(char* out, int size, std::string_view text) noexcept;

} // namespace String
} // namespace KxCommon
