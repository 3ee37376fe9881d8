// What the benchmarks of single calls share: the same rules in the library, side by side with known addresses, in trees
// and in SQL.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/Bench.h"
#include "bench/OurStore.h"
#include "bench/PlainStore.h"
#include "bench/SqlStore.h"
#include "common/srclib/KxComn_Windows.h"

namespace Bench
{

constexpr int kWholeCache = 600000; // kilobytes: holds the full store twice over

/// The lock under a floor.
class CriticalSection
{
public:
    CriticalSection() { ::InitializeCriticalSection(&m_Section); }
    ~CriticalSection() { ::DeleteCriticalSection(&m_Section); }
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;
    void Lock() { ::EnterCriticalSection(&m_Section); }
    void Unlock() { ::LeaveCriticalSection(&m_Section); }

private:
    CRITICAL_SECTION m_Section;
};

struct Place
{
    uint16_t Set;
    uint16_t Rule;
};

/// Every rule of a store, in order or in an order that is the same each time.
std::vector<Place> Places(const Shape& shape, bool shuffled);

using TreeRules = std::map<uint16_t, StoredRule>;
using TreeSets = std::map<uint16_t, TreeRules>;

struct LookUps
{
    explicit LookUps(const Shape& shape);
    ~LookUps();
    const PFW_RULE* Address(const Place& place) const;

    const Shape Of;
    OurStore Ours;
    PlainStore Plain;
    TreeSets Trees;
    std::unique_ptr<SqlStore> Sql[2];
    CriticalSection Lock;
};

/// The stores of a shape, kept until another shape is asked for.
LookUps& Use(const Shape& shape);
/// Lets them go: the library holds one store at a time.
void Forget();

void OurGet(LookUps&, const Place& place, const PFW_RULE*, PFW_RULE* out);
/// A critical section and one copy from a known address.
void FloorGet(LookUps& stores, const Place&, const PFW_RULE* address, PFW_RULE* out);

/// Registers look-up and addition while the store grows, and look-ups from several threads.
void AddGrowth();

} // namespace Bench
