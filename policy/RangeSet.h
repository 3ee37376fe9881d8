// Sets as ascending ranges that neither overlap nor touch: of numbers, of addresses.
#pragma once

#include <algorithm>
#include <compare>
#include <cstdint>
#include <utility>
#include <vector>

namespace KxPolicy
{

/// Includes both ends.
template <class Value>
struct Range
{
    Value First;
    Value Last;
    bool operator==(const Range&) const = default;
};
template <class Value>
using RangeSet = std::vector<Range<Value>>;

/// An address of either family as a number; High is 0 for IPv4.
struct AddressValue
{
    uint32_t Family;
    uint64_t High;
    uint64_t Low;
    auto operator<=>(const AddressValue&) const = default;
};

using AddressSet = RangeSet<AddressValue>;
using NumberSet = RangeSet<uint32_t>;

[[nodiscard]] inline uint32_t Next(uint32_t value) noexcept
{
    return value + 1;
}
[[nodiscard]] inline uint32_t Previous(uint32_t value) noexcept
{
    return value - 1;
}
[[nodiscard]] inline AddressValue Next(AddressValue value) noexcept
{
    value.High += ++value.Low == 0 ? 1 : 0;
    return value;
}
[[nodiscard]] inline AddressValue Previous(AddressValue value) noexcept
{
    value.High -= value.Low-- == 0 ? 1 : 0;
    return value;
}

/// Builds a set of any ranges whose ends are in order.
template <class Value>
[[nodiscard]] RangeSet<Value> Merged(RangeSet<Value> ranges)
{
    std::sort(ranges.begin(), ranges.end(),
              [](const Range<Value>& a, const Range<Value>& b) { return a.First < b.First; });
    RangeSet<Value> set;
    for (const Range<Value>& range : ranges)
    {
        if (!set.empty() && (range.First <= set.back().Last || range.First == Next(set.back().Last)))
            set.back().Last = std::max(set.back().Last, range.Last);
        else
            set.push_back(range);
    }
    return set;
}

template <class Value>
[[nodiscard]] RangeSet<Value> Intersection(const RangeSet<Value>& a, const RangeSet<Value>& b)
{
    RangeSet<Value> both;
    for (auto i = a.begin(), j = b.begin(); i != a.end() && j != b.end(); (i->Last < j->Last ? i : j)++)
    {
        if (i->First <= j->Last && j->First <= i->Last)
            both.push_back({std::max(i->First, j->First), std::min(i->Last, j->Last)});
    }
    return both;
}

/// Whether they have anything in common.
template <class Value>
[[nodiscard]] bool Meet(const RangeSet<Value>& a, const RangeSet<Value>& b) noexcept
{
    for (auto i = a.begin(), j = b.begin(); i != a.end() && j != b.end(); (i->Last < j->Last ? i : j)++)
    {
        if (i->First <= j->Last && j->First <= i->Last)
            return true;
    }
    return false;
}

/// What is only in the first.
template <class Value>
[[nodiscard]] RangeSet<Value> Difference(const RangeSet<Value>& from, const RangeSet<Value>& what)
{
    RangeSet<Value> rest;
    auto cut = what.begin();
    for (Range<Value> range : from)
    {
        for (; cut != what.end() && cut->Last < range.First; ++cut)
            continue;
        bool isLeft = true;
        for (auto at = cut; isLeft && at != what.end() && at->First <= range.Last; ++at)
        {
            if (range.First < at->First)
                rest.push_back({range.First, Previous(at->First)});
            isLeft = at->Last < range.Last;
            if (isLeft)
                range.First = Next(at->Last);
        }
        if (isLeft)
            rest.push_back(range);
    }
    return rest;
}

} // namespace KxPolicy
