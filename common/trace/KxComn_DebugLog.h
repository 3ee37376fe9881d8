// The debug trace: settings, the form of a line, and the way to the trace library. Rooms trace through KX_TRACE of KxComn_Trace.h.
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

/// Formats lines and hands them to KxVqrDbg.dll, which writes them. Without that library it does nothing.
/// Any thread may call anything. Lines reach the library one at a time, in call order. No call throws, and those that
/// trace leave GetLastError and errno as they were.
/// The process has one object of this class, g_DebugLog; g_TraceActive follows it.
class DebugLog
{
public:
    DebugLog() noexcept = default;
    ~DebugLog() { Uninitialize(); }
    DebugLog(const DebugLog&) = delete;
    DebugLog& operator=(const DebugLog&) = delete;

    /// Reads the settings and starts the trace library. While initialised: reads the settings again, keeps the library.
    /// @param traceName  stands in angle brackets in every line
    /// @param settings   where the settings live; its Location is the folder of KxVqrDbg.dll as well
    /// @param unit       the kind of module that traces; it chooses the default file name
    /// @return false for an unknown kind of storage, and when the library or its start fails. Settings that cannot be
    ///         read keep their defaults and are no failure.
    bool Initialize(const char* traceName, const Storage::Key& settings, uint32_t unit) noexcept;

    /// Ends tracing and releases the library. Whether tracing was initialised.
    bool Uninitialize() noexcept;

    /// Writes one line. The settings are read from the trace library before every line.
    /// @param file    source path; its last part is printed
    /// @param level   one level bit
    /// @param format  of the system's C library; up to 4095 characters of message, a longer one is left out
    /// @return true when the line was taken, and when tracing is disabled; false when it is not initialised, when the
    ///         level is filtered out, and when the line was lost
    bool Trace(const char* file, uint32_t line, uint32_t level, const char* format, ...) noexcept KX_PRINTF(5, 6);
    bool TraceList(const char* file, uint32_t line, uint32_t level, const char* format, va_list arguments) noexcept;
    /// The wide twins: for callers that hold UTF-16 text. (The compiler knows source paths in narrow form only.)
    bool TraceWide(const wchar_t* file, uint32_t line, uint32_t level, const wchar_t* format, ...) noexcept;
    bool TraceWideList(const char* file, uint32_t line, uint32_t level, const wchar_t* format,
                       va_list arguments) noexcept;

    /// Writes a block of memory as one line, 16 bytes to a row; of more than 1800 bytes the first 1800.
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
    Synchronize::CriticalSection m_TraceLock{Synchronize::LockRank::Trace}; // across every public operation
};

/// Never destroyed: timers and other globals trace while they go down, in whatever order that is.
extern DebugLog& g_DebugLog;

} // namespace KxCommon
