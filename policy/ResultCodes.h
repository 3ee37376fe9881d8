// The library's result codes in words.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace KxPolicy
{

/// Such as "-10055 KXRULE_E_FILE_OPEN: a file could not be opened".
[[nodiscard]] std::string ResultText(int32_t code);

/// Such as "KXRULE_E_FILE_OPEN"; empty for a code that does not belong to the library.
[[nodiscard]] std::string_view ResultName(int32_t code) noexcept;

} // namespace KxPolicy
