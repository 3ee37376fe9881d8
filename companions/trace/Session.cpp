// A session of the trace library: when its settings are read again, and what happens to a line.
#include "companions/trace/Session.h"

#include <cwctype>
#include <string_view>
#include <utility>

#include "common/srclib/KxComn_Identity.h"

namespace KxTrace
{

using Lock = KxCommon::Synchronize::ScopedLock<KxCommon::Synchronize::CriticalSection>;

namespace
{

// Whether a row of a dump begins here; no other message contains line breaks.
bool IsDumpRow(std::wstring_view text)
{
    return text.starts_with(L"\r\n??? ") || (text.size() > 4 && text.starts_with(L"\r\n ") &&
                                             std::iswxdigit(text[3]) != 0 && std::iswxdigit(text[4]) != 0);
}

bool IsControl(wchar_t unit)
{
    return (std::iswcntrl(unit) != 0 && unit != L'\t') || unit == 0x2028 || unit == 0x2029 || // breaks of lines
           (unit >= 0x202A && unit <= 0x202E) || (unit >= 0x2066 && unit <= 0x2069);          // direction of text
}

// Messages contain names from rules: nothing in them must pass for a line of its own or for a terminal's control
// sequence.
std::wstring Printable(std::wstring_view line)
{
    std::wstring text(line);
    const size_t end = line.ends_with(L"\r\n") ? line.size() - 2 : line.size();
    for (size_t i = 0; i < end; ++i)
    {
        if (IsDumpRow(line.substr(i)))
            ++i;
        else if (IsControl(text[i]))
            text[i] = L'.';
    }
    return text;
}

std::string ToUtf8(const std::wstring& text)
{
    const int length = static_cast<int>(text.size());
    std::string utf8(text.size() * 3, '\0'); // no unit needs more
    utf8.resize(static_cast<size_t>(::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, utf8.data(),
                                                          static_cast<int>(utf8.size()), nullptr, nullptr)));
    return utf8;
}

} // namespace

Session::Session(std::wstring folder, const KxCommon::DebugConfigWide& config)
    : m_Folder(std::move(folder)), m_SettingsFile(m_Folder)
{
    const Lock lock(m_Lock);
    m_Settings.Record = config;
    UseOwnFolder(m_Settings.Record);
    Apply();
    Refresh();
}

KxCommon::DebugConfig Session::Config()
{
    const Lock lock(m_Lock);
    Refresh();
    return m_Config;
}

void Session::SetConfig(const KxCommon::DebugConfig& config)
{
    const Lock lock(m_Lock);
    m_Settings.Record = KxCommon::Widen(config);
    Apply();
}

DWORD Session::Trace(const wchar_t* line)
{
    const Lock lock(m_Lock);
    Refresh();
    const KxCommon::DebugConfigHead head = m_Settings.Record.Head;
    if (head.bEnable == 0 || *line == L'\0')
        return ERROR_SUCCESS;
    const std::wstring text = Printable(line);
    // Without a debugger the text would go to a buffer that any process can create, read, and block others with.
    if (head.bDebugger != 0 && ::IsDebuggerPresent() != FALSE)
        ::OutputDebugStringW(text.c_str());
    return m_Log.Append(uint64_t{m_Settings.SizeLimit} * 1024, head.bRobust != 0, ToUtf8(text));
}

// Once a second.
void Session::Refresh()
{
    constexpr uint64_t kInterval = 1000;
    const uint64_t now = ::GetTickCount64();
    if (now < m_RefreshAt)
        return;
    m_RefreshAt = now + kInterval;
    const KxCommon::OwnIdentity identity;
    if (identity && m_SettingsFile.Update(m_Settings))
        Apply();
}

void Session::Apply()
{
    SYSTEMTIME time;
    ::GetLocalTime(&time);
    m_Settings.Record.Head.ReadTime = time;
    m_Config = Narrow(m_Settings.Record);
    m_Log.Use(MakeLogName(m_Settings.Record, m_Folder, ::GetCurrentProcessId()));
    if (m_Settings.Record.Head.bEnable == 0)
        m_Log.Close(); // the log of a trace that is off should not be in use
}

} // namespace KxTrace
