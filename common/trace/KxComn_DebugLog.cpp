// The debug trace. docs/settings.md explains its settings.
#include "common/trace/KxComn_DebugLog.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <type_traits>

#include "common/srclib/KxComn_Windows.h"

#include "common/srclib/KxComn_Exception.h"
#include "common/srclib/KxComn_Identity.h"
#include "common/srclib/KxComn_Names.h"
#include "common/srclib/KxComn_SecurityAttributes.h"
#include "common/srclib/KxComn_String.h"
#include "common/srclib/KxComn_Trace.h"
#include "common/srclib/Utility.h"
#include "common/trace/KxComn_DebugLine.h"

namespace KxCommon
{

namespace
{

/// Preserves what a traced function may be about to check.
class CallerState
{
public:
    CallerState() noexcept : m_LastError(::GetLastError()), m_Errno(errno) {}
    ~CallerState()
    {
        errno = m_Errno;
        ::SetLastError(m_LastError);
    }
    CallerState(const CallerState&) = delete;
    CallerState& operator=(const CallerState&) = delete;

private:
    DWORD m_LastError;
    int m_Errno;
};

std::wstring Wide(const std::string& line)
{
    return String::ToWide(line);
}
const std::wstring& Wide(const std::wstring& line)
{
    return line;
}

// Texts end within their fields; the record was zero-filled.
template <size_t size>
void SetField(char (&field)[size], std::string_view text)
{
    String::CopyBounded(field, static_cast<int>(size - 1), text);
}

// In this order: if a missing value throws, the values before it count.
void ReadValues(Storage::Base& storage, DebugConfig& config)
{
    using namespace DebugSettings;
    config.Head.bEnable = storage.ReadNumber(kEnable, 0) != 0;
    config.Head.dwLevel = storage.ReadNumber(kLevel, kDefaultLevel);
    config.Head.dwLogProcess = storage.ReadNumber(kLogProcess, 0);
    config.Head.dwLogUnitType = storage.ReadNumber(kLogUnitType, 0);
    SetField(config.szLogFolder, storage.ReadString(kLogFolder, kDefaultLogFolder));
    SetField(config.szLogPrefix, storage.ReadString(kLogPrefix, kDefaultLogPrefix));
    SetField(config.szLogFile, storage.ReadString(kLogFile, DefaultLogFile(config.Head.dwUnit)));
    SetField(config.szLogExtension, storage.ReadString(kLogExtension, kDefaultLogExtension));
    config.Head.bRobust = storage.ReadNumber(kRobust, 0) != 0;
    config.Head.bDebugger = storage.ReadNumber(kDebugger, 0) != 0;
}

// Runs work; if it throws, deletes the exception and returns false.
template <class Work>
bool Guarded(Work work) noexcept KX_NO_THREAD_SAFETY_ANALYSIS // the work has its own annotations
{
    try
    {
        return work();
    }
    catch (Exception::Base* e)
    {
        const std::unique_ptr<Exception::Base> owner(e);
        return false;
    }
    catch (...)
    {
        return false;
    }
}

} // namespace

bool DebugLog::Initialize(const char* traceName, const Storage::Key& settings, uint32_t unit) noexcept
{
    return Guarded(
        [&]
        {
            const Synchronize::ScopedLock lock(m_TraceLock);
            const OwnIdentity identity;
            if (!identity)
                return false;
            m_TraceName = traceName == nullptr ? "" : traceName;
            DebugConfig config = {};
            if (!ReadConfig(settings, unit, config))
                return false;
            if (!IsInitialized() && !Start(settings, config))
                return false;
            SetInitialized(true);
            return true;
        });
}

bool DebugLog::Uninitialize() noexcept
{
    if (IsProcessEnding())
    {
        g_TraceActive.store(false, std::memory_order_release);
        return false;
    }
    return Guarded(
        [&]
        {
            const Synchronize::ScopedLock lock(m_TraceLock);
            const bool wasInitialized = IsInitialized();
            SetInitialized(false); // first: calls that arrive from here on are refused without waiting
            if (wasInitialized && m_DbgLibrary.IsLoaded())
            {
                if (m_DbgLibrary.Uninitialize != nullptr)
                    m_DbgLibrary.Uninitialize(m_DbgHandle);
                m_DbgHandle = 0;
                m_DbgLibrary.Unload();
            }
            SetSettings(false, 0);
            return wasInitialized;
        });
}

bool DebugLog::ReadConfig(const Storage::Key& settings, uint32_t unit, DebugConfig& config)
{
    SYSTEMTIME now;
    ::GetLocalTime(&now);
    config.Head.ReadTime = now;
    config.Head.bServiceSession = IsServiceSession();
    config.Head.dwUnit = unit;
    config.Head.dwLevel = DebugSettings::kDefaultLevel;
    SetField(config.szTraceName, m_TraceName);
    try
    {
        const std::unique_ptr<Storage::Base> storage = Storage::Create(settings.Kind);
        if (storage == nullptr)
            return false;
        storage->OpenForReading(settings,
                                config.Head.bServiceSession != 0 ? DebugSettings::kServiceSection
                                                                 : DebugSettings::kInteractiveSection,
                                Storage::kSystemView);
        ReadValues(*storage, config);
        storage->Close();
    }
    catch (Storage::Exception* e)
    {
        const std::unique_ptr<Storage::Exception> owner(e); // what was read so far counts
    }
    SetSettings(config.Head.bEnable != 0, config.Head.dwLevel);
    return true;
}

bool DebugLog::Start(const Storage::Key& settings, const DebugConfig& config)
{
    std::string path = settings.Location == nullptr ? "" : settings.Location;
    AppendSeparator(path);
    if (!m_DbgLibrary.Load(path + Names::kTraceLibrary))
        return false;
    const bool isStarted = Guarded([&]() KX_REQUIRES(m_TraceLock) { return StartLibrary(config); });
    if (!isStarted)
        m_DbgLibrary.Unload();
    return isStarted;
}

bool DebugLog::StartLibrary(const DebugConfig& config)
{
    const DebugConfigWide wide = Widen(config);
    uint64_t handle = 0;
    if (m_DbgLibrary.Initialize == nullptr || m_DbgLibrary.Initialize(&handle, &wide) != 0 || handle == 0)
        return false;
    m_DbgHandle = handle;
    return true;
}

bool DebugLog::IsInitialized() const
{
    const Synchronize::ScopedLock lock(m_StateLock);
    return m_Initialized;
}

bool DebugLog::IsEnabled() const
{
    const Synchronize::ScopedLock lock(m_StateLock);
    return m_Enabled;
}

bool DebugLog::IsLevelOn(uint32_t level) const
{
    const Synchronize::ScopedLock lock(m_StateLock);
    return (m_LevelMask & level) != 0;
}

void DebugLog::SetInitialized(bool isInitialized)
{
    const Synchronize::ScopedLock lock(m_StateLock);
    m_Initialized = isInitialized;
    g_TraceActive.store(isInitialized, std::memory_order_release);
}

void DebugLog::SetSettings(bool isEnabled, uint32_t levelMask)
{
    const Synchronize::ScopedLock lock(m_StateLock);
    m_Enabled = isEnabled;
    m_LevelMask = levelMask;
}

void DebugLog::RefreshSettings()
{
    const Synchronize::ScopedLock lock(m_TraceLock);
    DebugConfig config = {};
    if (m_DbgLibrary.GetDebugConfig != nullptr && m_DbgLibrary.GetDebugConfig(m_DbgHandle, &config) == 0)
        SetSettings(config.Head.bEnable != 0, config.Head.dwLevel);
}

bool DebugLog::HandOver(const SYSTEMTIME& time, const wchar_t* line)
{
    return m_DbgLibrary.Trace(m_DbgHandle, &time, line) == 0;
}

template <class FileCharacter, class MakeMessage>
bool DebugLog::Write(const FileCharacter* file, uint32_t line, uint32_t level, MakeMessage makeMessage) noexcept
{
    if (!g_TraceActive.load(std::memory_order_acquire))
        return false;
    const CallerState state;
    if (IsProcessEnding())
        return false;
    return Guarded(
        [&]
        {
            const Synchronize::ScopedLock lock(m_TraceLock);
            if (!IsInitialized())
                return false;
            RefreshSettings();
            if (!IsEnabled())
                return true;
            return IsLevelOn(level) && WriteLine(file, line, level, makeMessage);
        });
}

template <class FileCharacter, class MakeMessage>
bool DebugLog::WriteLine(const FileCharacter* file, uint32_t lineNumber, uint32_t level, MakeMessage& makeMessage)
{
    const auto message = makeMessage();
    SYSTEMTIME now;
    ::GetLocalTime(&now);
    std::remove_const_t<decltype(message)> line;
    try
    {
        line = DebugLine::Line(now, level, m_TraceName, message, file, lineNumber);
    }
    catch (String::Exception* e)
    {
        const std::unique_ptr<String::Exception> owner(e); // kept: the line is handed on empty
    }
    if (m_DbgLibrary.Trace == nullptr)
        return false;
    return HandOver(now, Wide(line).c_str());
}

bool DebugLog::TraceList(const char* file, uint32_t line, uint32_t level, const char* format,
                         va_list arguments) noexcept
{
    return Write(file, line, level, [&] { return DebugLine::Message(format, arguments); });
}

bool DebugLog::TraceWideList(const char* file, uint32_t line, uint32_t level, const wchar_t* format,
                             va_list arguments) noexcept
{
    return Write(file, line, level, [&] { return DebugLine::Message(format, arguments); });
}

bool DebugLog::Trace(const char* file, uint32_t line, uint32_t level, const char* format, ...) noexcept
{
    va_list arguments;
    va_start(arguments, format);
    const bool isWritten = TraceList(file, line, level, format, arguments);
    va_end(arguments);
    return isWritten;
}

bool DebugLog::TraceWide(const wchar_t* file, uint32_t line, uint32_t level, const wchar_t* format, ...) noexcept
{
    va_list arguments;
    va_start(arguments, format);
    const bool isWritten = Write(file, line, level, [&] { return DebugLine::Message(format, arguments); });
    va_end(arguments);
    return isWritten;
}

bool DebugLog::Dump(const char* file, uint32_t line, uint32_t level, const void* data, uint32_t size) noexcept
{
    return Write(file, line, level, [&] { return DebugLine::DumpMessage(data, size); });
}

bool DebugLog::DumpWide(const wchar_t* file, uint32_t line, uint32_t level, const void* data, uint32_t size) noexcept
{
    return Write(file, line, level, [&] { return String::ToWide(DebugLine::DumpMessage(data, size)); });
}

namespace
{

union NeverDestroyed // of static storage: no memory to run out of
{
    NeverDestroyed() noexcept : Log() {}
    ~NeverDestroyed() {}
    DebugLog Log;
};
NeverDestroyed g_Storage;

} // namespace

DebugLog& g_DebugLog = g_Storage.Log;

// What KX_TRACE calls.

constinit std::atomic<bool> g_TraceActive{false};

void TraceLine(const char* file, uint32_t line, uint32_t level, const char* format, ...) noexcept
{
    va_list arguments;
    va_start(arguments, format);
    g_DebugLog.TraceList(file, line, level, format, arguments);
    va_end(arguments);
}

void TraceLineWide(const char* file, uint32_t line, uint32_t level, const KXWCHAR* format, ...) noexcept
{
    va_list arguments;
    va_start(arguments, format);
    g_DebugLog.TraceWideList(file, line, level, format, arguments);
    va_end(arguments);
}

} // namespace KxCommon
