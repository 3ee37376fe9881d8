// Access to packed records: fields may have any address, and texts may lack their terminator.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "common/srclib/KxComn_String.h"

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

/// The units before the first 0 in a field of units two-byte units at any address; units when there is none.
[[nodiscard]] inline size_t WideLength(const void* field, size_t units) noexcept
{
    const unsigned char* const bytes = static_cast<const unsigned char*>(field);
    size_t length = 0;
    while (length < units && Load<KXWCHAR>(bytes + length * sizeof(KXWCHAR)) != 0)
        ++length;
    return length;
}

/// The UTF-16 text in a field of units two-byte units at any address, copied out: up to its NUL, or the whole field.
[[nodiscard]] inline WideString WideText(const void* field, size_t units)
{
    WideString text(WideLength(field, units), 0);
    std::memcpy(text.data(), field, text.size() * sizeof(KXWCHAR));
    return text;
}

/// The same without an allocation: aligned, terminated, as large as the field.
template <size_t units>
class WideField
{
public:
    explicit WideField(const void* field) noexcept : m_Length(WideLength(field, units))
    {
        std::memcpy(m_Units, field, m_Length * sizeof(KXWCHAR));
        m_Units[m_Length] = 0;
    }
    [[nodiscard]] const KXWCHAR* c_str() const noexcept { return m_Units; }
    [[nodiscard]] WideStringView View() const noexcept { return {m_Units, m_Length}; }

private:
    size_t m_Length;
    KXWCHAR m_Units[units + 1];
};

} // namespace KxCommon::Record
