// The trace library's settings: out of a configuration record, out of KxPfw.ini, into a record, into a file name.
// docs/settings.md explains every key.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "common/srclib/KxComn_DebugConfig.h"
#include "common/srclib/KxComn_Handle.h"

namespace KxTrace
{

inline constexpr char kLogSizeLimit[] = "LogSizeLimit"; // the library's own key, in kilobytes
inline constexpr uint32_t kDefaultSizeLimit = 10 * 1024;
inline constexpr uint32_t kLeastSizeLimit = 4;
inline constexpr uint32_t kMostSizeLimit = 1024 * 1024;

struct Settings
{
    bool Enable = false;
    bool Robust = false;
    bool Debugger = false;
    uint32_t Level = KxCommon::DebugSettings::kDefaultLevel;
    uint32_t LogProcess = 0;
    uint32_t LogUnitType = 0;
    uint32_t SizeLimit = kDefaultSizeLimit;
    std::wstring LogFolder;
    std::wstring LogPrefix;
    std::wstring LogFile;
    std::wstring LogExtension;

    bool operator==(const Settings&) const = default;
};

/// What a record says; it has no size limit, so that is the default.
[[nodiscard]] Settings FromRecord(const KxCommon::DebugConfigWide& record);
[[nodiscard]] Settings FromRecord(const KxCommon::DebugConfig& record);

/// Sets the fields of a record that are settings, and no other. Texts are cut to their fields, between characters.
void ToRecord(const Settings& settings, KxCommon::DebugConfig& record);

/// A record with the head and the trace name of another one.
[[nodiscard]] KxCommon::DebugConfig NarrowHead(const KxCommon::DebugConfigWide& record);

/// Where the lines go, taken apart so that the logs of other processes can be told from this one.
struct LogName
{
    std::wstring Folder;    // absolute, with backslash
    std::wstring Stem;      // prefix, file and unit
    std::wstring Process;   // "_p" and the process id; empty when all processes share a log
    std::wstring Extension; // with its dot, or empty

    [[nodiscard]] std::wstring Path() const { return Folder + Stem + Process + Extension; }
};

/// @param libraryFolder  what a relative LogFolder counts from, with backslash
[[nodiscard]] LogName MakeLogName(const Settings& settings, const std::wstring& libraryFolder, uint32_t unit,
                                  uint32_t processId);

/// One section of KxPfw.ini, watched. Not for several threads at once.
class SettingsFile
{
public:
    SettingsFile(std::wstring path, bool serviceSession, uint32_t unit);

    /// Calls apply with what the section says now, if that differs from what it said when apply was last done; not at
    /// the first call when the section is missing or empty. A section that disappears leaves the defaults. While the
    /// file cannot be read (an editor may hold it) nothing counts as changed. What apply throws goes on to the caller.
    void Update(const std::function<void(const Settings&)>& apply);

private:
    struct Stamp
    {
        bool Exists = false;
        uint64_t Written = 0;
        uint64_t Size = 0;
        bool operator==(const Stamp&) const = default;
    };

    [[nodiscard]] bool Look(Stamp& stamp) const;
    [[nodiscard]] KxCommon::UniqueFile OpenToRead() const;
    [[nodiscard]] std::optional<Settings> Read() const;
    [[nodiscard]] Settings Defaults() const;
    [[nodiscard]] std::wstring Text(const char* key, const std::wstring& missing, uint32_t units) const;
    [[nodiscard]] uint32_t Number(const char* key, uint32_t missing) const;

    const std::wstring m_Path;
    const std::wstring m_Section;
    const uint32_t m_Unit;
    Stamp m_Stamp;
    bool m_Doubtful = true; // the stamp does not prove that the contents are the same
    std::optional<Settings> m_Seen;
};

} // namespace KxTrace
