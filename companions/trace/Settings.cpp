// The trace library's settings and the file they come from; docs/settings.md explains them.
#include "companions/trace/Settings.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_Names.h"
#include "common/srclib/KxComn_Record.h"
#include "common/srclib/KxComn_String.h"

#include "companions/NtFile.h"

namespace KxTrace
{

namespace Keys = KxCommon::DebugSettings;
using KxCommon::DebugConfig;
using KxCommon::DebugConfigWide;

namespace
{

std::wstring Ascii(const char* text)
{
    return {text, text + std::strlen(text)};
}

void PutText(void* field, size_t size, std::wstring_view text)
{
    std::memset(field, 0, size * sizeof(wchar_t));
    std::memcpy(field, text.data(), std::min(text.size(), size - 1) * sizeof(wchar_t));
}

// Where services write by default: only the system and administrators may write there.
std::wstring ServiceFolder()
{
    wchar_t folder[MAX_PATH] = {};
    ::GetSystemDirectoryW(folder, MAX_PATH);
    return std::wstring(folder) + L"\\LogFiles\\Quelvane\\";
}

bool IsAbsolute(const std::wstring& folder)
{
    return folder.starts_with(L"\\\\") || (folder.size() > 2 && folder[1] == L':' && folder[2] == L'\\');
}

// One section of a file, read with the profile functions. A missing section has the defaults.
struct Section
{
    std::wstring Path;
    std::wstring Name;

    [[nodiscard]] uint32_t Number(const char* key, uint32_t missing) const
    {
        return ::GetPrivateProfileIntW(Name.c_str(), Ascii(key).c_str(), static_cast<INT>(missing), Path.c_str());
    }
    void Text(void* field, size_t size, const char* key, const std::wstring& missing) const
    {
        std::wstring text(size, L'\0');
        text.resize(::GetPrivateProfileStringW(Name.c_str(), Ascii(key).c_str(), missing.c_str(), text.data(),
                                               static_cast<DWORD>(size), Path.c_str()));
        PutText(field, size, text);
    }
    [[nodiscard]] bool IsThere() const
    {
        wchar_t anything[4];
        return ::GetPrivateProfileSectionW(Name.c_str(), anything, 4, Path.c_str()) != 0;
    }
};

void Read(const Section& section, Settings& settings)
{
    DebugConfigWide& record = settings.Record;
    record.Head.bEnable = section.Number(Keys::kEnable, 0) != 0;
    record.Head.dwLevel = section.Number(Keys::kLevel, Keys::kDefaultLevel);
    record.Head.dwLogProcess = section.Number(Keys::kLogProcess, 0);
    record.Head.dwLogUnitType = section.Number(Keys::kLogUnitType, 0);
    record.Head.bRobust = section.Number(Keys::kRobust, 0) != 0;
    record.Head.bDebugger = section.Number(Keys::kDebugger, 0) != 0;
    section.Text(record.szLogFolder, std::size(record.szLogFolder), Keys::kLogFolder,
                 record.Head.bServiceSession == 1 ? ServiceFolder() : Ascii(Keys::kDefaultLogFolder));
    section.Text(record.szLogPrefix, std::size(record.szLogPrefix), Keys::kLogPrefix, Ascii(Keys::kDefaultLogPrefix));
    section.Text(record.szLogFile, std::size(record.szLogFile), Keys::kLogFile,
                 Ascii(Keys::DefaultLogFile(record.Head.dwUnit)));
    section.Text(record.szLogExtension, std::size(record.szLogExtension), Keys::kLogExtension,
                 Ascii(Keys::kDefaultLogExtension));
    // 0 looks like "no limit" and results from a mistyped number; neither must fill the disk.
    const uint32_t limit = section.Number(kLogSizeLimit, 0);
    settings.SizeLimit = limit == 0 ? kDefaultSizeLimit : std::clamp(limit, kLeastSizeLimit, kMostSizeLimit);
}

} // namespace

DebugConfig Narrow(const DebugConfigWide& record)
{
    DebugConfig narrow = {};
    narrow.Head = record.Head;
    const char* from = reinterpret_cast<const char*>(&record) + sizeof record.Head;
    char* to = reinterpret_cast<char*>(&narrow) + sizeof narrow.Head;
    for (const size_t size : KxCommon::kDebugTexts)
    {
        std::wstring wide = KxCommon::Record::WideText(from, size);
        std::string text = KxCommon::String::ToNarrow(wide);
        for (; text.size() >= size; text = KxCommon::String::ToNarrow(wide))
            wide.pop_back(); // unit by unit: removing bytes would cut a character in half
        std::copy(text.begin(), text.end(), to);
        from += size * sizeof(wchar_t);
        to += size;
    }
    return narrow;
}

void UseOwnFolder(DebugConfigWide& record)
{
    const size_t size = std::size(record.szLogFolder);
    if (record.Head.bServiceSession == 1 &&
        KxCommon::Record::WideText(record.szLogFolder, size) == Ascii(Keys::kDefaultLogFolder))
        PutText(record.szLogFolder, size, ServiceFolder());
}

LogName MakeLogName(const DebugConfigWide& record, const std::wstring& libraryFolder, uint32_t processId)
{
    using KxCommon::Record::WideText;
    std::wstring folder = WideText(record.szLogFolder, std::size(record.szLogFolder));
    const bool isProtected = folder == ServiceFolder();
    std::replace(folder.begin(), folder.end(), L'/', L'\\');
    folder = KxCompanions::FullPath((IsAbsolute(folder) ? folder : libraryFolder + folder) + L'\\');

    LogName name{std::move(folder),
                 WideText(record.szLogPrefix, std::size(record.szLogPrefix)) +
                     WideText(record.szLogFile, std::size(record.szLogFile)),
                 {},
                 WideText(record.szLogExtension, std::size(record.szLogExtension)),
                 isProtected};
    if (record.Head.dwLogUnitType != 0)
        name.Stem += L"_u" + std::to_wstring(record.Head.dwUnit + 0u);
    if (record.Head.dwLogProcess != 0)
        name.Process = L"_p" + std::to_wstring(processId);
    if (!name.Extension.empty() && name.Extension.front() != L'.')
        name.Extension.insert(0, 1, L'.');
    return name;
}

bool LogName::IsOld(std::wstring_view file, uint64_t& number) const
{
    if (file == Name() || !file.starts_with(Stem))
        return false;
    file.remove_prefix(Stem.size());
    if (!Process.empty())
    {
        const size_t digits =
            file.starts_with(L"_p") ? std::min(file.find_first_not_of(L"0123456789", 2), file.size()) : 0;
        if (digits < 3)
            return false;
        file.remove_prefix(digits);
    }
    if (!file.starts_with(Extension))
        return false;
    file.remove_prefix(Extension.size());
    number = 0;
    if (!file.starts_with(L".old"))
        return file.empty();
    if (file.size() > 5)
        number = std::wcstoull(std::wstring(file.substr(5)).c_str(), nullptr, 10);
    return file.find_first_not_of(L".0123456789", 4) ==
           std::wstring_view::npos; // earlier versions had more than a number
}

SettingsFile::SettingsFile(const std::wstring& folder) : m_Path(folder + Ascii(KxCommon::Names::kSettingsFile)) {}

bool SettingsFile::Update(Settings& settings)
{
    // Opened first: the profile functions do not distinguish a locked file from an empty one.
    const KxCommon::UniqueFile file(::CreateFileW(m_Path.c_str(), GENERIC_READ,
                                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    const DWORD error = file ? ERROR_SUCCESS : ::GetLastError();
    if (error != ERROR_SUCCESS && error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND)
        return false;
    Settings read = settings;
    read.Record.Head.ReadTime = {};
    const Section section{
        m_Path, Ascii(read.Record.Head.bServiceSession == 1 ? Keys::kServiceSection : Keys::kInteractiveSection)};
    Read(section, read);
    if (m_Seen
            ? std::memcmp(&read.Record, &m_Seen->Record, sizeof read.Record) == 0 && read.SizeLimit == m_Seen->SizeLimit
            : !section.IsThere())
        return false;
    m_Seen = settings = read;
    return true;
}

} // namespace KxTrace
