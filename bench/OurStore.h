// The library, called as programs call it.
#pragma once

#include <string>

#include "api/include/KxPfwRule.h"
#include "bench/Bench.h"

namespace Bench
{

/// A process has one store, so there is only one of these.
class OurStore
{
public:
    explicit OurStore(const std::string& directory);
    ~OurStore();
    OurStore(const OurStore&) = delete;
    OurStore& operator=(const OurStore&) = delete;

    /// Adds the rules one by one, so that no second copy of a set takes memory.
    void Fill(const Shape& shape);
    void WriteAll(); // all sets
    void ChangeOne(uint16_t set, uint16_t rule, const PFW_RULE& record);
    void ReadAll();
    [[nodiscard]] bool Holds(const Shape& shape) const;

    /// Makes the next write write every set, without changing any.
    static void MarkAll(const Shape& shape);
    static void AddSet(uint16_t set);
};

} // namespace Bench
