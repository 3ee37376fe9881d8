// The broken promise, and the bound on memory by way of the hooks of Clang's sanitizer.
#include "tests/fuzz/Fuzz.h"

#include <stdexcept>
#include <string>

#if __has_include(<sanitizer/allocator_interface.h>)
#define KX_BOUNDED
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include <sanitizer/allocator_interface.h>

namespace
{

// Signed: what was allocated before the bound began may be freed under it.
std::atomic<bool> g_IsBounded;
std::atomic<int64_t> g_Allocated;
std::atomic<int64_t> g_Most;

void OnAllocate(const volatile void*, size_t size)
{
    if (g_IsBounded && (g_Allocated += static_cast<int64_t>(size)) > g_Most)
    {
        g_IsBounded = false; // the report allocates too
        std::fprintf(stderr, "an allocation of %zu bytes goes beyond the bound of %lld\n", size,
                     static_cast<long long>(g_Most));
        std::abort();
    }
}

void OnFree(const volatile void* memory)
{
    if (g_IsBounded && memory != nullptr)
        g_Allocated -= static_cast<int64_t>(__sanitizer_get_allocated_size(memory));
}

} // namespace
#endif

namespace Fuzz
{

void Fail(const char* what, const char* file, int line)
{
    throw std::logic_error(std::string(file) + ":" + std::to_string(line) + ": broken promise: " + what);
}

MemoryBound::MemoryBound([[maybe_unused]] size_t most) noexcept
{
#ifdef KX_BOUNDED
    static const int isInstalled = __sanitizer_install_malloc_and_free_hooks(OnAllocate, OnFree);
    KX_REQUIRE(isInstalled != 0);
    g_Allocated = 0;
    g_Most = static_cast<int64_t>(most);
    g_IsBounded = true;
#endif
}

MemoryBound::~MemoryBound()
{
#ifdef KX_BOUNDED
    g_IsBounded = false;
#endif
}

} // namespace Fuzz
