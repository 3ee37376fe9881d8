// The two machine-wide settings of the rule library; docs/settings.md explains them.
#pragma once

#include <cstdint>
#include <string>

namespace KxCommon::Settings
{

/// Milliseconds between two timed writes: the registry value if it is a REG_DWORD of 4 bytes, otherwise 1800000 (30
/// minutes); at least 60000.
[[nodiscard]] uint32_t WriteInterval() noexcept;

/// The product's folder according to the registry (REG_SZ); empty if the value is missing or has another type. Throws
/// only bad_alloc.
[[nodiscard]] std::wstring InstallPath();

} // namespace KxCommon::Settings
