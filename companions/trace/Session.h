// One initialised user of the trace library: its settings, kept up to date, and its log.
#pragma once

#include <cstdint>
#include <string>

#include "common/srclib/KxComn_CriticalSection.h"
#include "common/srclib/KxComn_LockRanks.h"
#include "common/trace/KxComn_DebugConfig.h"

#include "companions/trace/LogFile.h"
#include "companions/trace/Settings.h"

namespace KxTrace
{

/// Any thread may call any function; calls are served one at a time.
class Session
{
public:
    /// @param folder  the library's own, with a trailing backslash; KxPfw.ini is there
    Session(std::wstring folder, const KxCommon::DebugConfigWide& config);

    [[nodiscard]] KxCommon::DebugConfig Config();
    void SetConfig(const KxCommon::DebugConfig& config);
    /// @return 0, also if the trace is off, or the Windows error because of which the line was lost
    [[nodiscard]] DWORD Trace(const wchar_t* line);

private:
    void Refresh() KX_REQUIRES(m_Lock);
    void Apply() KX_REQUIRES(m_Lock);

    const std::wstring m_Folder;
    KxCommon::Synchronize::CriticalSection m_Lock{KxCommon::Synchronize::LockRank::Trace};
    SettingsFile m_SettingsFile KX_GUARDED_BY(m_Lock);
    uint64_t m_RefreshAt KX_GUARDED_BY(m_Lock) = 0; // in ticks
    Settings m_Settings KX_GUARDED_BY(m_Lock);
    KxCommon::DebugConfig m_Config KX_GUARDED_BY(m_Lock); // as callers get them, before every line
    LogFile m_Log KX_GUARDED_BY(m_Lock);
};

} // namespace KxTrace
