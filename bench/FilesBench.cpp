// Reading and writing whole stores: the library, the floor under it, and an SQL store, alternating in one run. Each
// read runs in a process of its own, as at the start of a service: most of its cost is touching new memory for the
// first time.
//
//     files_bench.exe --data=DIR --store=3x100|64x1024|growth [Google Benchmark's options]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <set>

#include "bench/Bench.h"
#include "bench/OurStore.h"
#include "bench/PlainStore.h"
#include "bench/SqlStore.h"
#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_Windows.h"
#include "persistence/Aes128.h"
#include "persistence/FileFormat.h"

#include <benchmark/benchmark.h>

using namespace Bench;

namespace
{

Shape ParseShape(const std::string& text)
{
    unsigned sets = 0;
    unsigned rules = 0;
    Check(std::sscanf(text.c_str(), "%ux%u", &sets, &rules) == 2, "a store is named SETSxRULES");
    return {static_cast<uint16_t>(sets), static_cast<uint16_t>(rules)};
}

std::string SqlPath(const Shape& shape, const char* name)
{
    return DataRoot() + name + "-" + shape.Name() + ".db";
}

// ---------------------------------------------------------------------------------------------------- children --

struct Child
{
    const char* Name;
    std::function<std::function<void()>(const Shape&)> Prepare; // returns the work to be timed
};

std::shared_ptr<PlainStore> NewPlain(const Shape& shape, bool fill)
{
    auto store = std::make_shared<PlainStore>(DataDirectory("plain-" + shape.Name()));
    if (fill)
        store->Fill(shape);
    return store;
}

std::shared_ptr<OurStore> NewOurs(const Shape& shape, bool fill)
{
    auto store = std::make_shared<OurStore>(DataDirectory("ours-" + shape.Name()));
    if (fill)
        store->Fill(shape);
    return store;
}

std::function<void()> ReadSql(const Shape& shape, bool encrypted)
{
    const std::string path = SqlPath(shape, encrypted ? "sql-aes" : "sql");
    auto sets = std::make_shared<SetMap>();
    return [=] { // opens, reads and closes, as the others do with their files
        SqlStore(path, encrypted, SqlStore::Journal::Rollback).ReadAll(*sets);
        Check(sets->Size() == shape.Sets, "sets read");
    };
}

// The start of a service up to the first answered look-up, with a copy of the DLL, since this program has one loaded
// already. Returns the seconds that each part took.
Numbers StartOurs(const Shape& shape)
{
    char own[MAX_PATH], copy[MAX_PATH];
    ::GetModuleFileNameA(::GetModuleHandleA("KxPfwRul.dll"), own, MAX_PATH);
    ::GetFullPathNameA((DataRoot() + "KxPfwRul.dll").c_str(), MAX_PATH, copy, nullptr);
    Check(::CopyFileA(own, copy, FALSE) != FALSE, "copy of the DLL");
    Numbers numbers;
    double last = Seconds();
    const auto note = [&](const char* part)
    {
        const double now = Seconds();
        numbers[part] = now - last;
        numbers["all"] += now - last;
        last = now;
    };
    const HMODULE library = ::LoadLibraryA(copy);
    const auto find = [library](const char* name) { return reinterpret_cast<void*>(::GetProcAddress(library, name)); };
    note("load");
    const std::string directory = DataDirectory("ours-" + shape.Name());
    Check(reinterpret_cast<kxRuleInitialize_FUNC*>(find("kxRuleInitialize"))(directory.c_str(), nullptr) == KXRULE_OK,
          "kxRuleInitialize");
    note("initialize");
    Check(reinterpret_cast<kxRuleRead_FUNC*>(find("kxRuleRead"))() == KXRULE_OK, "kxRuleRead");
    note("read");
    PFW_RULE rule;
    Check(reinterpret_cast<kxRuleGetRule_FUNC*>(find("kxRuleGetRule"))(kFirstSet, RuleKey(0), &rule) == KXRULE_OK,
          "kxRuleGetRule");
    note("look-up");
    reinterpret_cast<kxRuleFinalize_FUNC*>(find("kxRuleFinalize"))();
    return numbers;
}

// The same for the peer: reads everything, or only what the first look-up needs.
Numbers StartSql(const Shape& shape, bool readsAll)
{
    const double start = Seconds();
    SqlStore store(SqlPath(shape, "sql-aes"), true, SqlStore::Journal::Rollback);
    SetMap sets;
    if (readsAll)
        store.ReadAll(sets);
    PFW_RULE rule;
    store.Begin();
    Check(store.Get(kFirstSet, RuleKey(0), &rule), "a row");
    const double seconds = Seconds() - start;
    store.Commit();
    return {{"all", seconds}};
}

const Child kChildren[] = {
    {"read/ours",
     [](const Shape& shape)
     {
         return [shape, store = NewOurs(shape, false)]
         {
             store->ReadAll();
             Check(store->Holds(shape), "rules read");
         };
     }},
    {"read/floor",
     [](const Shape& shape) { return [shape, store = NewPlain(shape, false)] { store->ReadAll(shape); }; }},
    {"read/sql", [](const Shape& shape) { return ReadSql(shape, false); }},
    {"read/sql-aes", [](const Shape& shape) { return ReadSql(shape, true); }},
    {"write/ours", [](const Shape& shape) { return [store = NewOurs(shape, true)] { store->WriteAll(); }; }},
    {"write/floor", [](const Shape& shape) { return [store = NewPlain(shape, true)] { store->WriteAll(); }; }},
    {"write/sql-aes",
     [](const Shape& shape)
     {
         auto store = std::make_shared<SqlStore>(SqlPath(shape, "sql-aes-replace"), true, SqlStore::Journal::Rollback);
         return [store, plain = NewPlain(shape, true)] { store->ReplaceAll(plain->Sets()); };
     }},
};

int RunAsChild(const std::string& name, const Shape& shape, const std::string& report)
{
    if (name.starts_with("start/"))
    {
        Report(report, name == "start/ours" ? StartOurs(shape) : StartSql(shape, name == "start/sql-aes"));
        return 0;
    }
    for (const Child& child : kChildren)
        if (name == child.Name)
        {
            const std::function<void()> work = child.Prepare(shape);
            const Memory before = MemoryUse();
            const double start = Seconds();
            work();
            const double seconds = Seconds() - start;
            const Memory after = MemoryUse();
            Report(report, {{"seconds", seconds},
                            {"before", static_cast<double>(before.Now)},
                            {"peak_before", static_cast<double>(before.Peak)},
                            {"peak", static_cast<double>(after.Peak)}});
            return 0;
        }
    Check(false, name.c_str());
    return 1;
}

// ------------------------------------------------------------------------------------------------- in one process --

// One process holds the rules twice: in the library, and in the store that the floor and the peer share.
struct Stores
{
    explicit Stores(const Shape& shape)
        : Of(shape), Plain(NewPlain(shape, true)), Ours(NewOurs(shape, true)), Records(Plain->Records())
    {
        Ours->WriteAll();
        Plain->WriteAll();
        for (const bool encrypted : {false, true})
            for (const char* name : {"", "-replace", "-wal"})
                if (HasPeers())
                    SqlStore::FillNew(SqlPath(shape, (std::string(encrypted ? "sql-aes" : "sql") + name).c_str()),
                                      encrypted, Plain->Sets());
    }
    const Shape Of;
    std::shared_ptr<PlainStore> Plain;
    std::shared_ptr<OurStore> Ours;
    std::vector<const PFW_RULE*> Records;
};
std::unique_ptr<Stores> g_Stores; // NOLINT: lives as long as main

using Work = std::function<void()>;

void Add(const std::string& name, Work prepare, Work work)
{
    auto* const registered =
        benchmark::RegisterBenchmark((name + "/" + g_Stores->Of.Name()).c_str(),
                                     [prepare = std::move(prepare), work = std::move(work)](auto& state)
                                     {
                                         for (auto _ : state)
                                         {
                                             if (prepare)
                                                 prepare();
                                             const double start = Seconds();
                                             work();
                                             state.SetIterationTime(Seconds() - start);
                                         }
                                     });
    registered->UseManualTime()->Unit(benchmark::kMillisecond);
    if (g_Stores->Of == kFull)
        registered->Iterations(1);
}

void ByChild(benchmark::State& state, const std::string& name, const Shape& shape)
{
    const auto run = [&shape](const std::string& child)
    { return RunChild("--child=" + child + " --store=" + shape.Name()); };
    // Rounds run in any order, so what is read has to be written once beforehand.
    static std::set<std::string> written;
    if (name.starts_with("read/") && !g_Stores && written.insert(name + shape.Name()).second)
        run("write" + name.substr(name.find('/')));
    Numbers numbers;
    for (auto _ : state)
    {
        numbers = run(name);
        state.SetIterationTime(numbers["seconds"]);
    }
    // The memory of the rules themselves is there before a write, but allocated during a read.
    const double rules = name.starts_with("read") ? static_cast<double>(shape.Total() * sizeof(PFW_RULE)) : 0;
    state.counters["peak_above_rules"] = numbers["peak"] - numbers["before"] - rules;
    state.counters["peak_before"] = numbers["peak_before"] - numbers["before"];
}

void AddChild(const std::string& name, const std::string& child, const Shape& shape)
{
    benchmark::RegisterBenchmark((name + "/" + shape.Name()).c_str(),
                                 [child, shape](auto& state) { ByChild(state, child, shape); })
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond)
        ->Iterations(1);
}

void AddSql(bool encrypted)
{
    const std::string name = encrypted ? "sql-aes" : "sql";
    const Shape shape = g_Stores->Of;
    const SetMap& sets = g_Stores->Plain->Sets();
    for (const auto journal : {SqlStore::Journal::Rollback, SqlStore::Journal::WriteAhead})
    {
        const bool wal = journal == SqlStore::Journal::WriteAhead;
        const std::string path = SqlPath(shape, (name + (wal ? "-wal" : "-replace")).c_str());
        auto store = std::make_shared<std::unique_ptr<SqlStore>>();
        const Work open = [=] { *store = std::make_unique<SqlStore>(path, encrypted, journal); };
        Add("write/" + name + (wal ? "-wal" : "-rollback"), open, [=, &sets] { (*store)->ReplaceAll(sets); });
        Add(
            "change/" + name + (wal ? "-wal" : "-rollback"),
            [=]
            {
                if (!*store)
                    open();
            },
            [=] { (*store)->ReplaceOne(kFirstSet, RuleKey(50), *g_Stores->Records[50]); });
    }
    Add("write/" + name + "-fill", nullptr,
        [=, &sets] { SqlStore::FillNew(SqlPath(shape, (name + "-fill").c_str()), encrypted, sets); });
}

void AddCipher()
{
    // The cipher alone at its best: records from memory, as many chains at once as possible, into a buffer that stays
    // in the cache.
    const auto keys = std::make_shared<Aes128::KeySchedule>(FileFormat::kKey);
    constexpr size_t kChains = Aes128::kMostChains;
    const auto out = std::make_shared<std::vector<uint8_t>>(kChains * Aes128::CipherBytes(sizeof(PFW_RULE)));
    Add("cipher/encrypt", nullptr,
        [=]
        {
            const auto& records = g_Stores->Records;
            for (size_t i = 0; i < records.size(); i += kChains)
            {
                const void* from[kChains];
                uint8_t* to[kChains];
                const size_t count = std::min(kChains, records.size() - i);
                for (size_t j = 0; j < count; ++j)
                {
                    from[j] = records[i + j];
                    to[j] = out->data() + j * Aes128::CipherBytes(sizeof(PFW_RULE));
                }
                Aes128::EncryptPadded(Aes128::BestCipher(), *keys, from, to, count, sizeof(PFW_RULE));
            }
        });
    Add("cipher/decrypt", nullptr,
        [=]
        {
            constexpr size_t kBlocks = sizeof(PFW_RULE) / Aes128::kBlock;
            for (const PFW_RULE* record : g_Stores->Records)
            {
                uint8_t iv[Aes128::kBlock] = {};
                Aes128::BestCipher().DecryptChain(*keys, reinterpret_cast<const uint8_t*>(record), out->data(), iv,
                                                  kBlocks);
            }
        });
}

void AddAll(const Shape& shape)
{
    g_Stores = std::make_unique<Stores>(shape);
    Add(
        "write/ours", [=] { OurStore::MarkAll(shape); }, [] { g_Stores->Ours->WriteAll(); });
    Add("write/floor", nullptr, [] { g_Stores->Plain->WriteAll(); });
    Add("change/ours", nullptr, [] { g_Stores->Ours->ChangeOne(kFirstSet, RuleKey(50), *g_Stores->Records[50]); });
    Add("change/floor", nullptr, [] { g_Stores->Plain->WriteSet(kFirstSet); });
    Add("change/floor-one-file", nullptr, [] { g_Stores->Plain->WriteSetFile(0); });
    if (shape == kSmall)
    {
        const auto file = std::make_shared<KxCommon::UniqueFile>(
            ::CreateFileA((DataRoot() + "flush").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
        Add("flush", nullptr,
            [file]
            {
                const uint8_t page[4096] = {};
                DWORD written = 0;
                Check(::WriteFile(file->get(), page, sizeof page, &written, nullptr) != FALSE, "WriteFile");
                Check(::FlushFileBuffers(file->get()) != FALSE, "FlushFileBuffers");
            });
    }
    if (HasPeers())
    {
        AddSql(false);
        AddSql(true);
    }
    AddCipher();
    auto copy = std::make_shared<std::vector<PFW_RULE>>(shape.Total());
    Add("copy", nullptr,
        [=]
        {
            for (size_t i = 0; i < copy->size(); ++i)
                (*copy)[i] = *g_Stores->Records[i];
            benchmark::ClobberMemory();
        });
    for (const char* who : {"ours", "floor", "sql", "sql-aes"})
        if (HasPeers() || !std::string(who).starts_with("sql"))
            AddChild(std::string("read/") + who, std::string("read/") + who, shape);
    for (const char* who : {"ours", "floor", "sql-aes"})
        if (shape == kFull && (HasPeers() || who != std::string("sql-aes")))
            AddChild(std::string("memory/write/") + who, std::string("write/") + who, shape);
}

void AddGrowth()
{
    const auto add = [](const Shape& shape)
    {
        AddChild("growth/write/ours", "write/ours", shape);
        AddChild("growth/write/floor", "write/floor", shape);
        AddChild("growth/read/ours", "read/ours", shape);
        AddChild("growth/read/floor", "read/floor", shape);
    };
    for (uint16_t n = 1; n <= KXRULE_MAX_RULESETS; n *= 4)
        add({n, KXRULE_MAX_RULES});
    for (uint16_t n = 1; n < KXRULE_MAX_RULES; n *= 4)
        add({1, n});
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<char*> arguments(argv, argv + argc);
    SetDataRoot(TakeOption(arguments, "data", "bench-data"));
    SetPeers(TakeOption(arguments, "peers", "yes") == "yes");
    const std::string store = TakeOption(arguments, "store", kSmall.Name());
    const std::string report = TakeOption(arguments, "report", "");
    if (const std::string child = TakeOption(arguments, "child", ""); !child.empty())
        return RunAsChild(child, ParseShape(store), report);

    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (store == "growth")
        AddGrowth();
    else
        AddAll(ParseShape(store));
    benchmark::RunSpecifiedBenchmarks();
    g_Stores.reset();
    return 0;
}
