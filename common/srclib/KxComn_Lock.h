// The lock interface and its scoped guard, free of windows.h. docs/threads.md has the order of all locks.
#pragma once

#include "common/srclib/KxComn_Port.h"

/// A lock that the library's classes take through an interface. The two operations are its only virtual slots, in
/// this order, and both return true; hence the protected, non-virtual destructor.
class KX_CAPABILITY("mutex") CLock
{
public:
    virtual bool Lock() KX_ACQUIRE() = 0;
    virtual bool Unlock() KX_RELEASE() = 0;

protected:
    ~CLock() = default;
};

namespace KxCommon::Synchronize
{

/// Holds a lock for a scope. LockType is CLock or any class with Lock and Unlock.
template <class LockType>
class [[nodiscard]] KX_SCOPED_CAPABILITY ScopedLock
{
public:
    explicit ScopedLock(LockType& lock) KX_ACQUIRE(lock) : m_Lock(lock) { m_Lock.Lock(); }
    ~ScopedLock() KX_RELEASE() { m_Lock.Unlock(); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    LockType& m_Lock;
};

} // namespace KxCommon::Synchronize
