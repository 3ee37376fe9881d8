// Single calls: the library, the floor under each, and an SQL store inside one open transaction with all of its pages
// in memory.
//
//     calls_bench.exe --data=DIR [Google Benchmark's options]
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "bench/Calls.h"
#include "common/srclib/KxComn_Trace.h"

#include <benchmark/benchmark.h>

using namespace Bench;

// The trace in its initial state, to time a trace call that is off.
namespace KxCommon
{
std::atomic<bool> g_TraceActive = false;
void TraceLine(const char*, uint32_t, uint32_t, const char*, ...) noexcept {}
} // namespace KxCommon

namespace
{

// ----------------------------------------------------------------------------------------------------- look-ups --

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

void TreeGet(LookUps& stores, const Place& place, const PFW_RULE*, PFW_RULE* out)
{
    stores.Lock.Lock();
    const auto set = stores.Trees.find(place.Set);
    const auto rule = set->second.find(place.Rule);
    std::memcpy(out, &rule->second.Record, sizeof(*out));
    stores.Lock.Unlock();
}

void SqlGet(LookUps& stores, const Place& place, const PFW_RULE*, PFW_RULE* out)
{
    if (!stores.Sql->Get(place.Set, place.Rule, out))
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
    if (HasPeers())
        AddLookUp("get/sql-aes", shape, SqlGet);
    AddLookUp("active/ours", shape, OurIsActive);
}

// -------------------------------------------------------------------------------------------------------- adding --

// Each round fills an empty store; removing the previous contents is not timed. Sets exist, rules are added one by one.
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
            ->Iterations(static_cast<int64_t>(65536 / shape.Total()));
    };
    add("ours",
        [=](auto& state)
        {
            Forget();
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
            CriticalSection first;
            CriticalSection second;
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
                    first.Lock();
                    second.Lock();
                    trees.find(set)->second.emplace(key, rule);
                    second.Unlock();
                    first.Unlock();
                });
        });
    add("sql-aes",
        [=](auto& state)
        {
            const std::string path = DataRoot() + "calls-add.db";
            std::unique_ptr<SqlStore> sql;
            Growing(
                state, shape,
                [&]
                {
                    sql.reset();
                    SqlStore::FillNew(path, true, SetMap());
                    sql = std::make_unique<SqlStore>(path, true, SqlStore::Journal::Rollback, kWholeCache);
                    sql->Begin();
                },
                [&](uint16_t set, uint16_t key, const PFW_RULE& rule) { sql->Insert(set, key, rule); });
        });
}

// --------------------------------------------------------------------------------------------------- lines, trace --

// What a line of 64 characters takes in a string that is reserved once: its numbers and words, and a bounded copy.
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
                                     Forget();
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

// A loop of calls with and without a trace line; the difference is the cost of the line.
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

} // namespace

int main(int argc, char** argv)
{
    std::vector<char*> arguments(argv, argv + argc);
    SetDataRoot(TakeOption(arguments, "data", "bench-data"));
    SetPeers(TakeOption(arguments, "peers", "yes") == "yes");
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
    Forget();
    return 0;
}
