// One initialised user of the trace library: its settings, kept up to date, and its log.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "common/srclib/KxComn_CriticalSection.h"
#include "common/srclib/KxComn_DebugConfig.h"

#include "companions/trace/LogFile.h"
#include "companions/trace/Settings.h"

namespace KxTrace
{

/// Any thread may call any function. Two locks: one for the log, held while a line is appended, and one for the
/// settings, held for a copy only and taken last. Neither is held while KxPfw.ini is read.
class Session
{
public:
    /// @param folder  the library's own, with backslash; KxPfw.ini is looked for there
    Session(std::wstring folder, const KxCommon::DebugConfigWide& config);

    [[nodiscard]] KxCommon::DebugConfig Config();
    void SetConfig(const KxCommon::DebugConfig& config);
    /// @return 0, also when the trace is off, or the Windows error that cost the line
    [[nodiscard]] DWORD Trace(const wchar_t* line);

private:
    // What the settings mean for a line.
    struct Destination
    {
        bool Enable;
        bool Debugger;
        bool Robust;
        uint64_t Limit;
        std::wstring Path;
    };

    [[nodiscard]] std::shared_ptr<const Destination> CurrentDestination();
    void Refresh();
    void Apply(const Settings& settings);

    const std::wstring m_Folder;
    const uint32_t m_Unit;

    std::atomic<uint64_t> m_RefreshAt{0};
    std::atomic_flag m_Refreshing = ATOMIC_FLAG_INIT;
    SettingsFile m_SettingsFile; // for whoever set m_Refreshing

    KxCommon::Synchronize::CriticalSection m_ConfigLock;
    KxCommon::DebugConfig m_Config KX_GUARDED_BY(m_ConfigLock);
    uint32_t m_SizeLimit KX_GUARDED_BY(m_ConfigLock) = kDefaultSizeLimit;
    std::shared_ptr<const Destination> m_Destination KX_GUARDED_BY(m_ConfigLock);

    KxCommon::Synchronize::CriticalSection m_LogLock{KxCommon::Synchronize::LockRank::Trace}; // then the other
    LogFile m_Log KX_GUARDED_BY(m_LogLock);
};

} // namespace KxTrace
