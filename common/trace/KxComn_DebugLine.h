// The text of a trace line; KxComn_DebugLog.h decides whether it is written.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>

#include "common/srclib/KxComn_Windows.h"

namespace KxCommon::DebugLine
{

/// The message of a trace call, of up to 4095 characters; a longer one is empty. For a format that is null or that the
/// C library refuses, a text that says so.
[[nodiscard]] std::string Message(const char* format, va_list arguments);
[[nodiscard]] std::wstring Message(const wchar_t* format, va_list arguments);

/// The message of a dump: 16 bytes per row, at most the first 1800 bytes.
[[nodiscard]] std::string DumpMessage(const void* data, uint32_t size);

/// When, who (process, thread, level, component), the message, where. Throws String::Exception if it cannot be
/// assembled.
[[nodiscard]] std::string Line(const SYSTEMTIME& time, uint32_t level, const std::string& traceName,
                               const std::string& message, const char* file, uint32_t lineNumber);
[[nodiscard]] std::wstring Line(const SYSTEMTIME& time, uint32_t level, const std::string& traceName,
                                const std::wstring& message, const char* file, uint32_t lineNumber);
[[nodiscard]] std::wstring Line(const SYSTEMTIME& time, uint32_t level, const std::string& traceName,
                                const std::wstring& message, const wchar_t* file, uint32_t lineNumber);

} // namespace KxCommon::DebugLine
