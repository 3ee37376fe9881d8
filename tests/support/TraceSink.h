// The trace in the core's tests: every line is formatted and recorded.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

/// One traced line.
struct TracedLine
{
    uint32_t Level;
    std::string Text;

    friend bool operator==(const TracedLine&, const TracedLine&) = default;
    friend std::ostream& operator<<(std::ostream& out, const TracedLine& line)
    {
        return out << line.Level << " \"" << line.Text << '"';
    }
};

/// Turns the trace on while it exists. One at a time, one thread.
class TraceSink
{
public:
    TraceSink();
    ~TraceSink();
    TraceSink(const TraceSink&) = delete;
    TraceSink& operator=(const TraceSink&) = delete;

    [[nodiscard]] const std::vector<TracedLine>& Lines() const noexcept;
    /// Returns the lines so far and clears them.
    std::vector<TracedLine> Take();
};
