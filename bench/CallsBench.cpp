// Single calls: the library, the floor under each, and an SQL store inside one open transaction with all of its pages
// in memory.
//
//     calls_bench.exe --data=DIR [Google Benchmark's options]
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string_view>

#include "bench/Bench.h"
#include "bench/OurStore.h"
#include "bench/PlainStore.h"
#include "bench/SqlStore.h"
#include "common/srclib/KxComn_Trace.h"
#include "common/srclib/KxComn_Windows.h"

#include <benchmark/benchmark.h>

using namespace Bench;

// The trace as it is after start, to time a trace call that is off.
namespace KxCommon
{
std::atomic<bool> g_TraceActive = false;
void TraceLine(const char*, uint32_t, uint32_t, const char*, ...) noexcept {}
} // namespace KxCommon

namespace
{

constexpr int kWholeCache = 600000; // kilobytes: holds the full store twice over

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
CriticalSection g_First;
CriticalSection g_Second;

// ----------------------------------------------------------------------------------------------------- look-ups --

struct Place
{
    uint16_t Set;
    uint16_t Rule;
};

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

using TreeRules = std::map<uint16_t, StoredRule>;
using TreeSets = std::map<uint16_t, TreeRules>;

// The same rules in the library, side by side with known addresses, in trees, and in SQL. Kept until another shape is
// asked for.
struct LookUps
{
    explicit LookUps(const Shape& shape) : Of(shape), Ours(DataDirectory("calls")), Plain(DataDirectory("calls-plain"))
    {
        Ours.Fill(shape);
        Plain.Fill(shape);
        for (size_t i = 0; i < Plain.Sets().Size(); ++i)
            for (size_t j = 0; j < Plain.Sets().ValueAt(i).Size(); ++j)
                Trees[Plain.Sets().KeyAt(i)].emplace(Plain.Sets().ValueAt(i).KeyAt(j),
                                                     Plain.Sets().ValueAt(i).ValueAt(j).Record);
        for (const bool encrypted : {false, true})
        {
            const std::string path = DataRoot() + (encrypted ? "calls-aes.db" : "calls.db");
            SqlStore::FillNew(path, encrypted, Plain.Sets());
            auto& sql = Sql[encrypted];
            sql = std::make_unique<SqlStore>(path, encrypted, SqlStore::Journal::Rollback, kWholeCache);
            sql->Begin();
            PFW_RULE rule;
            for (const Place& place : Places(shape, false))
                Check(sql->Get(place.Set, place.Rule, &rule), "a row");
        }
    }
    ~LookUps()
    {
        for (uint16_t set = kFirstSet; set < kFirstSet + Of.Sets; ++set)
            kxRuleDeleteRule(set, 0); // so that the last write is short
        for (auto& sql : Sql)
            sql->Commit();
    }
    const PFW_RULE* Address(const Place& place) const
    {
        return &Plain.Sets().Find(place.Set)->Find(place.Rule)->Record;
    }
    const Shape Of;
    OurStore Ours;
    PlainStore Plain;
    TreeSets Trees;
    std::unique_ptr<SqlStore> Sql[2];
};
std::unique_ptr<LookUps> g_LookUps; // NOLINT: lives as long as main

LookUps& Use(const Shape& shape)
{
    if (!g_LookUps || !(g_LookUps->Of == shape))
    {
        g_LookUps.reset(); // the library holds one store at a time
        g_LookUps = std::make_unique<LookUps>(shape);
    }
    return *g_LookUps;
}

template <class Look>
void LookUp(benchmark::State& state, const Shape& shape, bool shuffled, Look look)
{
    LookUps& stores = Use(shape);
    const std::vector<Place> places = Places(shape, shuffled);
    std::vector<const PFW_RULE*> addresses;
    for (const Place& place : places)
        addresses.push_back(stores.Address(place));
    PFW_RULE out;
    size_t i = 0;
    for (auto _ : state)
    {
        look(stores, places[i], addresses[i], &out);
        benchmark::DoNotOptimize(out);
        i = i + 1 < places.size() ? i + 1 : 0;
    }
}

void OurGet(LookUps&, const Place& place, const PFW_RULE*, PFW_RULE* out)
{
    if (kxRuleGetRule(place.Set, place.Rule, out) != KXRULE_OK)
        std::abort();
}

void FloorGet(LookUps&, const Place&, const PFW_RULE* address, PFW_RULE* out)
{
    g_First.Lock();
    std::memcpy(out, address, sizeof(*out));
    g_First.Unlock();
}

void TreeGet(LookUps& stores, const Place& place, const PFW_RULE*, PFW_RULE* out)
{
    g_First.Lock();
    const auto set = stores.Trees.find(place.Set);
    const auto rule = set->second.find(place.Rule);
    std::memcpy(out, &rule->second.Record, sizeof(*out));
    g_First.Unlock();
}

template <bool kEncrypted>
void SqlGet(LookUps& stores, const Place& place, const PFW_RULE*, PFW_RULE* out)
{
    if (!stores.Sql[kEncrypted]->Get(place.Set, place.Rule, out))
        std::abort();
}

void OurIsActive(LookUps&, const Place& place, const PFW_RULE*, PFW_RULE* out)
{
    out->dwActive = static_cast<uint32_t>(kxRuleIsRuleActive(place.Set, place.Rule));
}

template <class Look>
void AddLookUp(const std::string& name, const Shape& shape, Look look)
{
    for (const bool shuffled : {false, true})
        benchmark::RegisterBenchmark((name + (shuffled ? "/random/" : "/order/") + shape.Name()).c_str(),
                                     [=](auto& state) { LookUp(state, shape, shuffled, look); })
            ->UseRealTime();
}

void AddLookUps(const Shape& shape)
{
    AddLookUp("get/ours", shape, OurGet);
    AddLookUp("get/floor", shape, FloorGet);
    AddLookUp("get/tree", shape, TreeGet);
    AddLookUp("get/sql", shape, SqlGet<false>);
    AddLookUp("get/sql-aes", shape, SqlGet<true>);
    AddLookUp("active/ours", shape, OurIsActive);
}

// -------------------------------------------------------------------------------------------------------- adding --

// One round fills an empty store; what it held before goes away untimed. Sets exist, rules are added one by one.
template <class Clear, class Put>
void Growing(benchmark::State& state, const Shape& shape, Clear clear, Put put)
{
    std::vector<PFW_RULE> rules;
    for (size_t i = 0; i < shape.Rules; ++i)
        rules.push_back(MakeRule(kFirstSet, i));
    for (auto _ : state)
    {
        clear();
        const double start = Seconds();
        for (uint16_t set = kFirstSet; set < kFirstSet + shape.Sets; ++set)
            for (size_t i = 0; i < shape.Rules; ++i)
                put(set, RuleKey(i), rules[i]);
        state.SetIterationTime((Seconds() - start) / static_cast<double>(shape.Total()));
    }
}

void AddGrowing(const Shape& shape)
{
    const auto add = [&shape](const char* who, auto run)
    {
        benchmark::RegisterBenchmark((std::string("add/") + who + "/" + shape.Name()).c_str(), run)
            ->UseManualTime()
            ->Iterations(static_cast<int64_t>(65536 * 4 / shape.Total()));
    };
    add("ours",
        [=](auto& state)
        {
            g_LookUps.reset();
            const OurStore store(DataDirectory("calls"));
            for (uint16_t set = kFirstSet; set < kFirstSet + shape.Sets; ++set)
                OurStore::AddSet(set);
            const auto clear = [&]
            {
                for (uint16_t set = kFirstSet; set < kFirstSet + shape.Sets; ++set)
                    kxRuleDeleteRule(set, 0);
            };
            Growing(state, shape, clear,
                    [](uint16_t set, uint16_t key, const PFW_RULE& rule)
                    {
                        if (kxRuleAddRule(set, key, &rule) != KXRULE_OK)
                            std::abort();
                    });
            clear();
        });
    add("floor",
        [=](auto& state)
        {
            TreeSets trees;
            Growing(
                state, shape,
                [&]
                {
                    for (uint16_t set = kFirstSet; set < kFirstSet + shape.Sets; ++set)
                        trees[set].clear();
                },
                [&](uint16_t set, uint16_t key, const PFW_RULE& rule)
                {
                    g_First.Lock();
                    g_Second.Lock();
                    trees.find(set)->second.emplace(key, rule);
                    g_Second.Unlock();
                    g_First.Unlock();
                });
        });
    for (const bool encrypted : {false, true})
        add(encrypted ? "sql-aes" : "sql",
            [=](auto& state)
            {
                const std::string path = DataRoot() + "calls-add.db";
                std::unique_ptr<SqlStore> sql;
                Growing(
                    state, shape,
                    [&]
                    {
                        sql.reset();
                        SqlStore::FillNew(path, encrypted, SetMap());
                        sql = std::make_unique<SqlStore>(path, encrypted, SqlStore::Journal::Rollback, kWholeCache);
                        sql->Begin();
                    },
                    [&](uint16_t set, uint16_t key, const PFW_RULE& rule) { sql->Insert(set, key, rule); });
            });
}

// --------------------------------------------------------------------------------------------------- lines, trace --

// What a line of 64 characters cannot do without: a reserved string, its numbers and words, a bounded copy.
void FloorLine(const PFW_RULE& rule, char* text, size_t size)
{
    std::string line;
    line.reserve(256);
    const auto number = [&line](uint32_t value)
    {
        char digits[12];
        line.append(digits, std::to_chars(digits, digits + sizeof(digits), value).ptr);
    };
    const auto dotted = [&](uint32_t address)
    {
        for (int shift = 24; shift >= 0; shift -= 8)
        {
            number(address >> shift & 255);
            if (shift != 0)
                line += '.';
        }
    };
    const RULE_ADDR(&addresses)[2] = rule.Access.Addr;
    line += "ACCESS,";
    line += "TCP";
    line += ',';
    dotted(addresses[0].Addr1.dwIPv4);
    line += ",!";
    dotted(addresses[1].Addr1.dwIPv4);
    line += '/';
    dotted(addresses[1].Addr2.dwIPv4);
    line += ",,";
    number(rule.Access.Port[1].wPort1);
    line += ':';
    number(rule.Access.Port[1].wPort2);
    line += ',';
    line += "ACCEPT";
    line += ',';
    number(rule.Access.dwExtValue);
    line += ':';
    number(rule.Access.wExtValue);
    line += ':';
    line += "abc";
    const size_t length = std::min(line.size(), size);
    std::memcpy(text, line.data(), length);
    std::memset(text + length, 0, size - length);
}

void AddLines()
{
    benchmark::RegisterBenchmark("line/ours",
                                 [](auto& state)
                                 {
                                     g_LookUps.reset();
                                     const OurStore store(DataDirectory("calls"));
                                     OurStore::AddSet(kFirstSet);
                                     const PFW_RULE rule = MakeTextRule();
                                     Check(kxRuleAddRule(kFirstSet, RuleKey(0), &rule) == KXRULE_OK, "kxRuleAddRule");
                                     char text[128];
                                     for (auto _ : state)
                                     {
                                         benchmark::DoNotOptimize(
                                             kxRuleGetRuleString(kFirstSet, RuleKey(0), text, sizeof(text)));
                                         benchmark::ClobberMemory();
                                     }
                                     Check(std::string_view(text) == kTextLine, text);
                                 })
        ->UseRealTime();
    benchmark::RegisterBenchmark("line/ours-record",
                                 [](auto& state)
                                 {
                                     const PFW_RULE rule = MakeTextRule();
                                     char text[128];
                                     for (auto _ : state)
                                     {
                                         benchmark::DoNotOptimize(kxRuleGetRuleString2(&rule, text, sizeof(text)));
                                         benchmark::ClobberMemory();
                                     }
                                     Check(std::string_view(text) == kTextLine, text);
                                 })
        ->UseRealTime();
    benchmark::RegisterBenchmark("line/floor",
                                 [](auto& state)
                                 {
                                     PFW_RULE rule = MakeTextRule();
                                     char text[128];
                                     for (auto _ : state)
                                     {
                                         benchmark::DoNotOptimize(rule);
                                         FloorLine(rule, text, sizeof(text));
                                         benchmark::ClobberMemory();
                                     }
                                     Check(std::string_view(text) == kTextLine, text);
                                 })
        ->UseRealTime();
}

// A loop of calls with and without a trace line in them; the difference is what the line costs.
template <bool kTraced>
[[gnu::noinline]] void Step(uint32_t value)
{
    if constexpr (kTraced)
        KX_TRACE(KxCommon::kTraceCall, "step %u", static_cast<unsigned>(value));
    benchmark::ClobberMemory();
}

void AddTrace()
{
    const auto run = [](auto step)
    {
        return [step](auto& state)
        {
            uint32_t value = 0;
            for (auto _ : state)
                step(++value);
        };
    };
    benchmark::RegisterBenchmark("trace/off", run(Step<true>))->UseRealTime();
    benchmark::RegisterBenchmark("trace/none", run(Step<false>))->UseRealTime();
}

// -------------------------------------------------------------------------------------------------------- growth --

// Look-up and addition while one of the three grows: rules in the set, other sets, macros. 512 rules stay untouched by
// what is timed but for the first row, where the set has as many rules as the row says.
struct Crowd
{
    uint16_t Rules;
    uint16_t Sets;
    int Macros;
};

class CrowdedStore
{
public:
    explicit CrowdedStore(const Crowd& crowd) : m_Crowd(crowd), m_Store(Directory())
    {
        m_Store.Fill({crowd.Sets, crowd.Rules});
        std::vector<uint8_t> bytes(KXRULE_MACRO_BYTES(4));
        auto* const macro = reinterpret_cast<PFW_MACRO*>(bytes.data());
        macro->szName[0] = 'm';
        macro->nItemCount = 4;
        for (int i = 0; i < crowd.Macros; ++i)
            kxRuleAddMacro(macro);
    }
    ~CrowdedStore()
    {
        kxRuleDeleteMacro();
        for (uint16_t set = kFirstSet; set < kFirstSet + m_Crowd.Sets; ++set)
            kxRuleDeleteRule(set, 0);
    }

private:
    static std::string Directory()
    {
        g_LookUps.reset();
        return DataDirectory("calls");
    }
    Crowd m_Crowd;
    OurStore m_Store;
};

void CrowdedGet(benchmark::State& state, const Crowd& crowd)
{
    const CrowdedStore store(crowd);
    // The same 512 look-ups each time, so that the processor's caches see the same.
    std::vector<uint16_t> keys;
    for (size_t i = 0; i < 512; ++i)
        keys.push_back(RuleKey(i % crowd.Rules));
    std::shuffle(keys.begin(), keys.end(), std::mt19937(1));
    PFW_RULE out;
    size_t i = 0;
    for (auto _ : state)
    {
        if (kxRuleGetRule(kFirstSet, keys[i++ & 511], &out) != KXRULE_OK)
            std::abort();
        benchmark::DoNotOptimize(out);
    }
}

void CrowdedAdd(benchmark::State& state, const Crowd& crowd)
{
    const CrowdedStore store(crowd);
    const PFW_RULE rule = MakeRule(kFirstSet, 1);
    const uint16_t key = RuleKey(crowd.Rules - 1u); // the last is taken away, untimed, and added again
    for (auto _ : state)
    {
        constexpr int kTimes = 64;
        double seconds = 0;
        for (int i = 0; i < kTimes; ++i)
        {
            kxRuleDeleteRule(kFirstSet, key);
            const double start = Seconds();
            if (kxRuleAddRule(kFirstSet, key, &rule) != KXRULE_OK)
                std::abort();
            seconds += Seconds() - start;
        }
        state.SetIterationTime(seconds / kTimes);
    }
}

void AddGrowth()
{
    const auto add = [](const std::string& what, int value, const Crowd& crowd)
    {
        const std::string name = "/" + what + "/" + std::to_string(value);
        benchmark::RegisterBenchmark(("growth/get" + name).c_str(), [=](auto& state) { CrowdedGet(state, crowd); })
            ->UseRealTime();
        benchmark::RegisterBenchmark(("growth/add" + name).c_str(), [=](auto& state) { CrowdedAdd(state, crowd); })
            ->UseManualTime()
            ->Iterations(50);
    };
    for (uint16_t n = 1; n <= KXRULE_MAX_RULES; n *= 2)
        add("rules", n, {n, 1, 0});
    for (uint16_t n = 1; n <= KXRULE_MAX_RULESETS; n *= 2)
        add("sets", n, {512, n, 0});
    for (int n = 1; n <= 4096; n *= 4)
        add("macros", n, {512, 1, n});
    for (int threads = 1; threads <= 8; threads *= 2)
    {
        benchmark::RegisterBenchmark(
            "threads/ours",
            [](auto& state)
            {
                if (state.thread_index() == 0)
                    Use(kSmall);
                PFW_RULE out;
                uint16_t i = 0;
                for (auto _ : state)
                {
                    OurGet(*g_LookUps, {static_cast<uint16_t>(kFirstSet + i % kSmall.Sets), RuleKey(i % kSmall.Rules)},
                           nullptr, &out);
                    benchmark::DoNotOptimize(out);
                    ++i;
                }
            })
            ->Threads(threads)
            ->UseRealTime();
        benchmark::RegisterBenchmark("threads/floor",
                                     [](auto& state)
                                     {
                                         if (state.thread_index() == 0)
                                             Use(kSmall);
                                         static PFW_RULE source;
                                         PFW_RULE out;
                                         for (auto _ : state)
                                         {
                                             FloorGet(*g_LookUps, {}, &source, &out);
                                             benchmark::DoNotOptimize(out);
                                         }
                                     })
            ->Threads(threads)
            ->UseRealTime();
    }
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<char*> arguments(argv, argv + argc);
    SetDataRoot(TakeOption(arguments, "data", "bench-data"));
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    AddLookUps(kSmall);
    AddLookUps(kFull);
    AddGrowing(kSmall);
    AddGrowing(kFull);
    AddLines();
    AddTrace();
    AddGrowth();
    benchmark::RunSpecifiedBenchmarks();
    g_LookUps.reset();
    return 0;
}
