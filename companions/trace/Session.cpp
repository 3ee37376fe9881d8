// A session of the trace library: when its settings are read again and what becomes of a line.
#include "companions/trace/Session.h"

#include <cwchar>
#include <iterator>
#include <utility>

#include "common/srclib/KxComn_Names.h"

namespace KxTrace
{

using KxCommon::Synchronize::CriticalSection;
using Lock = KxCommon::Synchronize::ScopedLock<CriticalSection>;

namespace
{

std::wstring SettingsPath(const std::wstring& folder)
{
    return folder +
           std::wstring(std::begin(KxCommon::Names::kSettingsFile), std::end(KxCommon::Names::kSettingsFile) - 1);
}

std::string ToUtf8(const wchar_t* text)
{
    const int length = static_cast<int>(std::wcslen(text));
    std::string utf8(static_cast<size_t>(length) * 3, '\0'); // no unit takes more
    utf8.resize(static_cast<size_t>(
        ::WideCharToMultiByte(CP_UTF8, 0, text, length, utf8.data(), static_cast<int>(utf8.size()), nullptr, nullptr)));
    return utf8;
}

} // namespace

Session::Session(std::wstring folder, const KxCommon::DebugConfigWide& config)
    : m_Folder(std::move(folder)), m_Unit(config.Head.dwUnit),
      m_SettingsFile(SettingsPath(m_Folder), config.Head.bServiceSession == 1, m_Unit), m_Config(NarrowHead(config))
{
    Apply(FromRecord(config));
    Refresh();
}

KxCommon::DebugConfig Session::Config()
{
    Refresh();
    const Lock lock(m_ConfigLock);
    return m_Config;
}

void Session::SetConfig(const KxCommon::DebugConfig& config)
{
    Settings settings = FromRecord(config);
    {
        const Lock lock(m_ConfigLock);
        settings.SizeLimit = m_SizeLimit;
    }
    Apply(settings);
}

DWORD Session::Trace(const wchar_t* line)
{
    Refresh();
    std::shared_ptr<const Destination> destination = CurrentDestination();
    if (!destination->Enable || *line == L'\0')
        return ERROR_SUCCESS;
    // Without a debugger the text would go to a buffer that any process can make, read and keep others waiting at.
    if (destination->Debugger && ::IsDebuggerPresent() != FALSE)
        ::OutputDebugStringW(line);

    const std::string utf8 = ToUtf8(line);
    const Lock lock(m_LogLock);
    destination = CurrentDestination(); // a trace that went off meanwhile has closed its log for good
    return destination->Enable ? m_Log.Append(destination->Path, destination->Limit, destination->Robust, utf8)
                               : ERROR_SUCCESS;
}

std::shared_ptr<const Session::Destination> Session::CurrentDestination()
{
    const Lock lock(m_ConfigLock);
    return m_Destination;
}

// At most once a second, by one thread at a time; the others go on with the settings they have.
void Session::Refresh()
{
    constexpr uint64_t kInterval = 1000;
    const uint64_t now = ::GetTickCount64();
    if (now < m_RefreshAt.load(std::memory_order_relaxed) || m_Refreshing.test_and_set(std::memory_order_acquire))
        return;
    struct Done
    {
        std::atomic_flag& Flag;
        ~Done() { Flag.clear(std::memory_order_release); }
    } const done{m_Refreshing};

    m_RefreshAt.store(now + kInterval, std::memory_order_relaxed);
    m_SettingsFile.Update([this](const Settings& settings) { Apply(settings); });
}

void Session::Apply(const Settings& settings)
{
    const LogName name = MakeLogName(settings, m_Folder, m_Unit, ::GetCurrentProcessId());
    const auto destination = std::make_shared<const Destination>(Destination{
        settings.Enable, settings.Debugger, settings.Robust, uint64_t{settings.SizeLimit} * 1024, name.Path()});
    {
        const Lock lock(m_ConfigLock);
        ToRecord(settings, m_Config);
        SYSTEMTIME time;
        ::GetLocalTime(&time);
        m_Config.Head.ReadTime = time;
        m_SizeLimit = settings.SizeLimit;
        m_Destination = destination;
    }
    if (settings.Enable)
    {
        RemoveOldLogs(name);
    }
    else
    {
        const Lock lock(m_LogLock);
        m_Log.Close(); // nobody should find the log of a trace that is off in use
    }
}

} // namespace KxTrace
