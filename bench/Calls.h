// What the benchmarks of single calls share: the same rules in the library, at known addresses, in trees and in SQL.
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

constexpr int kWholeCache = 600000; // kilobytes: three times the full store

/// The lock that the floor of a look-up takes.
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

/// Every rule of a store, in order or in a shuffled order that is the same every time.
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
    std::unique_ptr<SqlStore> Sql; // encrypted
    CriticalSection Lock;
};

/// The stores of a shape, which live until another shape is requested.
LookUps& Use(const Shape& shape);
/// Releases them: the library holds one store at a time.
void Forget();

void OurGet(LookUps&, const Place& place, const PFW_RULE*, PFW_RULE* out);
/// A critical section and one copy from a known address.
void FloorGet(LookUps& stores, const Place&, const PFW_RULE* address, PFW_RULE* out);

/// Registers look-ups and additions in a growing store, and look-ups from several threads.
void AddGrowth();

} // namespace Bench
