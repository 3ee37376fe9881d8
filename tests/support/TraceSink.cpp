// The recorder that the trace call reaches. It formats by itself: natively no C library supports UTF-16 text for %S.
#include "tests/support/TraceSink.h"

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "common/srclib/KxComn_String.h"
#include "common/srclib/KxComn_Trace.h"

namespace
{

std::vector<TracedLine> g_Lines;

void AppendUtf8(std::string& text, const KXWCHAR* units, size_t count)
{
    for (size_t i = 0; i < count; ++i)
    {
        uint32_t code = static_cast<uint16_t>(units[i]);
        if (code >= 0xD800 && code < 0xDC00 && i + 1 < count)
            code = 0x10000 + ((code - 0xD800) << 10) + (static_cast<uint16_t>(units[++i]) - 0xDC00u);
        if (code < 0x80)
            text += static_cast<char>(code);
        else if (code < 0x800)
            text.append({static_cast<char>(0xC0 | (code >> 6)), static_cast<char>(0x80 | (code & 0x3F))});
        else if (code < 0x10000)
            text.append({static_cast<char>(0xE0 | (code >> 12)), static_cast<char>(0x80 | ((code >> 6) & 0x3F)),
                         static_cast<char>(0x80 | (code & 0x3F))});
        else
            text.append({static_cast<char>(0xF0 | (code >> 18)), static_cast<char>(0x80 | ((code >> 12) & 0x3F)),
                         static_cast<char>(0x80 | ((code >> 6) & 0x3F)), static_cast<char>(0x80 | (code & 0x3F))});
    }
}

// At most limit elements of text: its bound when the format has a precision.
template <class Char>
size_t Length(const Char* text, size_t limit)
{
    size_t length = 0;
    while (length < limit && text[length] != 0)
        ++length;
    return length;
}

// Flags, width and precision stay as written; the length becomes that of the widest integer.
template <class Integer>
void AppendInteger(std::string& text, std::string_view flags, char conversion, Integer value)
{
    char buffer[128];
    const std::string format = std::string(flags) + "ll" + conversion;
    std::snprintf(buffer, sizeof buffer, format.c_str(), value);
    text += buffer;
}

// One of the C library's formats, as far as this library traces: %c %d %i %u %x %X %p %s %S %ls with flags, width,
// precision and h, l, ll, z, I64. In a wide format (isWide) %s and %S change places.
std::string Format(std::string_view format, bool isWide, va_list arguments)
{
    std::string text;
    for (size_t i = 0; i < format.size(); ++i)
    {
        if (format[i] != '%')
        {
            text += format[i];
            continue;
        }
        const size_t begin = i++;
        i = std::min(format.find_first_not_of("-+ #0123456789.", i), format.size());
        const std::string_view flags = format.substr(begin, i - begin);
        const size_t precision = flags.find('.');
        const size_t limit = precision == flags.npos
                                 ? SIZE_MAX
                                 : std::strtoul(std::string(flags.substr(precision + 1)).c_str(), nullptr, 10);

        const size_t lengthBegin = i;
        if (format.substr(i, 3) == "I64")
            i += 3;
        else
            i = std::min(format.find_first_not_of("hlz", i), format.size());
        const std::string_view length = format.substr(lengthBegin, i - lengthBegin);
        const char conversion = i < format.size() ? format[i] : '%';
        switch (conversion)
        {
        case '%':
            text += '%';
            break;
        case 'c':
            text += static_cast<char>(va_arg(arguments, int));
            break;
        case 'p':
            AppendInteger(text, "%016", 'X', reinterpret_cast<unsigned long long>(va_arg(arguments, void*)));
            break;
        case 'd':
        case 'i':
            AppendInteger(text, flags, 'd',
                          length == "l"                        ? static_cast<long long>(va_arg(arguments, long))
                          : length.empty() || length[0] == 'h' ? static_cast<long long>(va_arg(arguments, int))
                                                               : va_arg(arguments, long long));
            break;
        case 'u':
        case 'x':
        case 'X':
            AppendInteger(text, flags, conversion,
                          length == "l" ? static_cast<unsigned long long>(va_arg(arguments, unsigned long))
                          : length.empty() || length[0] == 'h'
                              ? static_cast<unsigned long long>(va_arg(arguments, unsigned))
                              : va_arg(arguments, unsigned long long));
            break;
        case 's':
        case 'S':
            if (length == "l" || (conversion == 'S') != isWide)
            {
                const KXWCHAR* const units = va_arg(arguments, const KXWCHAR*);
                AppendUtf8(text, units, Length(units, limit));
            }
            else
            {
                const char* const bytes = va_arg(arguments, const char*);
                text.append(bytes, Length(bytes, limit));
            }
            break;
        default:
            text += "(unknown conversion)"; // the rest of the arguments cannot be read
            return text;
        }
    }
    return text;
}

} // namespace

namespace KxCommon
{

std::atomic<bool> g_TraceActive{false};

void TraceLine(const char*, uint32_t, uint32_t level, const char* format, ...) noexcept
{
    va_list arguments;
    va_start(arguments, format);
    g_Lines.push_back({level, Format(format, false, arguments)});
    va_end(arguments);
}

void TraceLineWide(const char*, uint32_t, uint32_t level, const KXWCHAR* format, ...) noexcept
{
    std::string narrow;
    AppendUtf8(narrow, format, Length(format, SIZE_MAX));
    va_list arguments;
    va_start(arguments, format);
    g_Lines.push_back({level, Format(narrow, true, arguments)});
    va_end(arguments);
}

} // namespace KxCommon

TraceSink::TraceSink()
{
    g_Lines.clear();
    KxCommon::g_TraceActive = true;
}

TraceSink::~TraceSink()
{
    KxCommon::g_TraceActive = false;
    g_Lines = {};
}

const std::vector<TracedLine>& TraceSink::Lines() const noexcept
{
    return g_Lines;
}

std::vector<TracedLine> TraceSink::Take()
{
    return std::exchange(g_Lines, {});
}
