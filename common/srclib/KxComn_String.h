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
/// @return the length without the terminator; kDoesNotFit, also if only the terminator does not fit; kCannotFormat if
///         the C library refuses. The buffer's content is valid only in the first case.
int FormatInto(char* out, size_t size, const char* format, va_list arguments) noexcept KX_PRINTF(3, 0);
int FormatInto(KXWCHAR* out, size_t size, const KXWCHAR* format, va_list arguments) noexcept;

/// Formats a text of any length as the system's C library does: in the narrow form %s is narrow and %S is UTF-16, in
/// the wide form it is the other way round. Returns true; throws String::Exception if memory or the formatting fails,
/// and then leaves out unchanged.
bool Format(std::string& out, const char* format, ...) KX_PRINTF(2, 3);
bool Format(WideString& out, const KXWCHAR* format, ...);

/// Active code page to UTF-16. Invalid bytes are converted as the system does it; empty if it refuses.
[[nodiscard]] WideString ToWide(std::string_view text);

/// UTF-16 to the active code page; empty if the system refuses. Units without a counterpart become the system's default
/// character, or a similar one.
[[nodiscard]] std::string ToNarrow(WideStringView text);

/// Compares as the file system compares names: unit by unit, ignoring case. Negative if a comes before b, 0 if equal,
/// otherwise positive.
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
