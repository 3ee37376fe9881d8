// Calls that fail on demand.
#pragma once

#include <cstdint>

// Counts calls and lets the chosen one fail, or that one and all later ones. One for file calls, one for allocations.
struct Faults
{
    uint32_t Calls = 0;
    uint32_t First = 0; // 0: none
    bool IsForGood = false;
    uint32_t Error = 0;

    void Arm(uint32_t first, bool isForGood, uint32_t error) { *this = {0, first, isForGood, error}; }
    /// Whether a call was made to fail since Arm.
    [[nodiscard]] bool Disarm()
    {
        const bool hasFailed = First != 0 && Calls >= First;
        First = 0;
        return hasFailed;
    }
    [[nodiscard]] bool IsFailing() { return First != 0 && (++Calls == First || (IsForGood && Calls > First)); }
};

// For the calling thread's allocations; the torture tests' operator new consults it.
extern thread_local Faults g_AllocationFaults;
