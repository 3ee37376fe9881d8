// The trace library's settings and the file they come from; docs/settings.md explains them.
#include "companions/trace/Settings.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>
#include <utility>

#include "common/srclib/KxComn_Record.h"

namespace KxTrace
{

namespace Keys = KxCommon::DebugSettings;

namespace
{

std::wstring Widen(const char* ascii)
{
    return {ascii, ascii + std::strlen(ascii)};
}

std::wstring ToWide(std::string_view text)
{
    std::wstring wide(text.size(), L'\0'); // no character takes more units than bytes
    const int length = static_cast<int>(text.size());
    wide.resize(static_cast<size_t>(::MultiByteToWideChar(CP_ACP, 0, text.data(), length, wide.data(), length)));
    return wide;
}

std::string ToNarrow(const std::wstring& text)
{
    const int length = static_cast<int>(text.size());
    const int size = ::WideCharToMultiByte(CP_ACP, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<size_t>(size), '\0');
    ::WideCharToMultiByte(CP_ACP, 0, text.data(), length, narrow.data(), size, nullptr, nullptr);
    return narrow;
}

// The field of a record, at any address.
template <class Character>
std::wstring TextOf(const void* field, size_t length)
{
    if constexpr (sizeof(Character) == 1)
        return ToWide(KxCommon::Record::Text(field, length));
    else
        return KxCommon::Record::WideText(field, length);
}

template <size_t Size>
void PutText(char (&field)[Size], std::wstring text)
{
    std::string narrow = ToNarrow(text);
    while (narrow.size() >= Size)
    {
        text.pop_back(); // a unit at a time: bytes would cut a character in half
        narrow = ToNarrow(text);
    }
    std::memset(field, 0, Size);
    std::memcpy(field, narrow.data(), narrow.size());
}

template <class Character>
Settings SettingsOf(const KxCommon::DebugConfigRecord<Character>& packed)
{
    const KxCommon::DebugConfigHead head = packed.Head;
    Settings settings;
    settings.Enable = head.bEnable != 0;
    settings.Robust = head.bRobust != 0;
    settings.Debugger = head.bDebugger != 0;
    settings.Level = head.dwLevel;
    settings.LogProcess = head.dwLogProcess;
    settings.LogUnitType = head.dwLogUnitType;
    settings.LogFolder = TextOf<Character>(packed.szLogFolder, std::size(packed.szLogFolder));
    settings.LogPrefix = TextOf<Character>(packed.szLogPrefix, std::size(packed.szLogPrefix));
    settings.LogFile = TextOf<Character>(packed.szLogFile, std::size(packed.szLogFile));
    settings.LogExtension = TextOf<Character>(packed.szLogExtension, std::size(packed.szLogExtension));
    return settings;
}

bool IsAbsolute(const std::wstring& folder)
{
    return folder.starts_with(L"\\\\") ||
           (folder.size() > 2 && folder[1] == L':' && (folder[2] == L'\\' || folder[2] == L'/'));
}

} // namespace

Settings FromRecord(const KxCommon::DebugConfigWide& record)
{
    return SettingsOf(record);
}

Settings FromRecord(const KxCommon::DebugConfig& record)
{
    return SettingsOf(record);
}

void ToRecord(const Settings& settings, KxCommon::DebugConfig& record)
{
    record.Head.bEnable = settings.Enable ? 1 : 0;
    record.Head.bRobust = settings.Robust ? 1 : 0;
    record.Head.bDebugger = settings.Debugger ? 1 : 0;
    record.Head.dwLevel = settings.Level;
    record.Head.dwLogProcess = settings.LogProcess;
    record.Head.dwLogUnitType = settings.LogUnitType;
    PutText(record.szLogFolder, settings.LogFolder);
    PutText(record.szLogPrefix, settings.LogPrefix);
    PutText(record.szLogFile, settings.LogFile);
    PutText(record.szLogExtension, settings.LogExtension);
}

KxCommon::DebugConfig NarrowHead(const KxCommon::DebugConfigWide& record)
{
    KxCommon::DebugConfig narrow = {};
    narrow.Head = record.Head;
    PutText(narrow.szTraceName, TextOf<wchar_t>(record.szTraceName, std::size(record.szTraceName)));
    return narrow;
}

LogName MakeLogName(const Settings& settings, const std::wstring& libraryFolder, uint32_t unit, uint32_t processId)
{
    std::wstring folder = IsAbsolute(settings.LogFolder) ? settings.LogFolder : libraryFolder + settings.LogFolder;
    std::replace(folder.begin(), folder.end(), L'/', L'\\');
    if (!folder.empty() && folder.back() != L'\\')
        folder += L'\\';

    LogName name{std::move(folder), settings.LogPrefix + settings.LogFile, {}, settings.LogExtension};
    if (settings.LogUnitType != 0)
        name.Stem += L"_u" + std::to_wstring(unit);
    if (settings.LogProcess != 0)
        name.Process = L"_p" + std::to_wstring(processId);
    if (!name.Extension.empty() && name.Extension.front() != L'.')
        name.Extension.insert(0, 1, L'.');
    return name;
}

SettingsFile::SettingsFile(std::wstring path, bool serviceSession, uint32_t unit)
    : m_Path(std::move(path)), m_Section(Widen(serviceSession ? Keys::kServiceSection : Keys::kInteractiveSection)),
      m_Unit(unit)
{
}

void SettingsFile::Update(const std::function<void(const Settings&)>& apply)
{
    Stamp stamp;
    if (!Look(stamp) || (stamp == m_Stamp && !m_Doubtful))
        return;
    // Held open: the profile functions do not tell a file that somebody has locked from one that is empty.
    const KxCommon::UniqueFile file = stamp.Exists ? OpenToRead() : KxCommon::UniqueFile();
    if (stamp.Exists && !file)
        return;

    // Two changes within the clock's grain leave the same stamp, on some volumes for two seconds. So a stamp that young
    // is not believed the next time; the contents are compared instead.
    constexpr uint64_t kGrain = 25000000; // 2.5 seconds
    FILETIME time;
    ::GetSystemTimeAsFileTime(&time);
    const uint64_t now = static_cast<uint64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime;

    std::optional<Settings> settings;
    if (stamp.Exists)
        settings = Read();
    if (settings != m_Seen)
        apply(settings ? *settings : Defaults());
    // Last: whatever failed before comes again with the next call.
    m_Seen = std::move(settings);
    m_Stamp = stamp;
    m_Doubtful = stamp.Exists && stamp.Written + kGrain > now;
}

bool SettingsFile::Look(Stamp& stamp) const
{
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!::GetFileAttributesExW(m_Path.c_str(), GetFileExInfoStandard, &data))
    {
        const DWORD error = ::GetLastError();
        return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
    }
    stamp.Exists = true;
    stamp.Written =
        static_cast<uint64_t>(data.ftLastWriteTime.dwHighDateTime) << 32 | data.ftLastWriteTime.dwLowDateTime;
    stamp.Size = static_cast<uint64_t>(data.nFileSizeHigh) << 32 | data.nFileSizeLow;
    return true;
}

KxCommon::UniqueFile SettingsFile::OpenToRead() const
{
    return KxCommon::UniqueFile(::CreateFileW(m_Path.c_str(), GENERIC_READ,
                                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
}

std::optional<Settings> SettingsFile::Read() const
{
    wchar_t anything[4];
    if (::GetPrivateProfileSectionW(m_Section.c_str(), anything, 4, m_Path.c_str()) == 0)
        return std::nullopt;

    Settings settings = Defaults();
    settings.Enable = Number(Keys::kEnable, 0) != 0;
    settings.Level = Number(Keys::kLevel, settings.Level);
    settings.LogProcess = Number(Keys::kLogProcess, 0);
    settings.LogUnitType = Number(Keys::kLogUnitType, 0);
    settings.LogFolder = Text(Keys::kLogFolder, settings.LogFolder, 260);
    settings.LogPrefix = Text(Keys::kLogPrefix, settings.LogPrefix, 256);
    settings.LogFile = Text(Keys::kLogFile, settings.LogFile, 256);
    settings.LogExtension = Text(Keys::kLogExtension, settings.LogExtension, 256);
    settings.Robust = Number(Keys::kRobust, 0) != 0;
    settings.Debugger = Number(Keys::kDebugger, 0) != 0;
    // 0 reads like "no limit" and comes out of a mistyped number; neither may fill the disk.
    const uint32_t limit = Number(kLogSizeLimit, 0);
    settings.SizeLimit = limit == 0 ? kDefaultSizeLimit : std::clamp(limit, kLeastSizeLimit, kMostSizeLimit);
    return settings;
}

Settings SettingsFile::Defaults() const
{
    Settings settings;
    settings.LogFolder = Widen(Keys::kDefaultLogFolder);
    settings.LogPrefix = Widen(Keys::kDefaultLogPrefix);
    settings.LogFile = Widen(Keys::DefaultLogFile(m_Unit));
    settings.LogExtension = Widen(Keys::kDefaultLogExtension);
    return settings;
}

std::wstring SettingsFile::Text(const char* key, const std::wstring& missing, uint32_t units) const
{
    std::wstring text(units, L'\0');
    text.resize(::GetPrivateProfileStringW(m_Section.c_str(), Widen(key).c_str(), missing.c_str(), text.data(), units,
                                           m_Path.c_str()));
    return text;
}

uint32_t SettingsFile::Number(const char* key, uint32_t missing) const
{
    return ::GetPrivateProfileIntW(m_Section.c_str(), Widen(key).c_str(), static_cast<INT>(missing), m_Path.c_str());
}

} // namespace KxTrace
