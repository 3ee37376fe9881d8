// The fields of each kind of rule: their names in JSON, their places and their types. Reading, writing, dumping and
// searching all use this table.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "api/include/KxPfwRule.h"
#include "common/srclib/KxComn_String.h"

namespace KxPolicy
{

struct Keyword
{
    uint32_t Value;
    const char* Name;
};
using Keywords = std::span<const Keyword>;

/// The name of a value, empty if the table has none.
[[nodiscard]] std::string_view KeywordName(Keywords keywords, uint32_t value) noexcept;
/// The same, but the number if the table has no name for it.
[[nodiscard]] std::string KeywordText(Keywords keywords, uint32_t value);
/// All names of the table, separated by commas.
[[nodiscard]] std::string KeywordNames(Keywords keywords);
/// Ignores case. Null if the table does not have the name.
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
    Application, // WideText; decides the switch "system" if that is not given
    Hash,        // 20 bytes as hexadecimal digits
    Extension    // an object: flag, value, shortValue, text, at the field's four places
};

/// Whether a field has to be in the file, and when it is written.
enum class Presence
{
    Always,   // always written, required
    Usual,    // always written, optional
    Sometimes // written if not zero, optional
};

struct RuleField
{
    const char* Name;
    FieldType Type;
    Presence When;
    std::array<uint16_t, 6> Places; // offsets in the record
    uint8_t Count;                  // places used; more than one make it a JSON array
    uint16_t Room;
    Keywords Names;
};

/// The switch that a reader, like the library, sets for a rule of the system if the text does not mention it.
inline constexpr std::string_view kSystemField = "system";

/// What "raw" may change outside rules and items: the names.
inline constexpr size_t kRuleSetNameBegin = offsetof(PFW_RULESET, wszName);
inline constexpr size_t kRuleSetNameEnd = offsetof(PFW_RULESET, nRuleCount);
inline constexpr size_t kMacroNameBegin = offsetof(PFW_MACRO, szName);
inline constexpr size_t kMacroNameEnd = offsetof(PFW_MACRO, nItemCount);

/// index, description, active and kind, which every rule has.
[[nodiscard]] std::span<const RuleField> CommonFields() noexcept;
/// What a kind has in addition; empty for unknown kinds.
[[nodiscard]] std::span<const RuleField> KindFields(uint32_t kind) noexcept;

/// The program that a rule is bound to; empty: none, or the kind has no such field.
[[nodiscard]] KxCommon::WideString ApplicationOf(const PFW_RULE& rule);

/// The record of a kind if the file does not mention any fields: active, every address and port any.
[[nodiscard]] PFW_RULE DefaultRule(uint32_t kind) noexcept;

} // namespace KxPolicy
