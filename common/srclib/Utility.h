// Paths, and the end of the process.
#pragma once

#include <string>
#include <string_view>

#include "common/srclib/KxComn_Windows.h"

namespace KxCommon
{

/// The folder of a module's file, ending in a backslash, in short (8.3) form as far as the volume has short names.
/// Empty, with one line of trace, when the system refuses, when the path does not fit 260 characters and when the
/// active code page cannot express it; empty without one when it cannot be split or memory runs out. Throws nothing.
[[nodiscard]] std::string GetApplicationPath(HMODULE module) noexcept;

/// True when the process ends: the system has ended all other threads by then, wherever they were and with whatever
/// locks they held, and other libraries may have gone down.
[[nodiscard]] bool IsProcessEnding() noexcept;

/// Appends a backslash unless the path is empty or ends in one. In the narrow form a backslash that is the second
/// half of a double-byte character does not count.
void AppendSeparator(std::string& path);
void AppendSeparator(std::wstring& path);

/// True for a path that means the same place whatever the current folder is: "C:\..." or "\\server\...".
[[nodiscard]] bool IsAbsolutePath(std::string_view path) noexcept;
[[nodiscard]] bool IsAbsolutePath(std::wstring_view path) noexcept;

} // namespace KxCommon
