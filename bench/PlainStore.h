// The floor: the same rules in the same kind of map, and the same files without encryption.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "api/include/KxPfwRule.h"
#include "bench/Bench.h"
#include "repository/IndexMap.h"

namespace Bench
{

/// As large as the library's own rule object.
struct StoredRule
{
    explicit StoredRule(const PFW_RULE& record) noexcept : Record(record) {}
    explicit StoredRule(const uint8_t* bytes) noexcept { std::memcpy(&Record, bytes, sizeof(Record)); }
    uint64_t Head[2] = {};
    PFW_RULE Record;
};
using RuleMap = IndexMap<StoredRule>;
using SetMap = IndexMap<RuleMap>;

/// Writes and reads files of the sizes that the library's files have, in pieces of 1 MB, with the same durability:
/// temporary file, flush, replace. Nothing is spared but the encryption, and nothing done beside it.
class PlainStore
{
public:
    explicit PlainStore(std::string directory) : m_Directory(std::move(directory)) {}

    void Fill(const Shape& shape);
    void WriteAll();
    /// One set and, as the library must, the macro and the master file.
    void WriteSet(uint16_t set);
    /// Drops what is in memory and reads it again.
    void ReadAll(const Shape& shape);

    [[nodiscard]] const SetMap& Sets() const noexcept { return m_Sets; }
    /// Every record, set by set, for those who need addresses to copy from.
    [[nodiscard]] std::vector<const PFW_RULE*> Records() const;

private:
    void WriteSetFile(size_t position);
    void WriteSmallFile(const char* name, size_t size);
    void Replace(const std::string& name);
    [[nodiscard]] std::string FileName(uint16_t set) const;

    std::string m_Directory;
    SetMap m_Sets;
    std::vector<uint8_t> m_Piece;
};

} // namespace Bench
