// Interrupts: before the first change they end the program, after it they wait for the last change.
#include "tools/kxrule/console/Interrupt.h"

#include <atomic>
#include <string_view>

#include "common/srclib/KxComn_Windows.h"

#include "tools/kxrule/console/Failure.h"

namespace Tool
{
namespace
{

enum class Phase
{
    Unchanged,
    Changing,
    Interrupted
};

std::atomic<Phase> g_Phase{Phase::Unchanged};
std::atomic<bool> g_Json{false};

// The system calls this on a thread of its own.
BOOL WINAPI OnInterrupt(DWORD) noexcept
{
    Phase expected = Phase::Unchanged;
    if (g_Phase.compare_exchange_strong(expected, Phase::Interrupted))
    {
        const std::string_view text = g_Json ? "{\"error\": \"interrupted, nothing changed\", \"exitCode\": 4}\n"
                                             : "kxrule: interrupted, nothing changed\n";
        DWORD written = 0;
        ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
        ::TerminateProcess(::GetCurrentProcess(), ExitInterrupted); // no DLL may write anything as it is unloaded
    }
    // If a console is closed, the system ends the program as soon as this returns, or after five seconds.
    if (expected == Phase::Changing)
        ::Sleep(5000);
    return TRUE;
}

} // namespace

void WatchInterrupts(bool json) noexcept
{
    g_Json = json;
    ::SetConsoleCtrlHandler(OnInterrupt, TRUE);
}

void HoldInterrupts() noexcept
{
    Phase expected = Phase::Unchanged;
    if (!g_Phase.compare_exchange_strong(expected, Phase::Changing) && expected == Phase::Interrupted)
        ::Sleep(INFINITE);
}

} // namespace Tool
