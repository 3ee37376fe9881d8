#include <cstdlib>
#include <new>

#include "tests/torture/Faults.h"

thread_local Faults g_AllocationFaults;

void* operator new(size_t size)
{
    void* const memory = g_AllocationFaults.IsFailing() ? nullptr : std::malloc(size == 0 ? 1 : size);
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
