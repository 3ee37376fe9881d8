// The trace library's settings: out of a configuration record, out of KxPfw.ini, into a record, into a file name.
// docs/settings.md explains every key.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/trace/KxComn_DebugConfig.h"

namespace KxTrace
{

inline constexpr char kLogSizeLimit[] = "LogSizeLimit"; // the library's own key, in kilobytes
inline constexpr uint32_t kDefaultSizeLimit = 10 * 1024;
inline constexpr uint32_t kLeastSizeLimit = 4;
inline constexpr uint32_t kMostSizeLimit = 1024 * 1024;

/// What a session goes by: the record, and the one setting that it lacks.
struct Settings
{
    KxCommon::DebugConfigWide Record = {};
    uint32_t SizeLimit = kDefaultSizeLimit; // kilobytes
};

/// The narrow form of a record. Texts are cut to their fields, between characters.
[[nodiscard]] KxCommon::DebugConfig Narrow(const KxCommon::DebugConfigWide& record);

/// The folder of the log, where it is the tracing side's default, gives way to this library's own in a service: everybody
/// may write in the former.
void UseOwnFolder(KxCommon::DebugConfigWide& record);

/// Where the lines go, taken apart so that the logs of other processes can be told from this one.
struct LogName
{
    std::wstring Folder;      // absolute, with backslash
    std::wstring Stem;        // prefix, file and unit
    std::wstring Process;     // "_p" and the process id; empty when all processes share a log
    std::wstring Extension;   // with its dot, or empty
    bool IsProtected = false; // the folder, where it is missing, is made for the system and administrators alone

    bool operator==(const LogName&) const = default;

    [[nodiscard]] std::wstring Name() const { return Stem + Process + Extension; }
    /// What a full log is called.
    [[nodiscard]] std::wstring OldName(uint64_t number) const { return Name() + L".old." + std::to_wstring(number); }
    /// How many files stay besides the log.
    [[nodiscard]] size_t Kept() const noexcept { return Process.empty() ? 1 : 20; }
    /// Whether that is the name of one of those files: a predecessor or, when each process has a log, one of another
    /// process. number is that of OldName, else 0.
    [[nodiscard]] bool IsOld(std::wstring_view file, uint64_t& number) const;
};

/// @param libraryFolder  what a relative LogFolder counts from, with backslash
[[nodiscard]] LogName MakeLogName(const KxCommon::DebugConfigWide& record, const std::wstring& libraryFolder,
                                  uint32_t processId);

/// One section of KxPfw.ini, read again and again. Not for several threads at once.
class SettingsFile
{
public:
    /// @param folder  that of KxPfw.ini, with backslash
    explicit SettingsFile(const std::wstring& folder);

    /// Puts what the section of the session says now into its settings, if that differs from what it said the last time;
    /// not as long as there has been no section. One that disappears leaves the defaults. While the file cannot be read
    /// (an editor may hold it) nothing counts as changed. Session kind, unit and trace name stay.
    /// @return whether it differs
    [[nodiscard]] bool Update(Settings& settings);

private:
    const std::wstring m_Path;
    std::optional<Settings> m_Seen;
};

} // namespace KxTrace
