// The ordered map under rule sets and rules: 16-bit key to value, walked in ascending key order.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace KxCommon
{

/// Keys lie sorted side by side, so a look-up touches two or three cache lines instead of one per tree level; values
/// lie in slabs of many, never move, and cost no allocation each. Find is logarithmic; adding is, too, when keys
/// arrive in ascending order, and otherwise moves the later keys (two and eight bytes each, 65536 at most).
/// No lock of its own. Values are neither copied nor moved after construction; references stay valid until erased or
/// replaced.
template <class T>
class IndexMap
{
public:
    IndexMap() = default;
    ~IndexMap() { DestroyValues(); }
    IndexMap(IndexMap&& other) noexcept { Swap(other); }
    IndexMap& operator=(IndexMap&& other) noexcept
    {
        IndexMap taken(std::move(other));
        Swap(taken);
        return *this;
    }
    IndexMap(const IndexMap& other) : IndexMap() // a whole object from here on: destroyed when a value cannot be copied
    {
        for (size_t i = 0; i < other.Size(); ++i)
            Emplace(other.KeyAt(i), other.ValueAt(i));
    }
    IndexMap& operator=(const IndexMap& other)
    {
        IndexMap copy(other);
        Swap(copy);
        return *this;
    }

    [[nodiscard]] size_t Size() const noexcept { return m_Keys.size(); }
    [[nodiscard]] bool IsEmpty() const noexcept { return m_Keys.empty(); }
    [[nodiscard]] uint16_t KeyAt(size_t position) const noexcept { return m_Keys[position]; }
    [[nodiscard]] T& ValueAt(size_t position) noexcept { return *m_Values[position]; }
    [[nodiscard]] const T& ValueAt(size_t position) const noexcept { return *m_Values[position]; }
    [[nodiscard]] const std::vector<uint16_t>& Keys() const noexcept { return m_Keys; }

    [[nodiscard]] T* Find(uint16_t key) noexcept
    {
        const size_t position = LowerBound(key);
        return position < m_Keys.size() && m_Keys[position] == key ? m_Values[position] : nullptr;
    }
    [[nodiscard]] const T* Find(uint16_t key) const noexcept { return const_cast<IndexMap*>(this)->Find(key); }
    [[nodiscard]] bool Contains(uint16_t key) const noexcept { return Find(key) != nullptr; }

    /// The position of the first key that is not below key; Size() when there is none.
    [[nodiscard]] size_t LowerBound(uint16_t key) const noexcept
    {
        // Keys mostly arrive in ascending order, so the end is looked at first.
        if (m_Keys.empty() || m_Keys.back() < key)
            return m_Keys.size();
        return static_cast<size_t>(std::lower_bound(m_Keys.begin(), m_Keys.end(), key) - m_Keys.begin());
    }

    /// Constructs a value under a key that is not there yet. Strong guarantee.
    template <class... Arguments>
    T& Emplace(uint16_t key, Arguments&&... arguments)
    {
        return ReplaceKeyed([key](const T&) noexcept { return key; }, std::forward<Arguments>(arguments)...);
    }

    /// Constructs a value under a key; a value that is there already goes. Strong guarantee.
    template <class... Arguments>
    T& Replace(uint16_t key, Arguments&&... arguments)
    {
        return ReplaceKeyed([key](const T&) noexcept { return key; }, std::forward<Arguments>(arguments)...);
    }

    /// The same for a value whose key is known only when it is there: keyOf finds it in the value and does not throw.
    template <class KeyOf, class... Arguments>
    T& ReplaceKeyed(const KeyOf& keyOf, Arguments&&... arguments)
    {
        Grow(m_Keys);
        Grow(m_Values);
        if (m_Free.empty())
            AddSlab();
        T* const value = new (m_Free.back()) T(std::forward<Arguments>(arguments)...);
        m_Free.pop_back();
        const uint16_t key = keyOf(*value);
        const size_t position = LowerBound(key);
        if (position < m_Keys.size() && m_Keys[position] == key)
        {
            T* const old = std::exchange(m_Values[position], value);
            old->~T();
            m_Free.push_back(old); // never allocates: AddSlab reserved for every value
            return *value;
        }
        m_Keys.insert(m_Keys.begin() + static_cast<std::ptrdiff_t>(position), key);
        m_Values.insert(m_Values.begin() + static_cast<std::ptrdiff_t>(position), value);
        return *value;
    }

    /// False when the key is not there.
    bool Erase(uint16_t key) noexcept
    {
        const size_t position = LowerBound(key);
        if (position >= m_Keys.size() || m_Keys[position] != key)
            return false;
        m_Values[position]->~T();
        m_Free.push_back(m_Values[position]); // never allocates: AddSlab reserved for every value
        m_Keys.erase(m_Keys.begin() + static_cast<std::ptrdiff_t>(position));
        m_Values.erase(m_Values.begin() + static_cast<std::ptrdiff_t>(position));
        return true;
    }

    void Clear() noexcept
    {
        IndexMap empty;
        Swap(empty);
    }

private:
    struct Slab
    {
        explicit Slab(size_t capacity) : Memory(static_cast<T*>(::operator new(capacity * sizeof(T)))) {}
        ~Slab() { ::operator delete(Memory); }
        Slab(Slab&& other) noexcept : Memory(std::exchange(other.Memory, nullptr)) {}
        Slab& operator=(Slab&&) = delete;
        T* Memory;
    };

    static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__, "slabs are plain memory");

    static constexpr size_t kFirstSlab = 4;
    static constexpr size_t kLargestSlab = 64;

    // Doubling, before anything is changed, so that the insertions of Emplace cannot fail half-way.
    template <class Element>
    static void Grow(std::vector<Element>& vector)
    {
        if (vector.size() == vector.capacity())
            vector.reserve(std::max<size_t>(kFirstSlab, vector.size() * 2));
    }

    void AddSlab()
    {
        const size_t capacity = std::clamp(m_Keys.size(), kFirstSlab, kLargestSlab);
        m_Free.reserve(m_Keys.size() + capacity);
        m_Slabs.emplace_back(capacity);
        T* const memory = m_Slabs.back().Memory;
        for (size_t i = capacity; i > 0; --i) // handed out from the back: lowest address first
            m_Free.push_back(memory + (i - 1));
    }

    void DestroyValues() noexcept
    {
        for (T* const value : m_Values)
            value->~T();
    }

    void Swap(IndexMap& other) noexcept
    {
        m_Keys.swap(other.m_Keys);
        m_Values.swap(other.m_Values);
        m_Free.swap(other.m_Free);
        m_Slabs.swap(other.m_Slabs);
    }

    std::vector<uint16_t> m_Keys; // ascending
    std::vector<T*> m_Values;     // m_Values[i] belongs to m_Keys[i]
    std::vector<T*> m_Free;       // unused places in the slabs
    std::vector<Slab> m_Slabs;
};

} // namespace KxCommon
