// The two machine-wide settings of the rule library; docs/settings.md explains them.
#pragma once

#include <cstdint>
#include <string>

namespace KxCommon::Settings
{

/// Milliseconds between two timed writes as the registry has them: a REG_DWORD of 4 bytes, otherwise 1800000
/// (30 minutes); at least 60000.
[[nodiscard]] uint32_t WriteInterval() noexcept;

/// The product's folder as the registry has it (REG_SZ); empty when it is missing or of another type. Throws bad_alloc
/// alone.
[[nodiscard]] std::wstring InstallPath();

} // namespace KxCommon::Settings
