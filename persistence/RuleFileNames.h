// The names of the files of a rule directory, and which names from a master file are used.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace RuleFiles
{

/// "KxRl" + four upper-case hexadecimal digits + ".dat".
[[nodiscard]] std::string RuleSetFileName(uint16_t index);
/// True for a name that can only denote a file in the rule directory itself: no separator, colon, wildcard, quote,
/// angle bracket, bar or control byte, no leading or trailing dot or blank, no device name, not empty, at most 200
/// bytes. Names from a master file are checked here before anything is opened.
[[nodiscard]] bool IsBareName(std::string_view name) noexcept;
/// True for the names that RuleSetFileName returns, in any letter case: no other file may have one.
[[nodiscard]] bool IsOwnRuleSetFileName(std::string_view name) noexcept;
/// True for the names that the wildcard pattern of rule set files is meant to match: prefix, up to four characters,
/// extension, in any letter case. The system's own matching also finds longer names through their short ones.
[[nodiscard]] bool IsRuleSetFileName(std::string_view name) noexcept;
/// True for the names that the system gives the library's temporary files, in any letter case: one of three prefixes,
/// one to four hexadecimal digits, ".tmp".
[[nodiscard]] bool IsTemporaryFileName(std::string_view name) noexcept;
/// The index in a rule set file's name: up to four hexadecimal digits after the four-character prefix; 0 if there is
/// none.
[[nodiscard]] uint16_t IndexFromFileName(std::string_view fileName) noexcept;

} // namespace RuleFiles
