// UTF-8 out, to a terminal or to a file or pipe.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace Tool
{

enum class Style
{
    Plain,
    Strong,
    Dim,
    Good,
    Bad
};

class Console
{
public:
    Console();
    ~Console() { Flush(); }
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    /// Colours are used on a terminal that supports them, unless NO_COLOR is set or this is called.
    void DisableColour() noexcept { m_Colour = false; }

    /// Writes to standard output, buffered until Flush.
    void Out(std::string_view text);
    /// Writes to standard error at once, after what is buffered for standard output.
    void Error(std::string_view text);
    [[nodiscard]] std::string Paint(Style style, std::string_view text) const;
    /// False if standard output could not take all of it (a full disk, a closed pipe).
    bool Flush() noexcept;

    [[nodiscard]] bool ErrorIsTerminal() const noexcept { return m_ErrorIsTerminal; }

    /// Asks a yes-or-no question on the terminal; false if there is nobody to answer.
    [[nodiscard]] bool Confirm(std::string_view question);

private:
    std::string m_Gathered;
    bool m_OutIsTerminal;
    bool m_ErrorIsTerminal;
    bool m_Colour;
    bool m_Good = true;
    bool m_IsClosed = false; // the reader of the output has closed it
};

/// A bar on the terminal for work that takes more than a second; nothing if standard error is not a terminal.
class Progress
{
public:
    Progress(Console& console, std::string label);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    /// If the total is 0, shows only the label, for work of unknown progress.
    void Show(size_t done, size_t all);

private:
    Console& m_Console;
    std::string m_Label;
    bool m_Shown = false;
    std::chrono::steady_clock::time_point m_Begin = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point m_Drawn = m_Begin;
};

} // namespace Tool
