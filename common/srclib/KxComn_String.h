// Text: conversion between the active code page and UTF-16, formatting, bounded copies. The conversions and the
// formatting are the system's; natively tests/support supplies ASCII ones.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/srclib/KxComn_Exception.h"
#include "common/srclib/KxComn_Port.h"

namespace KxCommon
{

using WideString = std::basic_string<KXWCHAR>;
using WideStringView = std::basic_string_view<KXWCHAR>;

namespace String
{

class Exception final : public KxCommon::Exception::Base
{
public:
    explicit Exception(uint32_t code) noexcept
        : KxCommon::Exception::Base(code, "..\\..\\..\\Common\\srclib\\KxComn_String.cpp")
    {
    }
};

inline constexpr int kDoesNotFit = -1;
inline constexpr int kCannotFormat = -2;

/// One attempt at formatting into a buffer of size characters.
/// @return the length, the terminator not counted; kDoesNotFit, also when there is no room for the terminator alone;
///         kCannotFormat when the C library refuses. The buffer's content counts in the first case only.
int FormatInto(char* out, size_t size, const char* format, va_list arguments) noexcept KX_PRINTF(3, 0);
int FormatInto(KXWCHAR* out, size_t size, const KXWCHAR* format, va_list arguments) noexcept;

/// Formats a text of any length as the system's C library does: in the narrow form %s is narrow and %S is UTF-16, in
/// the wide form it is the other way round. True; throws String::Exception when memory or the formatting fails, and
/// out is as it was then.
bool Format(std::string& out, const char* format, ...) KX_PRINTF(2, 3);
bool Format(WideString& out, const KXWCHAR* format, ...);

/// Active code page to UTF-16. Bytes without a meaning are converted as the system does it; empty when it refuses.
[[nodiscard]] WideString ToWide(std::string_view text);

/// UTF-16 to the active code page; empty when the system refuses. Units without a counterpart become the system's
/// default character, or one that looks like them.
[[nodiscard]] std::string ToNarrow(WideStringView text);

/// As the file system compares names: unit by unit, ignoring case. Below 0, 0 or above it, as a comes before b.
[[nodiscard]] int CompareNoCase(WideStringView a, WideStringView b) noexcept;
[[nodiscard]] inline bool EqualNoCase(WideStringView a, WideStringView b) noexcept
{
    return a.size() == b.size() && CompareNoCase(a, b) == 0; // folding never changes a length
}

/// Copies text as strncpy does: at most size bytes, the rest of the buffer filled with NUL, no terminator when the
/// text has size bytes or more. On a double-byte code page a character cut in half becomes NUL. Nothing is written
/// when out is null or size is below 1.
void CopyBounded(char* out, int size, std::string_view text) noexcept;

} // namespace String
} // namespace KxCommon
