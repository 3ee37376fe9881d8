// What the benchmark programs share: the data they store, the clock, memory figures, directories, child processes.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "api/include/KxPfwRule.h"

namespace Bench
{

/// How much a store holds. Rule sets are numbered 1, 2, 3; rules 10, 20, 30, as administrators number them.
struct Shape
{
    uint16_t Sets;
    uint16_t Rules; // in each set

    [[nodiscard]] size_t Total() const noexcept { return size_t{Sets} * Rules; }
    [[nodiscard]] std::string Name() const { return std::to_string(Sets) + "x" + std::to_string(Rules); }
    bool operator==(const Shape&) const = default;
};
inline constexpr Shape kSmall = {3, 100};
inline constexpr Shape kFull = {KXRULE_MAX_RULESETS, KXRULE_MAX_RULES};
inline constexpr uint16_t kFirstSet = 1;
inline constexpr uint16_t kKeyStep = 10;

[[nodiscard]] constexpr uint16_t RuleKey(size_t position) noexcept
{
    return static_cast<uint16_t>(kKeyStep * (position + 1));
}

/// One rule, the same on every call: kinds 1 to 5 in turn, application rules with their hash filled in.
[[nodiscard]] PFW_RULE MakeRule(uint16_t set, size_t position);
/// An access rule whose line of text has 64 characters.
[[nodiscard]] PFW_RULE MakeTextRule();
inline constexpr char kTextLine[] = "ACCESS,TCP,192.168.0.1,!10.0.0.0/255.0.0.0,,80:90,ACCEPT,7:3:abc";

/// Unless ok, ends the program with the text and the system's error number.
void Check(bool ok, const char* what);

[[nodiscard]] double Seconds() noexcept;

/// Working set in bytes: current, and peak since the process started.
struct Memory
{
    uint64_t Now;
    uint64_t Peak;
};
[[nodiscard]] Memory MemoryUse();

/// The named directory below the program's data directory, with a trailing backslash; created if missing.
[[nodiscard]] std::string DataDirectory(const std::string& name);
void SetDataRoot(std::string root);
[[nodiscard]] const std::string& DataRoot() noexcept;

/// Whether the SQL store takes part; it is not needed to measure a change in the library.
[[nodiscard]] bool HasPeers() noexcept;
void SetPeers(bool hasPeers) noexcept;

/// Runs this program as a child process with these arguments and returns the numbers it reported.
using Numbers = std::map<std::string, double>;
[[nodiscard]] Numbers RunChild(const std::string& arguments);
/// In the child: passes numbers to the parent.
void Report(const std::string& path, const Numbers& numbers);

/// Removes "--name=value" from the arguments and returns the value, or the fallback if there is none.
[[nodiscard]] std::string TakeOption(std::vector<char*>& arguments, const std::string& name,
                                     const std::string& fallback);

} // namespace Bench
