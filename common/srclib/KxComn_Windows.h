// windows.h, tamed. The only place that includes it.
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef _WIN32_WINNT
#define _WIN32_WINNT 0x0601 // Windows 7: the oldest system this library runs on
#endif
#include <windows.h>

extern "C" BOOLEAN NTAPI RtlDllShutdownInProgress(); // of ntdll.dll; the system's headers for programs lack it
