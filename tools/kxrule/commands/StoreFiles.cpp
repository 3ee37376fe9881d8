// The files of a rule directory: names, contents, copies.
#include "tools/kxrule/commands/StoreFiles.h"

#include <algorithm>
#include <cstring>
#include <cwctype>

#include "persistence/FileFormat.h"
#include "persistence/MacroFormat.h"
#include "persistence/RuleFileNames.h"
#include "persistence/RuleSetFormat.h"
#include "policy/Utf8.h"
#include "tools/kxrule/commands/FileStream.h"
#include "tools/kxrule/console/Failure.h"

namespace Tool
{
namespace
{

namespace fs = std::filesystem;

bool StartsWith(const std::wstring& name, const char* prefix) noexcept
{
    size_t i = 0;
    for (; prefix[i] != '\0'; ++i)
    {
        if (i >= name.size() || std::towlower(name[i]) != std::towlower(static_cast<wint_t>(prefix[i])))
            return false;
    }
    return true;
}

bool EndsWith(const std::wstring& name, const char* suffix) noexcept
{
    const size_t length = std::strlen(suffix);
    return name.size() >= length && StartsWith(name.substr(name.size() - length), suffix);
}

void Fail(FileContent& content, int32_t result, std::string problem)
{
    content.Result = result;
    content.Problem = std::move(problem);
}

void ReadMaster(CEncryptStream& stream, FileContent& content)
{
    stream.ReadU32(content.Version);
    if (content.Version != FileFormat::kVersion)
        return Fail(content, KXRULE_E_FILE_READ, "its version is not known");
    MasterFormat::ReadFields(stream, content.Master);
}

void ReadMacros(CEncryptStream& stream, FileContent& content)
{
    stream.ReadU32(content.Version);
    if (content.Version != FileFormat::kVersion)
        return Fail(content, KXRULE_E_MACRO_FORMAT, "its version is not known");
    for (uint32_t count = MacroFormat::ReadCount(stream); count > 0; --count)
    {
        MacroFields macro;
        if (!MacroFormat::ReadMacro(stream, macro))
            return Fail(content, KXRULE_E_FILE_READ,
                        "macro " + std::to_string(content.Macros.size() + 1) + " is damaged or cut short");
        content.Macros.push_back({std::move(macro.Name), std::move(macro.Items)});
    }
}

void ReadRuleSet(CEncryptStream& stream, FileContent& content)
{
    stream.ReadU32(content.Version);
    if (content.Version != FileFormat::kVersion && content.Version != FileFormat::kOldVersion)
        return Fail(content, KXRULE_E_RULESET_FORMAT, "its version is not known");
    RuleSetFormat::Header header;
    RuleSetFormat::ReadHeader(stream, content.Version, header);
    content.RuleSet.Index = header.Index;
    content.RuleSet.Name = header.Name;
    content.RuleCount = header.RuleCount;
    if (content.Version == FileFormat::kOldVersion)
        return;
    for (int32_t i = RuleSetFormat::RuleCount(header); i > 0; --i)
    {
        PFW_RULE rule;
        if (!RuleSetFormat::ReadRule(stream, rule))
            return Fail(content, KXRULE_E_FILE_READ,
                        "rule " + std::to_string(content.RuleSet.Rules.size() + 1) + " of " +
                            std::to_string(header.RuleCount) + " is damaged or cut short");
        content.RuleSet.Rules.push_back(rule);
    }
}

} // namespace

FileContent ReadStoreFile(const fs::path& file)
{
    FileContent content;
    FileStream stream(file);
    if (!stream.IsOpen())
    {
        Fail(content, KXRULE_E_FILE_OPEN, "it cannot be opened: " + SystemText(stream.Error()));
        return content;
    }
    content.Bytes = stream.Size();
    char magic[FileFormat::kMagicBytes] = {};
    if (!stream.Read(magic, sizeof magic, false))
    {
        Fail(content, KXRULE_E_FILE_READ, "it cannot be read");
        return content;
    }
    const std::string_view word(magic, sizeof magic);
    content.Known = true;
    try
    {
        if (word == FileFormat::kMasterMagic)
        {
            content.Kind = FileKind::Master;
            ReadMaster(stream, content);
        }
        else if (word == FileFormat::kMacroMagic)
        {
            content.Kind = FileKind::Macros;
            ReadMacros(stream, content);
        }
        else if (word == FileFormat::kRuleSetMagic)
        {
            content.Kind = FileKind::RuleSet;
            ReadRuleSet(stream, content);
        }
        else
        {
            content.Known = false;
            Fail(content, KXRULE_E_FILE_READ,
                 content.Bytes == 0 ? "it is empty" : "it does not begin as a rule file does");
        }
    }
    catch (CEncryptStream::Exception)
    {
        Fail(content, KXRULE_E_FILE_READ, "it is damaged or cut short");
    }
    return content;
}

bool IsRuleSetFileName(const fs::path& name)
{
    return RuleFiles::IsRuleSetFileName(ToUtf8(name.wstring()));
}

fs::path UsedMacroFileName(const MasterFields& fields, const fs::path& master)
{
    fs::path name = FromUtf8(NarrowToUtf8(fields.MacroFileName));
    const bool isUsed = RuleFiles::IsBareName(fields.MacroFileName) && !IsRuleSetFileName(name) &&
                        !KxCommon::String::EqualNoCase(name.wstring(), master.wstring());
    return isUsed ? name : fs::path(FileFormat::kMacroFileName);
}

std::vector<fs::path> StoreFileNames(const fs::path& directory, const std::string& masterFileName)
{
    const fs::path master = FromUtf8(masterFileName.empty() ? FileFormat::kMasterFileName : masterFileName);
    fs::path macros = FileFormat::kMacroFileName;
    std::error_code error;
    std::vector<fs::path> names;
    if (fs::is_regular_file(directory / master, error))
    {
        names.push_back(master);
        macros = UsedMacroFileName(ReadStoreFile(directory / master).Master, master);
    }
    if (fs::is_regular_file(directory / macros, error))
        names.push_back(macros);
    std::vector<fs::path> ruleSets;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory, error))
    {
        if (entry.is_regular_file(error) && IsRuleSetFileName(entry.path().filename()))
            ruleSets.push_back(entry.path().filename());
    }
    std::sort(ruleSets.begin(), ruleSets.end());
    names.insert(names.end(), ruleSets.begin(), ruleSets.end());
    return names;
}

std::vector<fs::path> TemporaryFileNames(const fs::path& directory)
{
    std::vector<fs::path> names;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory, error))
    {
        const std::wstring name = entry.path().filename().wstring();
        const bool prefix = StartsWith(name, FileFormat::kMasterTemporary) ||
                            StartsWith(name, FileFormat::kMacroTemporary) ||
                            StartsWith(name, FileFormat::kRuleSetTemporary);
        // The system puts one to four hexadecimal digits between the three characters and the extension.
        const size_t digits = name.size() > 7 ? name.size() - 7 : 0;
        if (entry.is_regular_file(error) && prefix && EndsWith(name, ".tmp") && digits >= 1 && digits <= 4 &&
            std::all_of(name.begin() + 3, name.begin() + 3 + static_cast<std::ptrdiff_t>(digits),
                        [](wchar_t c) { return std::iswxdigit(c) != 0; }))
            names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

void CopyFiles(const fs::path& from, const fs::path& to, const std::vector<fs::path>& names)
{
    std::error_code error;
    fs::create_directories(to, error);
    if (!fs::is_directory(to))
        throw Failure(ToUtf8(to.wstring()) + " cannot be made: " + SystemText(static_cast<uint32_t>(error.value())));
    for (const fs::path& name : names)
    {
        if (::CopyFileW((from / name).c_str(), (to / name).c_str(), FALSE) == FALSE)
            throw Failure("copying " + ToUtf8((from / name).wstring()) + " to " + ToUtf8(to.wstring()) + ": " +
                          SystemText(::GetLastError()));
    }
}

fs::path NewBackupDirectory(const fs::path& ruleDirectory)
{
    SYSTEMTIME now{};
    ::GetLocalTime(&now);
    wchar_t dated[32] = {};
    ::swprintf(dated, std::size(dated), L"%02d%02d%02d%02d%02d%02d", now.wYear - 2000, now.wMonth, now.wDay, now.wHour,
               now.wMinute, now.wSecond);
    const fs::path below = ruleDirectory / FileFormat::kBackupDirectory;
    std::error_code error;
    fs::create_directories(below, error);
    for (int attempt = 1; attempt < 100; ++attempt)
    {
        fs::path directory = below / (attempt == 1 ? dated : dated + (L"-" + std::to_wstring(attempt)));
        if (fs::create_directory(directory, error))
            return directory;
        if (error)
            break;
    }
    throw Failure("no backup directory can be made in " + ToUtf8(below.wstring()) + ": " +
                  SystemText(static_cast<uint32_t>(error.value())));
}

} // namespace Tool
