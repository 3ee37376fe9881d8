// Part of each of the product's DLLs: what the compiler's run-time library would leave in a process whenever the DLL is
// loaded and released. Of GCC's that is, for ever, 73 KB that exceptions are made of when memory has run out, and after
// the first exception a slot of thread-local storage, of which a process has 1088, and two handles for every thread.
// A guarded local static costs the same slot; scripts/check.sh sees to it that no DLL asks for one.
// What is here relies on GCC's C++ library and on x86-64; with another one there is nothing to mend.
#include <exception>

#if defined(__GLIBCXX__) && defined(_WIN64)

#include "common/srclib/KxComn_Windows.h"

extern "C" BOOLEAN NTAPI RtlDllShutdownInProgress(); // as in Utility.cpp, which not all of the DLLs have

extern "C" ULONG _tls_index; // the number of this DLL's block of native thread-local storage, from the C run time
extern "C" char _tls_start;  // and what each thread's block is a copy of

namespace __gnu_cxx
{
void __freeres(); // declared in no header: gives back the memory for exceptions
}

namespace
{

// What the C++ run time knows of a thread: the exceptions in its hands and how many are on their way. The layout is that
// of the C++ ABI.
struct ThreadState
{
    void* Caught;
    unsigned int Uncaught;
};
// GCC cannot declare a variable of native thread-local storage; placed among its sections this is one.
[[gnu::section(".tls$KX")]] ThreadState g_Template = {};

// Constructed first and so destroyed last: until then another object may throw. Not while the process ends, when a thread
// that was killed may have left the heap locked.
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

// In the place of the run time's own pair, which the linker then leaves out, and with it the emulation of thread-local
// storage that takes the slot. The system makes a block for every thread, those that live when the DLL is loaded too, and
// gives it back with the thread; the number goes to the next DLL. An exception that a caller's callback throws into the DLL
// is counted here when it is caught though not when it was thrown, as with the run time's own pair; nobody asks for it.
extern "C" ThreadState* __cxa_get_globals() noexcept
{
    // TEB::ThreadLocalStoragePointer, read at every call: it changes when another DLL is loaded. (Of __readgsqword GCC 12
    // thinks that it reads beyond an array.)
    char** blocks;
    asm volatile("movq %%gs:0x58, %0" : "=r"(blocks));
    return reinterpret_cast<ThreadState*>(blocks[_tls_index] + (reinterpret_cast<char*>(&g_Template) - &_tls_start));
}
extern "C" ThreadState* __cxa_get_globals_fast() noexcept
{
    return __cxa_get_globals();
}

#endif
