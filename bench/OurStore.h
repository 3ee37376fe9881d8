// The library, called as its customers call it.
#pragma once

#include <string>

#include "api/include/KxPfwRule.h"
#include "bench/Bench.h"

namespace Bench
{

/// There is one store in a process, so there is one of these.
class OurStore
{
public:
    explicit OurStore(const std::string& directory);
    ~OurStore();
    OurStore(const OurStore&) = delete;
    OurStore& operator=(const OurStore&) = delete;

    /// Adds rule by rule: no copy of a set beside the store.
    void Fill(const Shape& shape);
    void WriteAll(); // all sets
    void ChangeOne(uint16_t set, uint16_t rule, const PFW_RULE& record);
    void ReadAll();
    [[nodiscard]] bool Holds(const Shape& shape) const;

    /// Has every set written by the next write, without changing any.
    static void MarkAll(const Shape& shape);
    static void AddSet(uint16_t set);
};

} // namespace Bench
