// The fields of each kind of rule: their names in JSON, their places and what they hold. Reading, writing, dumping and
// searching use this one table.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "api/include/KxPfwRule.h"

namespace KxPolicy
{

struct Keyword
{
    uint32_t Value;
    const char* Name;
};
using Keywords = std::span<const Keyword>;

/// The name of a value, empty when the table has none.
[[nodiscard]] std::string_view KeywordName(Keywords keywords, uint32_t value) noexcept;
/// The same, but the number when the table has none.
[[nodiscard]] std::string KeywordText(Keywords keywords, uint32_t value);
/// All names of the table, separated by commas.
[[nodiscard]] std::string KeywordNames(Keywords keywords);
/// Ignores case. Null when the table does not know the name.
[[nodiscard]] const Keyword* FindKeyword(Keywords keywords, std::string_view name) noexcept;

extern const Keywords kKinds;
extern const Keywords kItemTypes;

enum class FieldType
{
    Word,        // 16 bits
    DoubleWord,  // 32 bits
    Switch,      // 32 bits: false is 0, true is 1, any other value a number
    Keyword,     // 32 bits: a name of the field's table, or a number
    Address,     // RULE_ADDR
    Port,        // RULE_PORT
    Text,        // narrow, Room bytes, terminator included
    WideText,    // UTF-16, Room units, terminator included
    Application, // WideText; decides the switch "system" when that is not given
    Hash,        // 20 bytes as hexadecimal digits
    Extension    // an object: flag, value, shortValue, text, at the field's four places
};

/// When a field has to be in the file, and when it is written.
enum class Presence
{
    Always,   // written always, required
    Usual,    // written always, optional
    Sometimes // written when it is not zero, optional
};

struct RuleField
{
    const char* Name;
    FieldType Type;
    Presence When;
    std::array<uint16_t, 6> Places; // offsets in the record
    uint8_t Count;                  // places used; more than one make a JSON array
    uint16_t Room;
    Keywords Names;
};

/// The switch that a reader sets for a rule of the system when the text does not mention it, as the library does.
inline constexpr std::string_view kSystemField = "system";

/// What "raw" may change apart from rules and items: the names.
inline constexpr size_t kRuleSetNameBegin = offsetof(PFW_RULESET, wszName);
inline constexpr size_t kRuleSetNameEnd = offsetof(PFW_RULESET, nRuleCount);
inline constexpr size_t kMacroNameBegin = offsetof(PFW_MACRO, szName);
inline constexpr size_t kMacroNameEnd = offsetof(PFW_MACRO, nItemCount);

/// index, description, active and kind: what every rule has, whatever its kind.
[[nodiscard]] std::span<const RuleField> CommonFields() noexcept;
/// What a kind has in addition; empty for unknown kinds.
[[nodiscard]] std::span<const RuleField> KindFields(uint32_t kind) noexcept;

/// A record of that kind as it is when the file says nothing about its fields: every address and port any, active.
[[nodiscard]] PFW_RULE DefaultRule(uint32_t kind) noexcept;

} // namespace KxPolicy
