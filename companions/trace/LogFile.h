// Where the lines go: one file that several processes append to, with one rolled-over predecessor.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/srclib/KxComn_Handle.h"

#include "companions/trace/Settings.h"

namespace KxTrace
{

/// The log that this process has open. The caller serialises the calls.
class LogFile
{
public:
    /// Appends one line, creating folder and file when they are missing. A file that has reached the limit becomes
    /// path + ".old" first, in place of the one before. While that is refused (somebody reads the log without sharing
    /// deletion) the file grows to twice the limit; then lines are dropped.
    /// @param limit  bytes
    /// @param flush  whether the line must be on the disk when the call returns
    /// @return 0, or the Windows error that cost the line; after a failure to open, for up to a second without another
    ///         attempt
    [[nodiscard]] DWORD Append(const std::wstring& path, uint64_t limit, bool flush, std::string_view line);

    void Close() noexcept;

private:
    [[nodiscard]] DWORD Open();
    [[nodiscard]] DWORD MakeRoom(uint64_t limit);
    [[nodiscard]] bool HasRoom(uint64_t limit) const noexcept;
    [[nodiscard]] bool RollOver() const;

    std::wstring m_Path;
    KxCommon::UniqueFile m_File;
    KxCommon::UniqueKernelObject m_Mutex; // one for all processes that write to this path; held to roll over
    DWORD m_Patience = 0;                 // how long to wait for a turn, in milliseconds
    DWORD m_Error = 0;                    // why there is no m_File
    uint64_t m_OpenAt = 0;                // in ticks
    uint64_t m_RollOverAt = 0;            // in ticks
};

/// Deletes the oldest logs that other processes left in the folder (one each, with its predecessor) but for the newest
/// 20 files. A log that is open is not deleted. Does nothing when all processes share a log.
void RemoveOldLogs(const LogName& name);

} // namespace KxTrace
