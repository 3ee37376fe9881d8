// What a look-up and an addition cost while the store grows, and look-ups from several threads at once.
#include <cstdlib>
#include <random>

#include "bench/Calls.h"

#include <benchmark/benchmark.h>

using namespace Bench;

namespace
{

LookUps* g_Stores = nullptr; // what the threads of one benchmark read; set by the first

// Look-up and addition while one of the three grows: the rules in the set, the sets, the macros. The set has 512 rules
// while the others grow.
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
        Forget();
        return DataDirectory("calls");
    }
    Crowd m_Crowd;
    OurStore m_Store;
};

void CrowdedGet(benchmark::State& state, const Crowd& crowd)
{
    const CrowdedStore store(crowd);
    // The same 512 look-ups every time, so that the processor's caches are equally warm.
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
    const uint16_t key = RuleKey(crowd.Rules - 1u); // the last one is removed, which is not timed, and added again
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

} // namespace

void Bench::AddGrowth()
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
    for (uint16_t n = 1; n <= KXRULE_MAX_RULES; n *= 4)
        add("rules", n, {n, 1, 0});
    for (uint16_t n = 1; n <= KXRULE_MAX_RULESETS; n *= 4)
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
                    g_Stores = &Use(kSmall);
                PFW_RULE out;
                uint16_t i = 0;
                for (auto _ : state)
                {
                    OurGet(*g_Stores, {static_cast<uint16_t>(kFirstSet + i % kSmall.Sets), RuleKey(i % kSmall.Rules)},
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
                                             g_Stores = &Use(kSmall);
                                         static PFW_RULE source;
                                         PFW_RULE out;
                                         for (auto _ : state)
                                         {
                                             FloorGet(*g_Stores, {}, &source, &out);
                                             benchmark::DoNotOptimize(out);
                                         }
                                     })
            ->Threads(threads)
            ->UseRealTime();
    }
}
