// Paths, and the owning byte buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

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

/// An owning block of bytes, zero when new.
class ByteArray
{
public:
    ByteArray() noexcept = default;
    explicit ByteArray(size_t length) : m_Bytes(std::make_unique<uint8_t[]>(length)), m_Length(length) {}
    ByteArray(ByteArray&& other) noexcept
        : m_Bytes(std::move(other.m_Bytes)), m_Length(std::exchange(other.m_Length, 0))
    {
    }
    ByteArray& operator=(ByteArray&& other) noexcept
    {
        m_Bytes = std::move(other.m_Bytes);
        m_Length = std::exchange(other.m_Length, 0);
        return *this;
    }

    [[nodiscard]] uint8_t* Data() noexcept { return m_Bytes.get(); }
    [[nodiscard]] const uint8_t* Data() const noexcept { return m_Bytes.get(); }
    [[nodiscard]] size_t Length() const noexcept { return m_Length; }

private:
    std::unique_ptr<uint8_t[]> m_Bytes;
    size_t m_Length = 0;
};

} // namespace KxCommon
