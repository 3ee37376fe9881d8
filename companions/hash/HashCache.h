// What is remembered from one hash to the next. A refresh asks for the hash of a program once for each rule that names
// it; reading it once is enough.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/srclib/KxComn_Windows.h"

/// Tells one version of a file from any other: whatever is done to a file on a local disk gives it another time of
/// change, which, unlike that of writing, programs do not set.
struct FileState
{
    uint64_t Volume, File, Size;
    int64_t Written, Changed; // as FILETIME

    bool operator==(const FileState&) const = default;
};

/// False when the system does not tell, or keeps no time of change on that disk.
[[nodiscard]] bool GetFileState(HANDLE file, FileState& state) noexcept;

/// The hashes of the 256 files that were added last, a minute each. Any thread. What it holds is lost with the library,
/// so the first one that is added keeps the library in the process.
class HashCache
{
public:
    static constexpr size_t kHashSize = 20;

    [[nodiscard]] bool Find(const FileState& state, uint8_t* hash) noexcept;
    /// Does nothing for a file that has just been changed: another change could leave it the same times.
    void Add(const FileState& state, const uint8_t* hash) noexcept;

private:
    struct Entry
    {
        FileState State;
        uint64_t Until; // in ticks
        uint8_t Hash[kHashSize];
    };

    SRWLOCK m_Lock = SRWLOCK_INIT;
    size_t m_Next = 0;
    Entry m_Entries[256] = {};
};
