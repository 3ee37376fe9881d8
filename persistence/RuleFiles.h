// The files of a rule directory: their names, and the one way in which all of them are written.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "persistence/EncryptStream.h"

namespace RuleFiles
{

/// "KxRl" + four upper-case hexadecimal digits + ".dat".
[[nodiscard]] std::string RuleSetFileName(uint16_t index);
/// True for a name that can only mean a file in the rule directory itself: no separator, colon, wildcard, quote,
/// angle bracket, bar or control byte, no leading or trailing dot or blank, no device name, not empty, at most 200
/// bytes. Names out of a master file pass here before anything is opened.
[[nodiscard]] bool IsBareName(std::string_view name) noexcept;
/// True for the names that the wildcard pattern of rule set files means: prefix, up to four characters, extension, in
/// any letter case. The system's own matching also finds longer names through their short ones.
[[nodiscard]] bool IsRuleSetFileName(std::string_view name) noexcept;
/// The rule set files of a directory (with backslash), in the system's order. *isComplete, which may be null, tells
/// whether the search came to its end.
[[nodiscard]] std::vector<std::string> FindRuleSetFiles(const std::string& directory, bool* isComplete = nullptr);

/// How one of the three writers differs from the others.
struct WriteJob
{
    const std::string& Directory; // with backslash
    const char* TemporaryPrefix;  // three characters
    const std::string& FileName;  // in the directory
    const char* Magic;            // four bytes, written plainly
    bool TraceTemporaryName;      // whether "\tFile open error" names the temporary file
    /// Writes everything behind the magic. 0, or a result code that has been traced; may throw
    /// CEncryptStream::Exception and std::bad_alloc.
    const std::function<int32_t(CEncryptStream&)>& Encode;
};

/// Writes a temporary file in the directory, flushes it, and puts it over the real one. On any failure the real file
/// keeps its content under its name, and the temporary file stays. Every failure is traced.
/// @return 0, KXRULE_E_FILE_OPEN (temporary file), KXRULE_E_FILE_WRITE
[[nodiscard]] int32_t Write(const WriteJob& job);

} // namespace RuleFiles
