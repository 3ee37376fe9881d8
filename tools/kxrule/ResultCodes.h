// The library's result codes in words.
#pragma once

#include <cstdint>
#include <string>

namespace Tool
{

/// Such as "-10055 KXRULE_E_FILE_OPEN: a file could not be opened".
[[nodiscard]] std::string ResultText(int32_t code);

} // namespace Tool
