// The ordered map under rule sets and rules: 16-bit key to value, walked in ascending key order.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "common/srclib/KxComn_Port.h"

/// Keys are sorted and contiguous, so a look-up touches two or three cache lines instead of one per tree level; values
/// are in slabs, never move, and need no allocation each. Find is logarithmic; so is adding if keys arrive in ascending
/// order; otherwise it moves the later keys (two and eight bytes each, 65536 at most). No lock of its own. Values are
/// neither copied nor moved after construction; references stay valid until erased or replaced.
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
    IndexMap(const IndexMap& other) : IndexMap() // complete from here on, so destroyed if a value cannot be copied
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
        if (key < m_First || key > m_Last)
            return nullptr;
        // Keys are mostly evenly spaced, and values are mostly added in ascending order. Then the guess is the position
        // and the value is in the place of that number: it is on its way while its key and its address still are.
        const uint32_t width = m_Last - m_First + 1u;
        const size_t guess = static_cast<uint32_t>(key - m_First) * static_cast<uint32_t>(m_Keys.size()) / width;
        Prefetch(PlaceOf(guess), 16 * kCacheLine); // a few lines, for it may be another one
        const size_t position = m_Keys[guess] == key ? guess : LowerBound(key);
        if (m_Keys[position] != key)
            return nullptr;
        Prefetch(m_Values[position], kCacheLine);
        return m_Values[position];
    }
    [[nodiscard]] const T* Find(uint16_t key) const noexcept { return const_cast<IndexMap*>(this)->Find(key); }
    [[nodiscard]] bool Contains(uint16_t key) const noexcept { return Find(key) != nullptr; }

    /// The position of the first key that is not below key; Size() if there is none.
    [[nodiscard]] size_t LowerBound(uint16_t key) const noexcept
    {
        // Keys mostly arrive in ascending order, so the end is checked first.
        if (m_Keys.empty() || m_Keys.back() < key)
            return m_Keys.size();
        return static_cast<size_t>(std::lower_bound(m_Keys.begin(), m_Keys.end(), key) - m_Keys.begin());
    }

    /// Constructs a value under a new key. Strong guarantee.
    template <class... Arguments>
    T& Emplace(uint16_t key, Arguments&&... arguments)
    {
        return ReplaceKeyed([key](const T&) noexcept { return key; }, std::forward<Arguments>(arguments)...);
    }

    /// Constructs a value under a key, replacing an existing value. Strong guarantee.
    template <class... Arguments>
    T& Replace(uint16_t key, Arguments&&... arguments)
    {
        return ReplaceKeyed([key](const T&) noexcept { return key; }, std::forward<Arguments>(arguments)...);
    }

    /// The same for a value whose key is known only once it is constructed: keyOf returns it, and can still look up the
    /// value that is about to be replaced.
    template <class KeyOf, class... Arguments>
    T& ReplaceKeyed(const KeyOf& keyOf, Arguments&&... arguments)
    {
        Grow(m_Keys);
        Grow(m_Values);
        T* const value = Construct(std::forward<Arguments>(arguments)...);
        uint16_t key = 0;
        try
        {
            key = keyOf(*value);
        }
        catch (...)
        {
            Destroy(value);
            throw;
        }
        const size_t position = LowerBound(key);
        if (position < m_Keys.size() && m_Keys[position] == key)
        {
            Destroy(std::exchange(m_Values[position], value));
            return *value;
        }
        m_Keys.insert(m_Keys.begin() + static_cast<std::ptrdiff_t>(position), key);
        m_Values.insert(m_Values.begin() + static_cast<std::ptrdiff_t>(position), value);
        NoteEnds();
        return *value;
    }

    /// False if there is no such key.
    bool Erase(uint16_t key) noexcept
    {
        const size_t position = LowerBound(key);
        if (position >= m_Keys.size() || m_Keys[position] != key)
            return false;
        Destroy(m_Values[position]);
        m_Keys.erase(m_Keys.begin() + static_cast<std::ptrdiff_t>(position));
        m_Values.erase(m_Values.begin() + static_cast<std::ptrdiff_t>(position));
        NoteEnds();
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
    /// What replaces an erased value.
    struct FreePlace
    {
        FreePlace* Next;
    };

    static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__, "slabs are plain memory");
    static_assert(sizeof(T) >= sizeof(FreePlace), "a place holds the way to the next free one");
    static_assert(alignof(T) >= alignof(FreePlace), "and may lie where a value does");

    static constexpr size_t kCacheLine = 64;
    // Slabs have 4, 4, 8, 16, 32, 64, 64, ... places, so the slab of a place follows from its number.
    static constexpr size_t kFirstSlab = 4;
    static constexpr size_t kLargestSlab = 64;

    // The address of the place that was taken as the number-th, counted from 0. Below Size() there always is one.
    [[nodiscard]] const T* PlaceOf(size_t number) const noexcept
    {
        const size_t slab = number < kLargestSlab ? static_cast<size_t>(std::bit_width(number / kFirstSlab))
                                                  : number / kLargestSlab + 4;
        const size_t first = number < kFirstSlab ? 0 : std::bit_floor(std::min(number, kLargestSlab));
        return m_Slabs[slab].Memory + (number - first) % kLargestSlab;
    }

    KX_ALWAYS_INLINE static void Prefetch(const T* value, size_t step) noexcept
    {
        for (size_t i = 0; i < sizeof(T); i += step)
            KX_PREFETCH(reinterpret_cast<const char*>(value) + i);
    }

    // Doubles the capacity before anything is changed, so that the insertions of Emplace cannot fail half-way.
    template <class Element>
    static void Grow(std::vector<Element>& vector)
    {
        if (vector.size() == vector.capacity())
            vector.reserve(std::max<size_t>(kFirstSlab, vector.size() * 2));
    }

    template <class... Arguments>
    T* Construct(Arguments&&... arguments)
    {
        void* const place = TakePlace();
        try
        {
            return new (place) T(std::forward<Arguments>(arguments)...);
        }
        catch (...)
        {
            ReturnPlace(place);
            throw;
        }
    }

    void Destroy(T* value) noexcept
    {
        value->~T();
        ReturnPlace(value);
    }

    void* TakePlace()
    {
        if (m_Free != nullptr)
            return std::exchange(m_Free, m_Free->Next);
        if (m_Untouched == 0)
        {
            const size_t capacity = kFirstSlab << (std::clamp<size_t>(m_Slabs.size(), 1, 5) - 1);
            m_Slabs.emplace_back(capacity);
            m_Untouched = capacity;
            m_Next = m_Slabs.back().Memory;
        }
        --m_Untouched;
        return m_Next++;
    }

    void ReturnPlace(void* place) noexcept { m_Free = new (place) FreePlace{m_Free}; }

    void DestroyValues() noexcept
    {
        for (T* const value : m_Values)
            value->~T();
    }

    void Swap(IndexMap& other) noexcept
    {
        m_Keys.swap(other.m_Keys);
        m_Values.swap(other.m_Values);
        m_Slabs.swap(other.m_Slabs);
        std::swap(m_First, other.m_First);
        std::swap(m_Last, other.m_Last);
        std::swap(m_Free, other.m_Free);
        std::swap(m_Next, other.m_Next);
        std::swap(m_Untouched, other.m_Untouched);
    }

    void NoteEnds() noexcept
    {
        m_First = m_Keys.empty() ? 0xFFFF : m_Keys.front();
        m_Last = m_Keys.empty() ? 0 : m_Keys.back();
    }

    std::vector<uint16_t> m_Keys; // ascending
    std::vector<T*> m_Values;     // m_Values[i] belongs to m_Keys[i]
    std::vector<Slab> m_Slabs;
    // The first and the last key, kept here so that a look-up need not wait for two more cache lines; of an empty map
    // the first is greater.
    uint16_t m_First = 0xFFFF;
    uint16_t m_Last = 0;
    FreePlace* m_Free = nullptr; // places of erased values
    T* m_Next = nullptr;         // the first of m_Untouched places at the end of the last slab
    size_t m_Untouched = 0;
};
