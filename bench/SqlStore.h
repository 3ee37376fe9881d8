// The peer, what one would use instead: one SQL table with an integer key, 64 KB pages, plain or encrypted with AES-128
// in CBC mode, full durability.
#pragma once

#include <cstdint>
#include <string>

#include "api/include/KxPfwRule.h"
#include "bench/Bench.h"
#include "bench/PlainStore.h"

struct sqlite3;
struct sqlite3_stmt;

namespace Bench
{

class SqlStore
{
public:
    enum class Journal
    {
        Rollback,
        WriteAhead
    };

    SqlStore(std::string path, bool encrypted, Journal journal, int cacheKilobytes = 16000);
    ~SqlStore();
    SqlStore(const SqlStore&) = delete;
    SqlStore& operator=(const SqlStore&) = delete;

    /// Creates a new file with every rule, in one transaction, and closes it.
    static void FillNew(const std::string& path, bool encrypted, const SetMap& sets);
    static void Remove(const std::string& path);

    // Every record is changed before it is written: a row that stays the same costs next to nothing.
    void ReplaceAll(const SetMap& sets); // one transaction
    void ReplaceOne(uint16_t set, uint16_t rule, PFW_RULE record);
    void ReadAll(SetMap& sets); // into the same kind of map as the floor's

    // Inside a transaction that stays open, so that locks and flushes are paid once.
    void Begin();
    void Commit();
    bool Get(uint16_t set, uint16_t rule, PFW_RULE* out);
    void Insert(uint16_t set, uint16_t rule, const PFW_RULE& record);

private:
    void Run(const char* sql);
    [[nodiscard]] sqlite3_stmt* Prepare(const char* sql);
    void Put(sqlite3_stmt* statement, uint16_t set, uint16_t rule, const PFW_RULE& record);
    void CreateTable();
    void PrepareUpdate();

    sqlite3* m_Database = nullptr;
    sqlite3_stmt* m_Get = nullptr;
    sqlite3_stmt* m_Insert = nullptr;
    sqlite3_stmt* m_Update = nullptr;
};

} // namespace Bench
