#include "tests/standins/HashStandIn.h"

namespace
{

HashStandInState g_State;
SRWLOCK g_Lock = SRWLOCK_INIT; // a refresh may call while a rule is added

} // namespace

extern "C" __declspec(dllexport) HashStandInState* KxStandInState()
{
    return &g_State;
}

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void*)
{
    if (reason == DLL_PROCESS_ATTACH)
        g_State.ErrorMode = ::GetThreadErrorMode();
    return TRUE;
}

extern "C" __declspec(dllexport) int32_t kxCfwGetHashValue(const wchar_t* path, uint8_t* hash)
{
    ::AcquireSRWLockExclusive(&g_Lock);
    g_State.Paths.emplace_back(path);
    if (g_State.OnCall != nullptr)
        g_State.OnCall(path);
    std::memcpy(hash, g_State.Hash, sizeof g_State.Hash);
    ::ReleaseSRWLockExclusive(&g_Lock);
    return g_State.Status;
}
