// The load entry. It runs under the loader lock, so it keeps the module handle and does nothing else.
#include "api/Library.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH)
        g_ModuleHandle = module;
    return TRUE;
}
