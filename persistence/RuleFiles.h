// The files of a rule directory: finding them, and the one way in which all of them are written.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "persistence/EncryptStream.h"

namespace RuleFiles
{

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
    CStreamBuffer* Lent = nullptr; // what the bytes are gathered in, if somebody has one
};

/// Writes a temporary file in the directory, flushes it, and puts it over the real one. On any failure the real file
/// keeps its content under its name (unless the move was refused and the copy in its place broke off), and the temporary
/// file stays, whole in that case. Every failure is traced.
/// @return 0, KXRULE_E_FILE_OPEN (temporary file), KXRULE_E_FILE_WRITE
[[nodiscard]] int32_t Write(const WriteJob& job);

} // namespace RuleFiles
