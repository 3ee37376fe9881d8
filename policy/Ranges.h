// What address and port items span.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "api/include/KxPfwRule.h"

namespace KxPolicy
{

/// Both ends belong to it; in network order, an IPv4 address in the first four bytes.
struct AddressRange
{
    uint32_t Family;
    std::array<uint8_t, 16> First;
    std::array<uint8_t, 16> Last;
};

struct PortRange
{
    uint16_t First;
    uint16_t Last;
};

/// What an item spans regardless of its negation. Nothing for any, none, names and families other than the two. A
/// mask with gaps gives the range from its first to its last address.
[[nodiscard]] std::optional<AddressRange> RangeOf(const RULE_ADDR& item) noexcept;
/// The same for ports, in the order of the item; empty for any, none, names and lists that cannot be read.
[[nodiscard]] std::vector<PortRange> RangesOf(const RULE_PORT& item);

[[nodiscard]] bool Overlap(const AddressRange& a, const AddressRange& b) noexcept;

/// True when the outer item includes everything that the inner one means. False when that is not known.
[[nodiscard]] bool Covers(const RULE_ADDR& outer, const RULE_ADDR& inner) noexcept;
[[nodiscard]] bool Covers(const RULE_PORT& outer, const RULE_PORT& inner);

/// True when the earlier access rule takes all traffic that the later one could match: the later one never matches.
[[nodiscard]] bool Covers(const PFW_RULE& earlier, const PFW_RULE& later);

} // namespace KxPolicy
