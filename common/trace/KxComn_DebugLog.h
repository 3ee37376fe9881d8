// The debug trace: settings, lines, and the way to the trace library. The rest of the library traces through KX_TRACE
// of KxComn_Trace.h.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>

#include "common/srclib/KxComn_CriticalSection.h"
#include "common/srclib/KxComn_Lock.h"
#include "common/srclib/KxComn_LockRanks.h"
#include "common/srclib/KxComn_Port.h"
#include "common/srclib/KxComn_Storage.h"
#include "common/trace/KxComn_DebugConfig.h"
#include "common/trace/KxComn_KxDbg.h"

namespace KxCommon
{

/// Formats lines and hands them to KxVqrDbg.dll, which writes them. Without that library it does nothing. Any thread
/// may call anything. Lines reach the library one at a time, in call order. No call throws, and those that trace leave
/// GetLastError and errno unchanged. The process has one object of this class, g_DebugLog; g_TraceActive follows it.
class DebugLog
{
public:
    DebugLog() noexcept = default;
    ~DebugLog() { Uninitialize(); }
    DebugLog(const DebugLog&) = delete;
    DebugLog& operator=(const DebugLog&) = delete;

    /// Reads the settings and starts the trace library. If already initialised, only reads the settings again.
    /// @param traceName  appears in angle brackets in every line
    /// @param settings   where the settings are; its Location is also the folder of KxVqrDbg.dll
    /// @param unit       the kind of module that traces; determines the default file name
    /// @return false for an unknown kind of storage, and when the library or its start fails. Settings that cannot be
    ///         read have their defaults, which is not a failure.
    bool Initialize(const char* traceName, const Storage::Key& settings, uint32_t unit) noexcept;

    /// Ends tracing and releases the library. True if tracing was initialised.
    bool Uninitialize() noexcept;

    /// Writes one line. The settings are read from the trace library before every line.
    /// @param file    source path; its last part is printed
    /// @param level   one level bit
    /// @param format  of the system's C library; a message of more than 4095 characters is left out
    /// @return true if the line was written or tracing is disabled; false if tracing is not initialised, the level is
    ///         filtered out, or the line was lost
    bool Trace(const char* file, uint32_t line, uint32_t level, const char* format, ...) noexcept KX_PRINTF(5, 6);
    bool TraceList(const char* file, uint32_t line, uint32_t level, const char* format, va_list arguments) noexcept;
    /// The wide twins, for callers that have UTF-16 text. (The compiler provides source paths in narrow form only.)
    bool TraceWide(const wchar_t* file, uint32_t line, uint32_t level, const wchar_t* format, ...) noexcept;
    bool TraceWideList(const char* file, uint32_t line, uint32_t level, const wchar_t* format,
                       va_list arguments) noexcept;

    /// Writes a block of memory as one line, 16 bytes per row, at most the first 1800 bytes.
    bool Dump(const char* file, uint32_t line, uint32_t level, const void* data, uint32_t size) noexcept;
    bool DumpWide(const wchar_t* file, uint32_t line, uint32_t level, const void* data, uint32_t size) noexcept;

private:
    bool ReadConfig(const Storage::Key& settings, uint32_t unit, DebugConfig& config) KX_REQUIRES(m_TraceLock);
    bool Start(const Storage::Key& settings, const DebugConfig& config) KX_REQUIRES(m_TraceLock);
    bool StartLibrary(const DebugConfig& config) KX_REQUIRES(m_TraceLock);
    [[nodiscard]] bool IsInitialized() const;
    [[nodiscard]] bool IsLevelOn(uint32_t level) const;
    [[nodiscard]] bool IsEnabled() const;
    void RefreshSettings();
    void SetInitialized(bool isInitialized);
    void SetSettings(bool isEnabled, uint32_t levelMask);
    bool HandOver(const SYSTEMTIME& time, const wchar_t* line) KX_REQUIRES(m_TraceLock);
    template <class FileCharacter, class MakeMessage>
    bool Write(const FileCharacter* file, uint32_t line, uint32_t level, MakeMessage makeMessage) noexcept;
    template <class FileCharacter, class MakeMessage>
    bool WriteLine(const FileCharacter* file, uint32_t line, uint32_t level, MakeMessage& makeMessage)
        KX_REQUIRES(m_TraceLock);

    bool m_Initialized KX_GUARDED_BY(m_StateLock) = false;
    bool m_Enabled KX_GUARDED_BY(m_StateLock) = false;
    uint32_t m_LevelMask KX_GUARDED_BY(m_StateLock) = 0;
    mutable Synchronize::CriticalSection m_StateLock; // taken inside m_TraceLock
    std::string m_TraceName KX_GUARDED_BY(m_TraceLock);
    Library::KxDbg m_DbgLibrary KX_GUARDED_BY(m_TraceLock);
    uint64_t m_DbgHandle KX_GUARDED_BY(m_TraceLock) = 0;
    Synchronize::CriticalSection m_TraceLock{Synchronize::LockRank::Trace}; // held during every public operation
};

/// Never destroyed: timers and other globals trace while they are destroyed, in whatever order.
extern DebugLog& g_DebugLog;

} // namespace KxCommon
