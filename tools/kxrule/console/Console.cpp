// UTF-8 out.
#include "tools/kxrule/console/Console.h"

#include <fcntl.h>
#include <io.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "common/srclib/KxComn_Windows.h"
#include "policy/Utf8.h"
#include "tools/kxrule/console/Columns.h"
#include "tools/kxrule/console/Failure.h"

namespace Tool
{

using namespace KxPolicy;

namespace
{

constexpr size_t kGatherBytes = 1 << 16;
constexpr size_t kUnitsPerWrite = 8192; // older systems' consoles take no more at once

bool IsTerminal(DWORD which) noexcept
{
    DWORD mode = 0;
    return ::GetConsoleMode(::GetStdHandle(which), &mode) != FALSE;
}

bool KnowsColours() noexcept
{
    const HANDLE terminal = ::GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
#ifndef ENABLE_VIRTUAL_TERMINAL_PROCESSING
    constexpr DWORD ENABLE_VIRTUAL_TERMINAL_PROCESSING = 4;
#endif
    return ::GetConsoleMode(terminal, &mode) != FALSE &&
           ::SetConsoleMode(terminal, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != FALSE;
}

size_t TerminalWidth(DWORD which) noexcept
{
    CONSOLE_SCREEN_BUFFER_INFO info{};
    return ::GetConsoleScreenBufferInfo(::GetStdHandle(which), &info) != FALSE ? static_cast<size_t>(info.dwSize.X) : 0;
}

bool IsClosedPipe() noexcept
{
    const DWORD error = ::GetLastError();
    return error == ERROR_NO_DATA || error == ERROR_BROKEN_PIPE || error == ERROR_PIPE_NOT_CONNECTED || errno == EPIPE;
}

bool WriteText(DWORD which, std::FILE* file, bool terminal, std::string_view text)
{
    if (!terminal)
        return std::fwrite(text.data(), 1, text.size(), file) == text.size() && std::fflush(file) == 0;
    const std::wstring wide = FromUtf8(Wrapped(text, TerminalWidth(which)));
    for (size_t at = 0; at < wide.size(); at += kUnitsPerWrite)
    {
        const DWORD units = static_cast<DWORD>(std::min(kUnitsPerWrite, wide.size() - at));
        DWORD written = 0;
        if (::WriteConsoleW(::GetStdHandle(which), wide.data() + at, units, &written, nullptr) == FALSE)
            return false;
    }
    return true;
}

} // namespace

Console::Console()
    : m_OutIsTerminal(IsTerminal(STD_OUTPUT_HANDLE)), m_ErrorIsTerminal(IsTerminal(STD_ERROR_HANDLE)),
      m_Colour(m_OutIsTerminal && KnowsColours())
{
    // No conversion of line ends: an export must be the same on every system.
    ::_setmode(::_fileno(stdout), _O_BINARY);
    ::_setmode(::_fileno(stderr), _O_BINARY);
    const wchar_t* const noColour = ::_wgetenv(L"NO_COLOR");
    if (noColour != nullptr && *noColour != L'\0')
        m_Colour = false;
}

void Console::Out(std::string_view text)
{
    m_Gathered += text;
    if (m_Gathered.size() >= kGatherBytes)
        Flush();
}

bool Console::Flush() noexcept
{
    try
    {
        if (!m_Gathered.empty() && !m_IsClosed && !WriteText(STD_OUTPUT_HANDLE, stdout, m_OutIsTerminal, m_Gathered))
        {
            m_IsClosed = IsClosedPipe();
            m_Good = m_Good && m_IsClosed;
        }
    }
    catch (...)
    {
        m_Good = false;
    }
    m_Gathered.clear();
    return m_Good;
}

void Console::Error(std::string_view text)
{
    Flush();
    WriteText(STD_ERROR_HANDLE, stderr, m_ErrorIsTerminal, text);
}

std::string Console::Paint(Style style, std::string_view text) const
{
    static constexpr const char* kCodes[] = {"", "\x1b[1m", "\x1b[2m", "\x1b[32m", "\x1b[31m"};
    if (!m_Colour || style == Style::Plain)
        return std::string(text);
    return kCodes[static_cast<size_t>(style)] + std::string(text) + "\x1b[0m";
}

bool Console::Confirm(std::string_view question)
{
    if (!IsTerminal(STD_INPUT_HANDLE))
        return false;
    Error(std::string(question) + " [y/N] ");
    char answer[16] = {};
    if (std::fgets(answer, sizeof answer, stdin) == nullptr)
        return false;
    return answer[0] == 'y' || answer[0] == 'Y';
}

Progress::Progress(Console& console, std::string label) : m_Console(console), m_Label(std::move(label)) {}

Progress::~Progress()
{
    if (m_Shown)
        m_Console.Error("\r" + std::string(m_Label.size() + 40, ' ') + "\r");
}

void Progress::Show(size_t done, size_t all)
{
    using namespace std::chrono;
    const steady_clock::time_point now = steady_clock::now();
    if (m_Console.ErrorIsTerminal() && all == 0)
    {
        m_Console.Error("\r" + m_Label + " ");
        m_Shown = true;
    }
    if (!m_Console.ErrorIsTerminal() || all == 0 || now - m_Begin < seconds(1) ||
        (m_Shown && now - m_Drawn < milliseconds(100)))
        return;
    constexpr size_t kBar = 24;
    const size_t filled = std::min(kBar, kBar * done / all);
    m_Console.Error("\r" + m_Label + " [" + std::string(filled, '#') + std::string(kBar - filled, '.') + "] " +
                    std::to_string(100 * done / all) + "% ");
    m_Drawn = now;
    m_Shown = true;
}

std::string SystemText(uint32_t error)
{
    wchar_t* text = nullptr;
    const DWORD length =
        ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                         nullptr, error, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    std::wstring_view words(length == 0 ? L"" : text, length);
    while (!words.empty() &&
           (words.back() == L'\n' || words.back() == L'\r' || words.back() == L' ' || words.back() == L'.'))
        words.remove_suffix(1);
    const std::string said = ToUtf8(words);
    ::LocalFree(text);
    return "error " + std::to_string(error) + (said.empty() ? "" : " (" + said + ")");
}

} // namespace Tool
