// The recorder that the trace call reaches. It formats by itself: natively no C library supports UTF-16 text.
#include "tests/support/TraceSink.h"

#include <cstdarg>

#include "common/srclib/KxComn_String.h"

namespace KxCommon
{

std::atomic<bool> g_TraceActive{false};

// What the core traces: %d, %u, %s and, for UTF-16 text, %ls.
void TraceLine(const char*, uint32_t, uint32_t level, const char* format, ...) noexcept
{
    std::string text = std::to_string(level) + ' ';
    va_list arguments;
    va_start(arguments, format);
    for (; *format != 0; ++format)
    {
        if (*format != '%')
            text += *format;
        else if (*++format == 'd')
            text += std::to_string(va_arg(arguments, int));
        else if (*format == 'u')
            text += std::to_string(va_arg(arguments, unsigned));
        else if (*format == 's')
            text += va_arg(arguments, const char*);
        else
            text += String::ToNarrow(va_arg(arguments, const KXWCHAR*)), ++format;
    }
    va_end(arguments);
    TraceSink::s_Lines.push_back(text);
}

} // namespace KxCommon
