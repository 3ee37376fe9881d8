// The trace library's settings: from a configuration record and from KxPfw.ini, as a record and as a file name.
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

/// The settings of a session: the record, and the one setting that it lacks.
struct Settings
{
    KxCommon::DebugConfigWide Record = {};
    uint32_t SizeLimit = kDefaultSizeLimit; // kilobytes
};

/// The narrow form of a record. Texts are cut to their fields, between characters.
[[nodiscard]] KxCommon::DebugConfig Narrow(const KxCommon::DebugConfigWide& record);

/// In a service, the tracing side's default folder, which everybody may write, is replaced by this library's own.
void UseOwnFolder(KxCommon::DebugConfigWide& record);

/// The log's path in parts, so that the logs of other processes can be distinguished from this one.
struct LogName
{
    std::wstring Folder;      // absolute, with backslash
    std::wstring Stem;        // prefix, file and unit
    std::wstring Process;     // "_p" and the process id; empty when all processes share a log
    std::wstring Extension;   // with its dot, or empty
    bool IsProtected = false; // a missing folder is created for the system and administrators only

    bool operator==(const LogName&) const = default;

    [[nodiscard]] std::wstring Name() const { return Stem + Process + Extension; }
    /// The name of a full log.
    [[nodiscard]] std::wstring OldName(uint64_t number) const { return Name() + L".old." + std::to_wstring(number); }
    /// How many files remain besides the log.
    [[nodiscard]] size_t Kept() const noexcept { return Process.empty() ? 1 : 20; }
    /// Whether that is the name of one of those files: a predecessor or, if each process has a log, one of another
    /// process. number is that of OldName, otherwise 0.
    [[nodiscard]] bool IsOld(std::wstring_view file, uint64_t& number) const;
};

/// @param libraryFolder  what a relative LogFolder is relative to, with a trailing backslash
[[nodiscard]] LogName MakeLogName(const KxCommon::DebugConfigWide& record, const std::wstring& libraryFolder,
                                  uint32_t processId);

/// One section of KxPfw.ini, read repeatedly. Not thread-safe.
class SettingsFile
{
public:
    /// @param folder  that of KxPfw.ini, with backslash
    explicit SettingsFile(const std::wstring& folder);

    /// Copies the section into the settings if it has changed since the last call, but not while it has never existed.
    /// If it disappears, the defaults apply. While the file cannot be read (an editor may have it open) nothing counts
    /// as changed. Session kind, unit and trace name stay.
    /// @return whether it differs
    [[nodiscard]] bool Update(Settings& settings);

private:
    const std::wstring m_Path;
    std::optional<Settings> m_Seen;
};

} // namespace KxTrace
