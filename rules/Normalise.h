// What is done to a record before it is stored, and what refuses it. Free functions over records, so that other code
// can find out what the library will hold.
#pragma once

#include "api/include/KxPfwRule.h"

namespace Normalise
{

/// Kinds 1 and 6.
[[nodiscard]] bool IsAccessRule(const PFW_RULE& rule) noexcept;

/// Changes access rules only: address and port ranges are put in order, the last unit of wszAppName becomes 0, and a
/// rule for "SYSTEM" gets dwSystem 1 and a hash of zeroes. A missing hash is left to the hash library.
void NormaliseRule(PFW_RULE& rule) noexcept;

/// True for an access rule whose application is "SYSTEM", which stands for the system itself and has no file to hash.
[[nodiscard]] bool IsSystemRule(const PFW_RULE& rule) noexcept;

/// True if a port list of an access rule contains no byte above 32, as signed characters. kept: bytes of 128 and above
/// count as blanks.
[[nodiscard]] bool HasBlankPortList(const PFW_RULE& rule) noexcept;

} // namespace Normalise
