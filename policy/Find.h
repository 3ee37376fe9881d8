// Which rules and macros mention a text, an address or a port.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "policy/Policy.h"

namespace KxPolicy
{

struct Hit
{
    const RuleSetRecord* RuleSet = nullptr; // null: a macro
    const PFW_RULE* Rule = nullptr;         // null: the rule set's name, or a macro
    const MacroRecord* Macro = nullptr;
    std::string Where; // the fields, separated by commas
};

/// An address, a prefix or a range finds items that mean some of it; a number finds ports that mean it, and numbers in
/// texts; anything else finds texts that contain it, ignoring case. Items that mean any are found on request. A name
/// means what the macros of that name mean, and is also found by their texts.
[[nodiscard]] std::vector<Hit> Find(const Policy& policy, std::string_view query, bool withAny = false);

/// Whether a text contains another, ignoring case; no text contains the empty one.
[[nodiscard]] bool Contains(KxCommon::WideStringView text, KxCommon::WideStringView part) noexcept;

/// What is wrong with a query that looks like an address or ports but is neither; empty if nothing is.
[[nodiscard]] std::string QueryMistake(std::string_view query);

} // namespace KxPolicy
