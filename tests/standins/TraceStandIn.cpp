#include "tests/standins/TraceStandIn.h"

#include <cerrno>
#include <cstring>

namespace
{

TraceStandInState g_State;
bool g_IsGone = false;

// One call of an entry point.
class Call
{
public:
    Call()
    {
        if (g_IsGone)
            *static_cast<volatile int*>(nullptr) = 0;
        if (++g_State.Inside > 1)
            g_State.Overlapped = true;
    }
    ~Call()
    {
        --g_State.Inside;
        errno = static_cast<int>(g_State.LastError);
        ::SetLastError(g_State.LastError);
    }
};

} // namespace

extern "C" __declspec(dllexport) TraceStandInState* KxStandInState()
{
    return &g_State;
}

extern "C" __declspec(dllexport) int32_t KxDbgInitialize(uint64_t* handle, const KxCommon::DebugConfigWide* config)
{
    const Call call;
    g_State.Configs.push_back(*config);
    *handle = g_State.Handle;
    return g_State.InitializeResult;
}

extern "C" __declspec(dllexport) int32_t KxDbgUninitialize(uint64_t handle)
{
    const Call call;
    g_State.Ended.push_back(handle);
    return 1; // nobody looks at it
}

extern "C" __declspec(dllexport) int32_t KxDbgTrace(uint64_t handle, const SYSTEMTIME* time, const wchar_t* line)
{
    const Call call;
    g_State.Lines.push_back({handle, *time, line});
    return g_State.TraceResult;
}

extern "C" __declspec(dllexport) int32_t KxDbgGetDebugConfig(uint64_t, KxCommon::DebugConfig* config)
{
    const Call call;
    ++g_State.ConfigCount;
    config->Head = g_State.Configs.back().Head;
    if (g_State.HasConfig)
    {
        config->Head.bEnable = g_State.Enable;
        config->Head.dwLevel = g_State.Level;
    }
    return g_State.ConfigResult;
}

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void* isProcessEnding)
{
    if (reason == DLL_PROCESS_DETACH && isProcessEnding != nullptr)
    {
        g_IsGone = true;
        if (g_State.OnDetach != nullptr)
            g_State.OnDetach();
    }
    return TRUE;
}
