// The way from KX_TRACE to g_DebugLog.
#include "common/srclib/KxComn_Trace.h"

#include <cstdarg>

#include "common/srclib/KxComn_DebugLog.h"
#include "common/srclib/KxComn_String.h"

namespace KxCommon
{

constinit std::atomic<bool> g_TraceActive{false};

void TraceLine(const char* file, uint32_t line, uint32_t level, const char* format, ...) noexcept
{
    va_list arguments;
    va_start(arguments, format);
    g_DebugLog.TraceList(file, line, level, format, arguments);
    va_end(arguments);
}

void TraceLineWide(const char* file, uint32_t line, uint32_t level, const KXWCHAR* format, ...) noexcept
{
    va_list arguments;
    va_start(arguments, format);
    g_DebugLog.TraceWideList(file, line, level, format, arguments);
    va_end(arguments);
}

} // namespace KxCommon
