// Text by the system's own conversions and its C library's formatting.
#include "common/srclib/KxComn_String.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <new>
#include <vector>

#include "common/srclib/KxComn_Windows.h"

namespace KxCommon::String
{

namespace
{

constexpr size_t kFormatStep = 256;

// The system's C library, not the compiler's own replacement: only the former supports UTF-16 text in narrow formats,
// and only these two calls distinguish a text that does not fit (the first is negative) from one that cannot be
// formatted (both are).
int Print(char* out, size_t size, const char* format, va_list arguments)
{
    return ::_vsnprintf_s(out, size, _TRUNCATE, format, arguments);
}
int Print(wchar_t* out, size_t size, const wchar_t* format, va_list arguments)
{
    return ::_vsnwprintf_s(out, size, _TRUNCATE, format, arguments);
}
int Count(const char* format, va_list arguments)
{
    return ::_vscprintf(format, arguments);
}
int Count(const wchar_t* format, va_list arguments)
{
    return ::_vscwprintf(format, arguments);
}

template <class Character>
int Attempt(Character* out, size_t size, const Character* format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int written = Print(out, size, format, again);
    va_end(again);
    if (written >= 0)
        return written;
    va_copy(again, arguments);
    const int length = Count(format, again);
    va_end(again);
    return length < 0 ? kCannotFormat : kDoesNotFit;
}

template <class Character>
std::basic_string<Character> FormatList(const Character* format, va_list arguments)
{
    if (format == nullptr)
        throw new Exception(ERROR_INVALID_PARAMETER);
    for (size_t size = kFormatStep;; size += kFormatStep)
    {
        std::vector<Character> buffer(size);
        const int length = Attempt(buffer.data(), size, format, arguments);
        if (length >= 0)
            return std::basic_string<Character>(buffer.data(), static_cast<size_t>(length));
        if (length == kCannotFormat)
            throw new Exception(ERROR_INVALID_DATA);
    }
}

template <class Character>
bool FormatOrThrow(std::basic_string<Character>& out, const Character* format, va_list arguments)
{
    try
    {
        out = FormatList(format, arguments);
        return true;
    }
    catch (const std::bad_alloc&)
    {
        throw new Exception(ERROR_NOT_ENOUGH_MEMORY);
    }
}

struct ListEnd // the formatting may throw
{
    ~ListEnd() { va_end(List); }
    va_list& List;
};

// True when the first size bytes end with the first half of a double-byte character.
bool EndsInHalf(std::string_view text, size_t size) noexcept
{
    if (static_cast<unsigned char>(text[size - 1]) < 0x80)
        return false;
    size_t at = 0;
    while (at < size)
        at += ::IsDBCSLeadByte(static_cast<BYTE>(text[at])) != FALSE ? 2 : 1;
    return at > size;
}

} // namespace

int FormatInto(char* out, size_t size, const char* format, va_list arguments) noexcept
{
    return Attempt(out, size, format, arguments);
}

int FormatInto(KXWCHAR* out, size_t size, const KXWCHAR* format, va_list arguments) noexcept
{
    return Attempt(out, size, format, arguments);
}

bool Format(std::string& out, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const ListEnd end{arguments};
    return FormatOrThrow(out, format, arguments);
}

bool Format(WideString& out, const KXWCHAR* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const ListEnd end{arguments};
    return FormatOrThrow(out, format, arguments);
}

WideString ToWide(std::string_view text)
{
    if (text.empty() || text.size() > INT_MAX)
        return {};
    WideString wide(text.size(), L'\0'); // no code page gives more units than bytes
    const int length = static_cast<int>(text.size());
    const int units = ::MultiByteToWideChar(CP_ACP, 0, text.data(), length, wide.data(), length);
    wide.resize(static_cast<size_t>(std::max(units, 0)));
    return wide;
}

std::string ToNarrow(WideStringView text)
{
    if (text.empty() || text.size() > INT_MAX)
        return {};
    const int units = static_cast<int>(text.size());
    const int bytes = ::WideCharToMultiByte(CP_ACP, 0, text.data(), units, nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<size_t>(std::max(bytes, 0)), '\0');
    if (bytes > 0)
        ::WideCharToMultiByte(CP_ACP, 0, text.data(), units, narrow.data(), bytes, nullptr, nullptr);
    return narrow;
}

int CompareNoCase(WideStringView a, WideStringView b) noexcept
{
    if (a.empty() || b.empty() || a.size() > INT_MAX || b.size() > INT_MAX)
        return a.size() == b.size() ? 0 : a.size() < b.size() ? -1 : 1;
    return ::CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) -
           CSTR_EQUAL;
}

void CopyBounded(char* out, int size, std::string_view text) noexcept
{
    if (out == nullptr || size < 1)
        return;
    const size_t room = static_cast<size_t>(size);
    const size_t length = std::min(room, text.size());
    if (length > 0)
        std::memcpy(out, text.data(), length);
    std::memset(out + length, 0, room - length);
    if (text.size() > room && EndsInHalf(text, room))
        out[room - 1] = '\0';
}

} // namespace KxCommon::String
