// Calls that fail on demand: file calls, or allocations.
#pragma once

#include <cstdint>

/// Counts calls and lets the chosen one fail, or that one and all later ones.
struct Faults
{
    uint32_t Calls = 0;
    uint32_t First = 0; // 0: none
    bool IsForGood = false;
    uint32_t Error = 0;

    [[nodiscard]] bool HasFailed() const { return First != 0 && Calls >= First; }
    /// Counts a call.
    [[nodiscard]] bool IsFailing()
    {
        ++Calls;
        return HasFailed() && (IsForGood || Calls == First);
    }
};
