// How a command ends when it cannot do what it was asked for.
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
    ExitDifferent = 3 // import --check: something would change
};

/// Thrown by value; what() is UTF-8 and goes to the user behind "kxrule: ". May hold several lines.
class Failure : public std::runtime_error
{
public:
    explicit Failure(const std::string& text, ExitCode code = ExitFailed) : std::runtime_error(text), m_Code(code) {}
    [[nodiscard]] ExitCode Code() const noexcept { return m_Code; }

private:
    ExitCode m_Code;
};

/// A Windows error number with the system's words for it.
[[nodiscard]] std::string SystemText(uint32_t error);

} // namespace Tool
