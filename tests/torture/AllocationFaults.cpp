#include <cstdlib>
#include <new>

#include "tests/support/Faults.h"

// Of the calling thread. Not in a test's own source, where the compiler would see through one half of a pair.
thread_local Faults g_Allocations;

void* operator new(size_t size)
{
    void* const memory = g_Allocations.IsFailing() ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}
void operator delete(void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept
{
    std::free(memory);
}
