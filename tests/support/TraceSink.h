// The trace as the core's tests see it: every line is formatted and kept.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

/// One traced line. Wide text is given as UTF-8.
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

/// Turns the trace on for as long as it lives. One at a time, one thread.
class TraceSink
{
public:
    TraceSink();
    ~TraceSink();
    TraceSink(const TraceSink&) = delete;
    TraceSink& operator=(const TraceSink&) = delete;

    [[nodiscard]] const std::vector<TracedLine>& Lines() const noexcept;
    /// The lines so far, which are forgotten here.
    std::vector<TracedLine> Take();
};
