// The debug trace. docs/settings.md explains its settings.
#include "common/srclib/KxComn_DebugLog.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mbstring.h>
#include <memory>
#include <string_view>
#include <type_traits>
#include <vector>

#include "common/srclib/KxComn_Windows.h"

#include "common/srclib/KxComn_Exception.h"
#include "common/srclib/KxComn_Names.h"
#include "common/srclib/KxComn_SecurityAttributes.h"
#include "common/srclib/KxComn_String.h"
#include "common/srclib/KxComn_Trace.h"
#include "common/srclib/Utility.h"

namespace KxCommon
{

namespace
{

constexpr size_t kMessageSizes[] = {256, 1024, 4096};
constexpr uint32_t kDumpLimit = 1800;
constexpr uint32_t kDumpRow = 16;

template <class Character>
struct Texts;
template <>
struct Texts<char>
{
    static constexpr const char* kTime = "%02d/%02d/%04d %02d:%02d:%02d.%03d";
    static constexpr const char* kOrigin = " %04x:%04x %3s <%s> ";
    static constexpr const char* kPlace = " - %s(%lu)\r\n";
    static constexpr const char* kError = "(debug log error)";
    static constexpr const char* kNullFormat = "(debug log error) NULL _lpctszFormat";
};
template <>
struct Texts<wchar_t>
{
    static constexpr const wchar_t* kTime = L"%02d/%02d/%04d %02d:%02d:%02d.%03d";
    static constexpr const wchar_t* kOrigin = L" %04x:%04x %3s <%s> ";
    static constexpr const wchar_t* kPlace = L" - %s(%lu)\r\n";
    static constexpr const wchar_t* kError = L"(debug log error)";
    static constexpr const wchar_t* kNullFormat = L"(debug log error) NULL _lpctszFormat";
};

/// What a traced function may be about to look at.
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

// Once the process ends, other threads may have died with a lock in their hands, and the trace library may have gone
// down before this one: nothing may be locked or called any more.
bool IsProcessEnding() noexcept
{
    using Function = BOOLEAN NTAPI();
    static Function* const s_IsEnding = []
    {
        const HMODULE ntdll = ::GetModuleHandleA("ntdll.dll");
        void* const address =
            ntdll == nullptr ? nullptr : reinterpret_cast<void*>(::GetProcAddress(ntdll, "RtlDllShutdownInProgress"));
        return reinterpret_cast<Function*>(address);
    }();
    return s_IsEnding != nullptr && s_IsEnding() != FALSE;
}

template <class Character>
std::basic_string<Character> To(std::string_view text)
{
    if constexpr (std::is_same_v<Character, char>)
        return std::string(text);
    else
        return String::ToWide(text);
}
template <class Character>
std::wstring To(std::wstring_view text)
{
    static_assert(std::is_same_v<Character, wchar_t>);
    return std::wstring(text);
}

template <class Character>
std::basic_string_view<Character> FileName(const Character* file)
{
    std::basic_string_view<Character> name;
    if (file != nullptr)
        name = file;
    static constexpr Character kSeparators[] = {'\\', '/', '\0'};
    return name.substr(name.find_last_of(kSeparators) + 1);
}

const char* Tag(uint32_t level)
{
    switch (level)
    {
    case kTraceDetail:
        return ".w.";
    case kTraceCall:
        return "@@@";
    case kTraceError:
        return "!!!";
    default:
        return "???";
    }
}

template <class Character>
std::basic_string<Character> Message(const Character* format, va_list arguments)
{
    if (format == nullptr)
        return Texts<Character>::kNullFormat;
    for (const size_t size : kMessageSizes)
    {
        std::vector<Character> buffer(size);
        const int length = String::FormatInto(buffer.data(), size, format, arguments);
        if (length >= 0)
            return std::basic_string<Character>(buffer.data(), static_cast<size_t>(length));
        if (length == String::kCannotFormat)
            return Texts<Character>::kError;
    }
    return {}; // kept: a message that is too long is left out, not cut
}

std::string DumpMessage(const void* data, uint32_t size)
{
    const unsigned char* const bytes = static_cast<const unsigned char*>(data);
    const uint32_t count = bytes == nullptr ? 0 : std::min(size, kDumpLimit);
    std::string message = ">>> dump memory";
    std::string piece;
    if (size > kDumpLimit)
    {
        String::Format(piece, "\r\n??? size too big, dump %d bytes only!", static_cast<int>(kDumpLimit));
        message += piece;
    }
    for (uint32_t row = 0; row < count; row += kDumpRow)
    {
        const uint32_t end = std::min(row + kDumpRow, count);
        message += "\r\n";
        for (uint32_t i = row; i < end; ++i)
        {
            String::Format(piece, " %02x", bytes[i]);
            message += piece;
        }
        for (uint32_t i = row; i < end; ++i)
            message += ::_ismbcprint(bytes[i]) != 0 ? static_cast<char>(bytes[i]) : '.';
    }
    return message;
}

template <class Character, class FileCharacter>
std::basic_string<Character> Line(const SYSTEMTIME& time, uint32_t level, const std::string& traceName,
                                  const std::basic_string<Character>& message, const FileCharacter* file,
                                  uint32_t lineNumber)
{
    std::basic_string<Character> line;
    String::Format(line, Texts<Character>::kTime, time.wDay, time.wMonth, time.wYear, time.wHour, time.wMinute,
                   time.wSecond, time.wMilliseconds);
    std::basic_string<Character> piece;
    String::Format(piece, Texts<Character>::kOrigin, static_cast<unsigned>(::GetCurrentProcessId()),
                   static_cast<unsigned>(::GetCurrentThreadId()), To<Character>(std::string_view(Tag(level))).c_str(),
                   To<Character>(std::string_view(traceName)).c_str());
    line += piece;
    line += message;
    String::Format(piece, Texts<Character>::kPlace, To<Character>(FileName(file)).c_str(),
                   static_cast<unsigned long>(lineNumber));
    return line + piece;
}

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

// A field has as many characters in both forms.
template <size_t size>
void WidenField(DebugConfigWide& wide, size_t offset, const char (&narrow)[size])
{
    const WideString text = String::ToWide(narrow);
    std::memcpy(reinterpret_cast<unsigned char*>(&wide) + offset, text.data(),
                std::min(text.size(), size - 1) * sizeof(KXWCHAR));
}

DebugConfigWide Widen(const DebugConfig& config)
{
    DebugConfigWide wide = {};
    wide.Head = config.Head;
    WidenField(wide, offsetof(DebugConfigWide, szTraceName), config.szTraceName);
    WidenField(wide, offsetof(DebugConfigWide, szLogFolder), config.szLogFolder);
    WidenField(wide, offsetof(DebugConfigWide, szLogPrefix), config.szLogPrefix);
    WidenField(wide, offsetof(DebugConfigWide, szLogFile), config.szLogFile);
    WidenField(wide, offsetof(DebugConfigWide, szLogExtension), config.szLogExtension);
    return wide;
}

const char* DefaultLogFile(uint32_t unit)
{
    switch (unit)
    {
    case 0:
    case 2:
        return "KxProxy";
    case 1:
        return "KxPfw";
    default:
        return "";
    }
}

// In this order: where a missing value throws, the values before it count.
void ReadValues(Storage::Base& storage, DebugConfig& config)
{
    config.Head.bEnable = storage.ReadNumber("Enable", 0) != 0;
    config.Head.dwLevel = storage.ReadNumber("Level", kTraceError);
    config.Head.dwLogProcess = storage.ReadNumber("LogProcess", 0);
    config.Head.dwLogUnitType = storage.ReadNumber("LogUnitType", 0);
    SetField(config.szLogFolder, storage.ReadString("LogFolder", "c:\\temp\\"));
    SetField(config.szLogPrefix, storage.ReadString("LogPrefix", "VQR_"));
    SetField(config.szLogFile, storage.ReadString("LogFile", DefaultLogFile(config.Head.dwUnit)));
    SetField(config.szLogExtension, storage.ReadString("LogExtension", "log"));
    config.Head.bRobust = storage.ReadNumber("Robust", 0) != 0;
    config.Head.bDebugger = storage.ReadNumber("Debugger", 0) != 0;
}

// Runs what may throw; whatever it throws is deleted, and the answer is false.
template <class Work>
bool Guarded(Work work) noexcept
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
            SetInitialized(false); // first: whoever arrives from here on is turned away without waiting
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
    config.Head.dwLevel = kTraceError;
    SetField(config.szTraceName, m_TraceName);
    try
    {
        const std::unique_ptr<Storage::Base> storage = Storage::Create(settings.Kind);
        if (storage == nullptr)
            return false;
        storage->OpenForReading(settings, config.Head.bServiceSession != 0 ? "ServiceSession" : "InteractiveSession",
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
    const bool isStarted = Guarded([&] { return StartLibrary(config); });
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

bool DebugLog::IsInitialized()
{
    const Synchronize::ScopedLock lock(m_StateLock);
    return m_Initialized;
}

bool DebugLog::IsEnabled()
{
    const Synchronize::ScopedLock lock(m_StateLock);
    return m_Enabled;
}

bool DebugLog::IsLevelOn(uint32_t level)
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
        line = Line(now, level, m_TraceName, message, file, lineNumber);
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
    return Write(file, line, level, [&] { return Message(format, arguments); });
}

bool DebugLog::TraceWideList(const char* file, uint32_t line, uint32_t level, const wchar_t* format,
                             va_list arguments) noexcept
{
    return Write(file, line, level, [&] { return Message(format, arguments); });
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
    const bool isWritten = Write(file, line, level, [&] { return Message(format, arguments); });
    va_end(arguments);
    return isWritten;
}

bool DebugLog::Dump(const char* file, uint32_t line, uint32_t level, const void* data, uint32_t size) noexcept
{
    return Write(file, line, level, [&] { return DumpMessage(data, size); });
}

bool DebugLog::DumpWide(const wchar_t* file, uint32_t line, uint32_t level, const void* data, uint32_t size) noexcept
{
    return Write(file, line, level, [&] { return String::ToWide(DumpMessage(data, size)); });
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

} // namespace KxCommon
