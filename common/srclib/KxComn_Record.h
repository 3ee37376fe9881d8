// Access to packed records: fields lie at any address, and texts may lack their terminator.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "common/srclib/KxComn_String.h"
#include "api/KxPfwRule.h"

namespace KxCommon::Record
{

/// A value of any trivially copyable type from or to any address.
template <class T>
[[nodiscard]] T Load(const void* from) noexcept
{
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

template <class T>
void Store(void* to, const T& value) noexcept
{
    std::memcpy(to, &value, sizeof value);
}

/// The narrow text in a field of size bytes: up to its NUL, or the whole field when there is none.
[[nodiscard]] inline std::string_view Text(const void* field, size_t size) noexcept
{
    const char* const begin = static_cast<const char*>(field);
    const void* const end = std::memchr(begin, 0, size);
    return {begin, end == nullptr ? size : static_cast<size_t>(static_cast<const char*>(end) - begin)};
}

/// The UTF-16 text in a field of units two-byte units at any address, copied out: up to its NUL, or the whole field.
[[nodiscard]] inline WideString WideText(const void* field, size_t units)
{
    const unsigned char* const bytes = static_cast<const unsigned char*>(field);
    WideString text;
    for (size_t i = 0; i < units; ++i)
    {
        const KXWCHAR unit = Load<KXWCHAR>(bytes + i * sizeof(KXWCHAR));
        if (unit == 0)
            break;
        text.push_back(unit);
    }
    return text;
}

} // namespace KxCommon::Record
