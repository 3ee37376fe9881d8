// The trace call of the whole library. common/trace defines the two functions and decides what happens to a line; tests
// define them as a recorder instead.
#pragma once

#include <atomic>
#include <cstdint>

#include "common/srclib/KxComn_Port.h"

namespace KxCommon
{

inline constexpr uint32_t kTraceDetail = 1;  // tag ".w."
inline constexpr uint32_t kTraceCall = 16;   // tag "@@@": function entry, return, progress
inline constexpr uint32_t kTraceError = 256; // tag "!!!": every detected failure

// True while the trace library is loaded. Checked first, so that a trace that is off costs one load.
extern std::atomic<bool> g_TraceActive;

// Writes one line. Both leave GetLastError unchanged and throw nothing. The format is one of the system's C library: in
// the narrow form %s is narrow and %S is UTF-16 text, in the wide form it is the other way round.
void TraceLine(const char* file, uint32_t line, uint32_t level, const char* format, ...) noexcept KX_PRINTF(4, 5);
void TraceLineWide(const char* file, uint32_t line, uint32_t level, const KXWCHAR* format, ...) noexcept;

} // namespace KxCommon

// KX_TRACE(level, format, ...). The arguments are not evaluated while the trace is off.
#define KX_TRACE(level, ...)                                                                                           \
    (KxCommon::g_TraceActive.load(std::memory_order_acquire)                                                           \
         ? KxCommon::TraceLine(__FILE__, __LINE__, level, __VA_ARGS__)                                                 \
         : static_cast<void>(0))
#define KX_TRACE_WIDE(level, ...)                                                                                      \
    (KxCommon::g_TraceActive.load(std::memory_order_acquire)                                                           \
         ? KxCommon::TraceLineWide(__FILE__, __LINE__, level, __VA_ARGS__)                                             \
         : static_cast<void>(0))
