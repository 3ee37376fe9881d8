// The log: one file that several processes append to, and its rolled-over predecessors.
#pragma once

#include <cstdint>
#include <string_view>

#include "common/srclib/KxComn_Handle.h"

#include "companions/trace/Settings.h"

namespace KxTrace
{

/// The log that this process has open. The caller serialises the calls.
///
/// Once the open folder has been verified to be where it should be, everything is done by bare names relative to it,
/// and a file with the log's name is examined through its handle. So no link can lead elsewhere, no matter who may
/// write the folder and when the link appears.
class LogFile
{
public:
    /// Sets the log. Closes a different one.
    void Use(LogName name);

    /// Appends one line, creating folder and file if missing. A file that has reached the limit is first renamed
    /// (LogName). While that is refused (a program reads the log without sharing deletion), it grows to twice the
    /// limit; then lines are dropped.
    /// @param limit  bytes
    /// @param flush  whether the line must be on the disk when the call returns
    /// @return 0, or the Windows error because of which the line was lost; after a failure to open, without a new
    ///         attempt for a second or ten times as long as the attempt took
    [[nodiscard]] DWORD Append(uint64_t limit, bool flush, std::string_view line);

    void Close() noexcept;

private:
    [[nodiscard]] DWORD Open(uint64_t limit);

    LogName m_Name;
    KxCommon::UniqueFile m_File;
    DWORD m_Error = 0;      // why m_File is empty
    bool m_HadRoom = false; // m_File, when it was opened; otherwise it grows
    uint64_t m_OpenAt = 0;  // in ticks
};

} // namespace KxTrace
