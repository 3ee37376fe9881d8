// Owners of Windows handles: one template, one three-line policy per kind of handle.
#pragma once

#include <utility>

#include "common/srclib/KxComn_Windows.h"

namespace KxCommon
{

template <class Policy> // Policy: pointer, invalid(), close(pointer) -> bool
class UniqueHandle
{
public:
    using pointer = typename Policy::pointer;

    explicit UniqueHandle(pointer handle = Policy::invalid()) noexcept : m_Handle(handle) {}
    UniqueHandle(UniqueHandle&& other) noexcept : m_Handle(other.release()) {}
    UniqueHandle& operator=(UniqueHandle&& other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~UniqueHandle() { reset(); }

    explicit operator bool() const noexcept { return m_Handle != Policy::invalid(); }
    pointer get() const noexcept { return m_Handle; }
    pointer release() noexcept { return std::exchange(m_Handle, Policy::invalid()); }
    // Closes what is held; returns the result of CloseHandle or its equivalent, for callers that trace it.
    bool reset(pointer handle = Policy::invalid()) noexcept
    {
        const pointer old = std::exchange(m_Handle, handle);
        return old == Policy::invalid() || Policy::close(old);
    }

private:
    pointer m_Handle;
};

struct FilePolicy // CreateFile fails with -1
{
    using pointer = HANDLE;
    static pointer invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static bool close(pointer handle) noexcept { return ::CloseHandle(handle) != FALSE; }
};

struct KernelObjectPolicy // events, threads, mutexes, tokens: creation fails with null
{
    using pointer = HANDLE;
    static pointer invalid() noexcept { return nullptr; }
    static bool close(pointer handle) noexcept { return ::CloseHandle(handle) != FALSE; }
};

struct FindPolicy
{
    using pointer = HANDLE;
    static pointer invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static bool close(pointer handle) noexcept { return ::FindClose(handle) != FALSE; }
};

struct RegKeyPolicy
{
    using pointer = HKEY;
    static pointer invalid() noexcept { return nullptr; }
    static bool close(pointer key) noexcept { return ::RegCloseKey(key) == ERROR_SUCCESS; }
};

struct LocalMemoryPolicy
{
    using pointer = HLOCAL;
    static pointer invalid() noexcept { return nullptr; }
    static bool close(pointer memory) noexcept { return ::LocalFree(memory) == nullptr; }
};

using UniqueFile = UniqueHandle<FilePolicy>;
using UniqueKernelObject = UniqueHandle<KernelObjectPolicy>;
using UniqueFind = UniqueHandle<FindPolicy>;
using UniqueRegKey = UniqueHandle<RegKeyPolicy>;
using UniqueLocalMemory = UniqueHandle<LocalMemoryPolicy>;

} // namespace KxCommon
