#include <cstdlib>
#include <new>

#include "tests/torture/Faults.h"

thread_local Faults g_AllocationFaults;
std::atomic<int64_t> g_LiveAllocations;

void* operator new(size_t size)
{
    void* const memory = g_AllocationFaults.IsFailing() ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr)
        throw std::bad_alloc();
    g_LiveAllocations.fetch_add(1, std::memory_order_relaxed);
    return memory;
}
void operator delete(void* memory) noexcept
{
    if (memory != nullptr)
        g_LiveAllocations.fetch_sub(1, std::memory_order_relaxed);
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept
{
    operator delete(memory);
}
