// How a command ends that cannot do what was requested.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Tool
{

enum ExitCode
{
    ExitDone = 0,
    ExitFailed = 1,
    ExitUsage = 2,
    ExitDifferent = 3, // import --check: something would change
    ExitInterrupted = 4
};

/// Thrown by value; what() is UTF-8 and goes to the user after "kxrule: ". May hold several lines. The result is the
/// library's code if it was the library that failed.
class Failure : public std::runtime_error
{
public:
    explicit Failure(const std::string& text, ExitCode code = ExitFailed, int32_t result = 0)
        : std::runtime_error(text), m_Code(code), m_Result(result)
    {
    }
    [[nodiscard]] ExitCode Code() const noexcept { return m_Code; }
    [[nodiscard]] int32_t Result() const noexcept { return m_Result; }

private:
    ExitCode m_Code;
    int32_t m_Result;
};

/// A Windows error number with the system's message.
[[nodiscard]] std::string SystemText(uint32_t error);

} // namespace Tool
