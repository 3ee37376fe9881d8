// Paths, and the end of the process.
#pragma once

#include <string>
#include <string_view>

#include "common/srclib/KxComn_Windows.h"

namespace KxCommon
{

/// The folder of a module's file, ending in a backslash, in short (8.3) form as far as the volume has short names.
/// Empty, with one trace line, if the system refuses, if the path does not fit 260 characters or if the active code
/// page cannot express it; empty without one if it cannot be split or memory runs out. Throws nothing.
[[nodiscard]] std::string GetApplicationPath(HMODULE module) noexcept;

/// True while the process is ending: the system has ended all other threads, wherever they were and whatever locks they
/// held, and other libraries may have been unloaded.
[[nodiscard]] bool IsProcessEnding() noexcept;

/// Appends a backslash unless the path is empty or ends in one. In the narrow form, a backslash that is the second half
/// of a double-byte character does not count.
void AppendSeparator(std::string& path);
void AppendSeparator(std::wstring& path);

/// True for a path that does not depend on the current folder: "C:\..." or "\\server\...".
[[nodiscard]] bool IsAbsolutePath(std::string_view path) noexcept;
[[nodiscard]] bool IsAbsolutePath(std::wstring_view path) noexcept;

} // namespace KxCommon
