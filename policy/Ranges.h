// What address and port items mean, as sets.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "api/include/KxPfwRule.h"
#include "policy/Policy.h"
#include "policy/RangeSet.h"

namespace KxPolicy
{

/// Every address of both families; every number that 32 bits hold.
[[nodiscard]] AddressSet EveryAddress();
[[nodiscard]] NumberSet EveryNumber();

/// What an item means by itself. A negated one means the other addresses of its family, or the other ports; a port that
/// was never set means any. Nothing if its meaning is unknown: names, an address that was never set, other families,
/// lists that cannot be read, masks with many gaps.
[[nodiscard]] std::optional<AddressSet> SetOf(const RULE_ADDR& item);
[[nodiscard]] std::optional<NumberSet> SetOf(const RULE_PORT& item);

/// What items mean together with the macros of a policy. A name means all items of the right type of the macros that
/// have it, including names in them, except what negated ones mean; negated ones alone mean everything else. The
/// meaning of a name without such an item is unknown.
class Names
{
public:
    explicit Names(const Policy& policy);
    [[nodiscard]] std::optional<AddressSet> SetOf(const RULE_ADDR& item) const;
    [[nodiscard]] std::optional<NumberSet> SetOf(const RULE_PORT& item) const;

private:
    template <class Item>
    auto SetAt(const Item& item, size_t depth) const -> decltype(KxPolicy::SetOf(item));

    std::map<std::string, std::vector<const MacroRecord*>, std::less<>> m_Macros;
};

} // namespace KxPolicy
