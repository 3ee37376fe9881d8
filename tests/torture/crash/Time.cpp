// Time for the crash tests: lives are many and short, so a timer has no thread and never fires, and sleeping returns at
// once at a later time.
#include <atomic>

#include "common/srclib/KxComn_Windows.h"

#include "persistence/PfwTimer.h"

struct CPfwTimer::Entry
{
};
CPfwTimer::CPfwTimer() = default;
CPfwTimer::~CPfwTimer() = default;
bool CPfwTimer::Register(uint32_t, uint32_t, Callback, uint32_t, void*, bool)
{
    return true;
}
bool CPfwTimer::Unregister(uint32_t, uint32_t)
{
    return true;
}

namespace
{

std::atomic<ULONGLONG> g_Slept;

void WINAPI SleepNot(DWORD milliseconds)
{
    g_Slept += milliseconds;
}
ULONGLONG WINAPI TimeSlept()
{
    return g_Slept;
}

} // namespace

// Imported functions are called through these, which the linker takes before searching the import library.
extern "C"
{
    void(WINAPI* __imp_Sleep)(DWORD) = SleepNot;
    ULONGLONG(WINAPI* __imp_GetTickCount64)() = TimeSlept;
}
