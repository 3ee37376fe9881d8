// A hash library that does as the test says.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <vector>

#include "api/include/KxPfwRule.h"
#include "common/srclib/KxComn_String.h"

/// What CHashDll does while this exists; without one, loading fails. One at a time.
class FakeHashDll
{
public:
    FakeHashDll() noexcept;
    ~FakeHashDll();
    FakeHashDll(const FakeHashDll&) = delete;
    FakeHashDll& operator=(const FakeHashDll&) = delete;

    bool LoadFails = false;
    int32_t Status = 0;
    std::array<uint8_t, KXRULE_HASH_BYTES> Hash{};           // written whatever the status
    std::function<void(const KxCommon::WideString&)> OnCall; // before anything is written; may change the above

    int LoadCount = 0;                        // tries, also those that failed
    std::vector<KxCommon::WideString> Hashed; // one path per call
};
