// Paths.
#pragma once

#include <string>

#include "common/srclib/KxComn_Windows.h"

namespace KxCommon
{

/// The folder of a module's file in short (8.3) form, ending in a backslash; empty, with one line of trace, when the
/// system refuses or the path does not fit 260 characters.
[[nodiscard]] std::string GetApplicationPath(HMODULE module);

/// Appends a backslash unless the path is empty or ends in one.
void AppendSeparator(std::string& path);
void AppendSeparator(std::wstring& path);

} // namespace KxCommon
