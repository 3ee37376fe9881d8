// The peer. Where a setting is not the default, it made the peer faster here; see docs/performance.md.
#include "bench/SqlStore.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/srclib/KxComn_Windows.h"

#include "sqlite3.h"

namespace Bench
{
namespace
{

int64_t Id(uint16_t set, uint16_t rule)
{
    return int64_t{set} << 16 | rule;
}

void Need(bool ok, sqlite3* database, const char* what)
{
    if (ok)
        return;
    std::fprintf(stderr, "%s: %s\n", what, sqlite3_errmsg(database));
    std::exit(1);
}

} // namespace

SqlStore::SqlStore(std::string path, bool encrypted, Journal journal, int cacheKilobytes)
{
    Need(sqlite3_open(path.c_str(), &m_Database) == SQLITE_OK, m_Database, path.c_str());
    if (encrypted)
    {
        Run("PRAGMA cipher='aes128cbc'");
        Run("PRAGMA key='00112233445566778899aabbccddeeff'");
    }
    Run("PRAGMA page_size=65536");
    Run(journal == Journal::WriteAhead ? "PRAGMA journal_mode=WAL" : "PRAGMA journal_mode=DELETE");
    Run("PRAGMA synchronous=FULL");
    Run(("PRAGMA cache_size=-" + std::to_string(cacheKilobytes)).c_str());
}

SqlStore::~SqlStore()
{
    sqlite3_finalize(m_Get);
    sqlite3_finalize(m_Insert);
    sqlite3_finalize(m_Update);
    sqlite3_close(m_Database);
}

void SqlStore::Run(const char* sql)
{
    Need(sqlite3_exec(m_Database, sql, nullptr, nullptr, nullptr) == SQLITE_OK, m_Database, sql);
}

sqlite3_stmt* SqlStore::Prepare(const char* sql)
{
    sqlite3_stmt* statement = nullptr;
    Need(sqlite3_prepare_v2(m_Database, sql, -1, &statement, nullptr) == SQLITE_OK, m_Database, sql);
    return statement;
}

void SqlStore::CreateTable()
{
    Run("CREATE TABLE rule(id INTEGER PRIMARY KEY, body BLOB NOT NULL)");
}

void SqlStore::Remove(const std::string& path)
{
    for (const char* suffix : {"", "-journal", "-wal", "-shm"})
        ::DeleteFileA((path + suffix).c_str());
}

void SqlStore::FillNew(const std::string& path, bool encrypted, const SetMap& sets)
{
    Remove(path);
    SqlStore store(path, encrypted, Journal::Rollback);
    store.Begin();
    store.CreateTable();
    for (size_t i = 0; i < sets.Size(); ++i)
        for (size_t j = 0; j < sets.ValueAt(i).Size(); ++j)
            store.Insert(sets.KeyAt(i), sets.ValueAt(i).KeyAt(j), sets.ValueAt(i).ValueAt(j).Record);
    store.Commit();
}

void SqlStore::Put(sqlite3_stmt* statement, uint16_t set, uint16_t rule, const PFW_RULE& record)
{
    sqlite3_bind_int64(statement, 1, Id(set, rule));
    sqlite3_bind_blob(statement, 2, &record, sizeof(record), SQLITE_STATIC);
    Need(sqlite3_step(statement) == SQLITE_DONE, m_Database, "step");
    sqlite3_reset(statement);
}

void SqlStore::PrepareUpdate()
{
    if (m_Update == nullptr)
        m_Update = Prepare("UPDATE rule SET body=?2 WHERE id=?1");
}

void SqlStore::ReplaceAll(const SetMap& sets)
{
    Begin();
    for (size_t i = 0; i < sets.Size(); ++i)
        for (size_t j = 0; j < sets.ValueAt(i).Size(); ++j)
            ReplaceOne(sets.KeyAt(i), sets.ValueAt(i).KeyAt(j), sets.ValueAt(i).ValueAt(j).Record);
    Commit();
}

void SqlStore::ReplaceOne(uint16_t set, uint16_t rule, PFW_RULE record)
{
    static uint32_t changes = ::GetTickCount(); // differs from the values that an earlier process wrote
    PrepareUpdate();
    record.dwActive = ++changes;
    Put(m_Update, set, rule, record);
}

void SqlStore::ReadAll(SetMap& sets)
{
    sets.Clear();
    sqlite3_stmt* const statement = Prepare("SELECT id, body FROM rule ORDER BY id");
    RuleMap* rules = nullptr;
    int64_t current = -1;
    while (sqlite3_step(statement) == SQLITE_ROW)
    {
        const int64_t id = sqlite3_column_int64(statement, 0);
        if (id >> 16 != current)
        {
            current = id >> 16;
            rules = &sets.Emplace(static_cast<uint16_t>(current));
        }
        rules->Emplace(static_cast<uint16_t>(id), static_cast<const uint8_t*>(sqlite3_column_blob(statement, 1)));
    }
    sqlite3_finalize(statement);
}

void SqlStore::Begin()
{
    Run("BEGIN IMMEDIATE");
}

void SqlStore::Commit()
{
    Run("COMMIT");
}

bool SqlStore::Get(uint16_t set, uint16_t rule, PFW_RULE* out)
{
    if (m_Get == nullptr)
        m_Get = Prepare("SELECT body FROM rule WHERE id=?1");
    sqlite3_bind_int64(m_Get, 1, Id(set, rule));
    const bool found = sqlite3_step(m_Get) == SQLITE_ROW;
    if (found)
        std::memcpy(out, sqlite3_column_blob(m_Get, 0), sizeof(*out));
    sqlite3_reset(m_Get);
    return found;
}

void SqlStore::Insert(uint16_t set, uint16_t rule, const PFW_RULE& record)
{
    if (m_Insert == nullptr)
        m_Insert = Prepare("INSERT INTO rule(id, body) VALUES(?1, ?2)");
    Put(m_Insert, set, rule, record);
}

} // namespace Bench
