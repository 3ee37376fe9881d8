// The stores that single calls are measured on.
#include "bench/Calls.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>

namespace Bench
{

namespace
{

std::unique_ptr<LookUps> g_LookUps; // NOLINT: lives as long as main

} // namespace

std::vector<Place> Places(const Shape& shape, bool shuffled)
{
    std::vector<Place> places;
    for (uint16_t set = kFirstSet; set < kFirstSet + shape.Sets; ++set)
        for (size_t i = 0; i < shape.Rules; ++i)
            places.push_back({set, RuleKey(i)});
    if (shuffled)
        std::shuffle(places.begin(), places.end(), std::mt19937(1));
    return places;
}

LookUps::LookUps(const Shape& shape) : Of(shape), Ours(DataDirectory("calls")), Plain(DataDirectory("calls-plain"))
{
    Ours.Fill(shape);
    Plain.Fill(shape);
    for (size_t i = 0; i < Plain.Sets().Size(); ++i)
        for (size_t j = 0; j < Plain.Sets().ValueAt(i).Size(); ++j)
            Trees[Plain.Sets().KeyAt(i)].emplace(Plain.Sets().ValueAt(i).KeyAt(j),
                                                 Plain.Sets().ValueAt(i).ValueAt(j).Record);
    if (!HasPeers())
        return;
    const std::string path = DataRoot() + "calls-aes.db";
    SqlStore::FillNew(path, true, Plain.Sets());
    Sql = std::make_unique<SqlStore>(path, true, SqlStore::Journal::Rollback, kWholeCache);
    Sql->Begin();
    PFW_RULE rule;
    for (const Place& place : Places(shape, false))
        Check(Sql->Get(place.Set, place.Rule, &rule), "a row");
}

LookUps::~LookUps()
{
    for (uint16_t set = kFirstSet; set < kFirstSet + Of.Sets; ++set)
        kxRuleDeleteRule(set, 0); // keeps the last write short
    if (Sql)
        Sql->Commit();
}

const PFW_RULE* LookUps::Address(const Place& place) const
{
    return &Plain.Sets().Find(place.Set)->Find(place.Rule)->Record;
}

LookUps& Use(const Shape& shape)
{
    if (!g_LookUps || !(g_LookUps->Of == shape))
    {
        g_LookUps.reset(); // the library holds one store at a time
        g_LookUps = std::make_unique<LookUps>(shape);
    }
    return *g_LookUps;
}

void Forget()
{
    g_LookUps.reset();
}

void OurGet(LookUps&, const Place& place, const PFW_RULE*, PFW_RULE* out)
{
    if (kxRuleGetRule(place.Set, place.Rule, out) != KXRULE_OK)
        std::abort();
}

void FloorGet(LookUps& stores, const Place&, const PFW_RULE* address, PFW_RULE* out)
{
    stores.Lock.Lock();
    std::memcpy(out, address, sizeof(*out));
    stores.Lock.Unlock();
}

} // namespace Bench
