// Where the lines go: one file that several processes append to, with rolled-over predecessors.
#pragma once

#include <cstdint>
#include <string_view>

#include "common/srclib/KxComn_Handle.h"

#include "companions/trace/Settings.h"

namespace KxTrace
{

/// The log that this process has open. The caller serialises the calls.
///
/// Everything is done relative to the open folder, by bare names, once the folder has been seen to lie where it was
/// wanted; what has the log's name is looked at through its handle. So no link leads elsewhere, whoever may write the
/// folder and whenever he puts it there.
class LogFile
{
public:
    /// Says which log it is. Closes another one.
    void Use(LogName name);

    /// Appends one line, creating folder and file when they are missing. A file that has reached the limit gets a number
    /// first (LogName). While that is refused (somebody reads the log without sharing deletion) it grows to twice the
    /// limit; then lines are dropped.
    /// @param limit  bytes
    /// @param flush  whether the line must be on the disk when the call returns
    /// @return 0, or the Windows error that cost the line; after a failure to open, for a second and for ten times as
    ///         long as the attempt took without another one
    [[nodiscard]] DWORD Append(uint64_t limit, bool flush, std::string_view line);

    void Close() noexcept;

private:
    [[nodiscard]] DWORD Open(uint64_t limit);

    LogName m_Name;
    KxCommon::UniqueFile m_File;
    DWORD m_Error = 0;      // why there is no m_File
    bool m_HadRoom = false; // m_File, when it was opened; otherwise it grows
    uint64_t m_OpenAt = 0;  // in ticks
};

} // namespace KxTrace
