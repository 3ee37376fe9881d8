// The base of the support library's exceptions.
#pragma once

#include <cstdint>

namespace KxCommon::Exception
{

/// Thrown as a heap object by pointer; the catcher deletes it: its first line is
/// `const std::unique_ptr<Storage::Exception> owner(e);`.
class Base
{
public:
    Base(uint32_t code, const char* source) noexcept : m_Code(code), m_Source(source) {}
    virtual ~Base() = default;
    Base(const Base&) = delete;
    Base& operator=(const Base&) = delete;

    /// A Windows error code.
    [[nodiscard]] uint32_t Code() const noexcept { return m_Code; }
    /// Always 0.
    [[nodiscard]] uint32_t Detail() const noexcept { return m_Detail; }
    /// The source file that threw: a fixed text, the same in every build.
    [[nodiscard]] const char* Source() const noexcept { return m_Source; }

private:
    uint32_t m_Code;
    uint32_t m_Detail = 0;
    const char* m_Source;
};

} // namespace KxCommon::Exception
