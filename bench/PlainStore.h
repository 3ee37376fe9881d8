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

/// The size of the library's own rule object.
struct StoredRule
{
    explicit StoredRule(const PFW_RULE& record) noexcept : Record(record) {}
    explicit StoredRule(const uint8_t* bytes) noexcept { std::memcpy(&Record, bytes, sizeof(Record)); }
    uint64_t Head[2] = {};
    PFW_RULE Record;
};
using RuleMap = IndexMap<StoredRule>;
using SetMap = IndexMap<RuleMap>;

/// Writes and reads files of the same sizes as the library's, in pieces of 1 MB, with the same durability: temporary
/// file, flush, replace. Only the encryption is left out, and nothing is added.
class PlainStore
{
public:
    explicit PlainStore(std::string directory) : m_Directory(std::move(directory)) {}

    void Fill(const Shape& shape);
    void WriteAll();
    /// Writes one set, and the macro file and the master file, which change only with the list of sets.
    void WriteSet(uint16_t set);
    void WriteSetFile(size_t position);
    /// Discards what is in memory and reads it again.
    void ReadAll(const Shape& shape);

    [[nodiscard]] const SetMap& Sets() const noexcept { return m_Sets; }
    /// The address of every record, set by set, to copy from.
    [[nodiscard]] std::vector<const PFW_RULE*> Records() const;

private:
    void WriteSmallFile(const char* name, size_t size);
    void Replace(const std::string& name);
    [[nodiscard]] std::string FileName(uint16_t set) const;

    std::string m_Directory;
    SetMap m_Sets;
    std::vector<uint8_t> m_Piece;
};

} // namespace Bench
