// Address and port items in the notation that users write: 10.0.0.0/8, !10.0.0.1, fe80::1-fe80::9, 80, 1000-2000, any.
// (A rule's line of text, which the library renders, has another form and leaves out IPv6.)
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "api/include/KxPfwRule.h"

namespace KxPolicy
{

inline constexpr char kAddressForms[] = "an address as any, 10.0.0.1, 10.0.0.0/8, 10.0.0.0/255.0.0.0, "
                                        "10.0.0.1-10.0.0.9, fe80::/10, @name or none, with ! in "
                                        "front to negate";
inline constexpr char kPortForms[] = "a port as any, 80, 1000-2000, !80, 80,443,1000-2000, list:TEXT, @name or none";

/// Text that ParseAddress reads. What cannot be expressed as text (spare bytes, unknown types) is left out.
[[nodiscard]] std::string AddressText(const RULE_ADDR& item);
[[nodiscard]] std::string PortText(const RULE_PORT& item);

/// Fills the whole item, unused bytes with zero. On failure, item stays as it was and why says what is wrong, in a form
/// that can follow "expected ...".
[[nodiscard]] bool ParseAddress(std::string_view text, RULE_ADDR& item, std::string& why);
[[nodiscard]] bool ParsePort(std::string_view text, RULE_PORT& item, std::string& why);

/// An address of one of the two families, without negation, prefix or range.
[[nodiscard]] bool ParseIPv4(std::string_view text, uint32_t& address) noexcept;
[[nodiscard]] bool ParseIPv6(std::string_view text, std::array<uint8_t, 16>& address) noexcept;
[[nodiscard]] std::string IPv4Text(uint32_t address);
/// The shortest form, in lower case.
[[nodiscard]] std::string IPv6Text(const std::array<uint8_t, 16>& address);

/// Digits only, for a number up to most.
[[nodiscard]] bool ParseNumber(std::string_view text, uint32_t most, uint32_t& number) noexcept;

} // namespace KxPolicy
