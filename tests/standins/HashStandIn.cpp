#include "tests/standins/HashStandIn.h"

namespace
{

HashStandInState g_State;

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
    g_State.Paths.emplace_back(path);
    if (g_State.OnCall != nullptr)
        g_State.OnCall(path);
    std::memcpy(hash, g_State.Hash, sizeof g_State.Hash);
    return g_State.Status;
}
