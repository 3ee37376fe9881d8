// Part of each of the product's DLLs: releases what the compiler's run-time library would leave in a process whenever
// the DLL is loaded and released. GCC's leaves, for ever, 73 KB from which exceptions are allocated when memory has run
// out, and after the first exception a slot of thread-local storage, of which a process has 1088, and two handles for
// every thread. A guarded local static costs the same slot; scripts/check.sh makes sure that no DLL asks for one. This
// code relies on GCC's C++ library and on x86-64; with another compiler there is nothing to fix.
#include <exception>

#if defined(__GLIBCXX__) && defined(_WIN64)

#include "common/srclib/KxComn_Windows.h"

extern "C" ULONG _tls_index; // the index of this DLL's block of native thread-local storage, from the C run time
extern "C" char _tls_start;  // the template of each thread's block

namespace __gnu_cxx
{
void __freeres(); // declared in no header: releases the memory for exceptions
}

namespace
{

// What the C++ run time knows about a thread: the exceptions that it handles and how many are in flight. The layout is
// that of the C++ ABI.
struct ThreadState
{
    void* Caught;
    unsigned int Uncaught;
};
// GCC cannot declare a variable of native thread-local storage, but placed in this section it is one.
[[gnu::section(".tls$KX")]] ThreadState g_Template = {};

// Constructed first and so destroyed last: until then another object may throw. Does nothing while the process ends,
// since a killed thread may have left the heap locked.
struct ExceptionMemory
{
    ~ExceptionMemory()
    {
        if (!::RtlDllShutdownInProgress())
            __gnu_cxx::__freeres();
    }
};
[[gnu::init_priority(101)]] const ExceptionMemory g_ExceptionMemory;

} // namespace

// Replaces the run time's own pair, which the linker then leaves out, and with it the emulation of thread-local storage
// that takes the slot. The system creates a block for every thread, including those that exist when the DLL is loaded,
// and releases it with the thread; the index is reused for the next DLL. An exception that a caller's callback throws
// into the DLL is counted here when caught but not when thrown, as with the run time's own pair; nobody asks for the
// count.
extern "C" ThreadState* __cxa_get_globals() noexcept
{
    // TEB::ThreadLocalStoragePointer, read on every call, since it changes when another DLL is loaded. (GCC 12 warns
    // that __readgsqword reads beyond an array.)
    char** blocks;
    asm volatile("movq %%gs:0x58, %0" : "=r"(blocks));
    return reinterpret_cast<ThreadState*>(blocks[_tls_index] + (reinterpret_cast<char*>(&g_Template) - &_tls_start));
}
extern "C" ThreadState* __cxa_get_globals_fast() noexcept
{
    return __cxa_get_globals();
}

#endif
