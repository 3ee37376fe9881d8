// The order of locks, asserted in builds without NDEBUG; in others nothing is left of it.
#pragma once

#include <cassert>
#include <cstddef>
#include <limits>

namespace KxCommon::Synchronize
{

/// A lock's place in the order: whoever holds one may take those of a higher rank, and once more what it holds already.
/// KxComn_LockRanks.h names the ranks.
enum class LockRank : int;

/// Of a lock under which nothing is taken.
inline constexpr LockRank kInnermost{std::numeric_limits<int>::max()};

/// Base of every lock class: knows which locks the calling thread holds, last taken last.
#ifdef NDEBUG
class LockOrder
{
protected:
    explicit LockOrder(LockRank) noexcept {}
    void NoteTaking() const noexcept {}
    void NoteGone() const noexcept {}
};
#else
class LockOrder
{
protected:
    explicit LockOrder(LockRank rank) noexcept : m_Rank(rank) {}

    /// Called before waiting for the lock, so that a wrong order shows even if no other thread turns it into a
    /// deadlock.
    void NoteTaking() const noexcept
    {
        Record& held = Held();
        assert(MayTake(held) && "locks out of order: see docs/threads.md");
        assert(held.Count < kMostHeld);
        held.Locks[held.Count++] = this;
    }
    /// Released, or held on beyond the call: such a lock does not bind its thread to the order, since no other thread
    /// waits for it while holding a lock.
    void NoteGone() const noexcept
    {
        Record& held = Held();
        for (size_t i = held.Count; i-- > 0;)
        {
            if (held.Locks[i] != this)
                continue;
            for (--held.Count; i < held.Count; ++i)
                held.Locks[i] = held.Locks[i + 1];
            return;
        }
    }

private:
    static constexpr size_t kMostHeld = 16;
    struct Record
    {
        size_t Count;
        const LockOrder* Locks[kMostHeld];
    };
    static Record& Held() noexcept
    {
        thread_local Record held;
        return held;
    }
    [[nodiscard]] bool MayTake(const Record& held) const noexcept
    {
        bool isInOrder = true;
        for (size_t i = 0; i < held.Count; ++i)
        {
            if (held.Locks[i] == this)
                return true;
            isInOrder = isInOrder && held.Locks[i]->m_Rank < m_Rank;
        }
        return isInOrder;
    }

    LockRank m_Rank;
};
#endif

} // namespace KxCommon::Synchronize
