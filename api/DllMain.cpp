// DllMain. It runs under the loader lock, so it only stores the module handle.
#include "api/Library.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH)
        g_ModuleHandle = module;
    return TRUE;
}
