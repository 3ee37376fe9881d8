// The trace in the core's tests: every line is formatted and recorded.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "common/srclib/KxComn_Trace.h"

/// Turns the trace on while it exists. One at a time, one thread.
class TraceSink
{
public:
    TraceSink()
    {
        s_Lines.clear();
        KxCommon::g_TraceActive = true;
    }
    ~TraceSink() { KxCommon::g_TraceActive = false; }
    TraceSink(const TraceSink&) = delete;
    TraceSink& operator=(const TraceSink&) = delete;

    /// Returns level and message of each line so far and clears them.
    std::vector<std::string> Take() { return std::exchange(s_Lines, {}); }

    static inline std::vector<std::string> s_Lines;
};
