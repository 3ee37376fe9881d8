// The files of a rule directory: names, contents, copies.
#include "tools/kxrule/commands/StoreFiles.h"

#include <algorithm>

#include "common/srclib/KxComn_Trace.h"
#include "persistence/EncryptFile.h"
#include "persistence/MacroFormat.h"
#include "persistence/RuleFileNames.h"
#include "persistence/RuleSetFormat.h"
#include "policy/Utf8.h"
#include "tools/kxrule/console/Failure.h"

// What the library's files trace is nobody's here: the tool says itself what failed.
namespace KxCommon
{

std::atomic<bool> g_TraceActive{false};

void TraceLine(const char*, uint32_t, uint32_t, const char*, ...) noexcept {}
void TraceLineWide(const char*, uint32_t, uint32_t, const KXWCHAR*, ...) noexcept {}

} // namespace KxCommon

namespace Tool
{
namespace
{

const char* KindWord(FileKind kind) noexcept
{
    return kind == FileKind::Master ? "master" : kind == FileKind::Macros ? "macro" : "rule set";
}

/// Everything after the head, whose defect is none.
FileDefect ReadBody(CEncryptStream& stream, FileContent& content)
{
    if (content.Kind == FileKind::RuleSet)
    {
        RuleSetFormat::Header header;
        const FileDefect defect = RuleSetFormat::ReadBody(
            stream, content.Version, header, [&](const PFW_RULE& rule) { content.RuleSet.Rules.push_back(rule); });
        content.RuleSet.Index = header.Index;
        content.RuleSet.Name = header.Name;
        content.RuleCount = header.RuleCount;
        return defect;
    }
    std::vector<MacroFields> macros;
    FileDefect defect = FileDefect::None;
    try
    {
        if (content.Kind == FileKind::Master)
            MasterFormat::ReadFields(stream, content.Master);
        else
            defect = MacroFormat::ReadBody(stream, macros);
    }
    catch (CEncryptStream::Exception)
    {
        defect = FileDefect::Damaged;
    }
    for (MacroFields& macro : macros)
        content.Macros.push_back({std::move(macro.Name), std::move(macro.Items)});
    return defect;
}

std::string ProblemText(const FileContent& content, uint32_t error)
{
    switch (content.Defect)
    {
    case FileDefect::None:
        return {};
    case FileDefect::Missing:
    case FileDefect::Busy:
        return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND
                   ? "it is missing"
                   : "it cannot be opened: " + SystemText(error);
    case FileDefect::Unreadable:
        return "it cannot be read";
    case FileDefect::WrongMagic:
        return content.IsKnown      ? std::string("it is a ") + KindWord(content.Kind) + " file"
               : content.Bytes == 0 ? "it is empty"
                                    : "it does not begin as a rule file does";
    case FileDefect::WrongVersion:
        return "its version is not known";
    case FileDefect::Damaged:
        return "it is damaged or cut short";
    case FileDefect::DamagedItem:
        return content.Kind == FileKind::Macros
                   ? "macro " + std::to_string(content.Macros.size() + 1) + " is damaged or cut short"
                   : "rule " + std::to_string(content.RuleSet.Rules.size() + 1) + " of " +
                         std::to_string(content.RuleCount) + " is damaged or cut short";
    case FileDefect::NoIndex:
        return "its index is 0";
    }
    return "it cannot be used";
}

FileContent Read(const RuleDirectory& directory, const std::string& fileName, const FileKind* expected)
{
    FileContent content;
    CEncryptFile file;
    uint32_t error = ERROR_SUCCESS;
    content.Defect = directory.OpenToLook(file, fileName, &error);
    if (content.Defect == FileDefect::None)
    {
        const FileHead head = expected == nullptr ? ReadHead(file) : ReadHead(file, *expected);
        content.IsKnown = head.IsKnown;
        content.Kind = head.Kind;
        content.Version = head.Version;
        content.Bytes = file.Size();
        content.Defect = head.Defect == FileDefect::None ? ReadBody(file, content) : head.Defect;
    }
    content.Problem = ProblemText(content, error);
    return content;
}

/// The path, or its short name if the active code page has no letters for the long one.
std::wstring SayablePath(const std::wstring& path)
{
    if (Utf8ToNarrow(ToUtf8(path)))
        return path;
    std::wstring shortPath(path.size() + MAX_PATH, L'\0');
    const DWORD length = ::GetShortPathNameW(path.c_str(), shortPath.data(), static_cast<DWORD>(shortPath.size()));
    shortPath.resize(length < shortPath.size() ? length : 0);
    if (shortPath.empty() || !Utf8ToNarrow(ToUtf8(shortPath)))
        throw Failure("the library cannot open " + ToUtf8(path) +
                      ": the active code page lacks a character of the path");
    return shortPath;
}

} // namespace

std::string NarrowPath(const std::wstring& path)
{
    return *Utf8ToNarrow(ToUtf8(SayablePath(path)));
}

StoreFile::StoreFile(const std::wstring& path)
{
    const std::filesystem::path sayable = SayablePath(path);
    Directory.Locate(NarrowPath(sayable.parent_path().wstring()), FileFormat::kMasterFileName);
    Name = NarrowPath(sayable.filename().wstring());
}

RuleDirectory StoreAt(const std::wstring& path, const std::string& masterFileName)
{
    const std::optional<std::string> master = Utf8ToNarrow(masterFileName);
    if (!master)
        throw Failure("the active code page lacks a character of the master file's name");
    RuleDirectory directory;
    directory.Locate(NarrowPath(path), master->empty() ? FileFormat::kMasterFileName : *master);
    MasterFields fields;
    CEncryptFile file;
    if (directory.OpenToLook(file, directory.MasterFileName()) == FileDefect::None)
        static_cast<void>(MasterFormat::Read(file, fields)); // a damaged one may still name it
    static_cast<void>(directory.TakeMacroFileName(fields.MacroFileName));
    return directory;
}

FileContent ReadStoreFile(const RuleDirectory& directory, const std::string& fileName)
{
    return Read(directory, fileName, nullptr);
}

FileContent ReadStoreFile(const RuleDirectory& directory, const std::string& fileName, FileKind kind)
{
    return Read(directory, fileName, &kind);
}

std::vector<std::string> StoreFileNames(const RuleDirectory& directory)
{
    std::vector<std::string> names;
    if (!directory.FindFiles(names))
        throw Failure(NarrowToUtf8(directory.Path()) + " cannot be searched: " + SystemText(::GetLastError()));
    const auto ruleSets = std::find_if(names.begin(), names.end(), RuleFiles::IsRuleSetFileName);
    std::sort(ruleSets, names.end());
    return names;
}

void CopyFiles(const RuleDirectory& from, const RuleDirectory& to, const std::vector<std::string>& names)
{
    for (size_t i = 0; i < names.size(); ++i)
    {
        if (from.CopyTo(to, names[i]))
            continue;
        const DWORD error = ::GetLastError();
        for (size_t copied = 0; copied <= i; ++copied)
            to.Remove(names[copied]);
        throw Failure("copying " + NarrowToUtf8(from.Path() + names[i]) + " to " + NarrowToUtf8(to.Path()) + ": " +
                      SystemText(error));
    }
}

std::filesystem::path CopyToBackup(const RuleDirectory& directory, const std::vector<std::string>& names)
{
    if (names.empty())
        return {};
    std::string name = directory.NewBackupDirectory();
    if (name.empty())
        throw Failure("no backup directory can be made in " +
                      NarrowToUtf8(directory.Path() + FileFormat::kBackupDirectory) + ": " +
                      SystemText(::GetLastError()));
    name.pop_back();
    std::filesystem::path path = FromUtf8(NarrowToUtf8(directory.Path() + name));
    RuleDirectory backup;
    backup.Locate(directory.Path() + name, directory.MasterFileName());
    try
    {
        CopyFiles(directory, backup, names);
    }
    catch (const Failure&)
    {
        std::error_code error;
        std::filesystem::remove(path, error);
        throw;
    }
    return path;
}

} // namespace Tool
