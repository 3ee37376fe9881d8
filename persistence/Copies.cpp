// Copies of whole stores.
#include "persistence/Copies.h"

#include <algorithm>
#include <functional>
#include <map>
#include <tuple>

#include "common/srclib/KxComn_Windows.h"

#include <bcrypt.h>

#include "persistence/Files.h"
#include "persistence/RuleFileNames.h"

namespace Copies
{

namespace
{

constexpr size_t kDateDigits = 12;

bool IsNumber(const std::string& text, size_t least, size_t most)
{
    return text.size() >= least && text.size() <= most && text.find_first_not_of("0123456789") == std::string::npos;
}

constexpr char kManifest[] = "KxRulMan.txt";

/// The system's own SHA-256.
class Hash
{
public:
    Hash()
    {
        if (::BCryptOpenAlgorithmProvider(&m_Provider, BCRYPT_SHA256_ALGORITHM, nullptr, 0) < 0 ||
            ::BCryptCreateHash(m_Provider, &m_Hash, nullptr, 0, nullptr, 0, 0) < 0)
            m_Hash = nullptr;
    }
    ~Hash()
    {
        if (m_Hash != nullptr)
            ::BCryptDestroyHash(m_Hash);
        if (m_Provider != nullptr)
            ::BCryptCloseAlgorithmProvider(m_Provider, 0);
    }
    Hash(const Hash&) = delete;
    Hash& operator=(const Hash&) = delete;

    [[nodiscard]] bool Add(void* bytes, uint32_t size)
    {
        return m_Hash != nullptr && ::BCryptHashData(m_Hash, static_cast<UCHAR*>(bytes), size, 0) >= 0;
    }
    /// Hexadecimal digits; empty on failure.
    [[nodiscard]] std::string End()
    {
        UCHAR bytes[32];
        if (m_Hash == nullptr || ::BCryptFinishHash(m_Hash, bytes, sizeof bytes, 0) < 0)
            return {};
        std::string text;
        for (const UCHAR byte : bytes)
        {
            text += "0123456789abcdef"[byte >> 4];
            text += "0123456789abcdef"[byte & 15];
        }
        return text;
    }

private:
    BCRYPT_ALG_HANDLE m_Provider = nullptr;
    BCRYPT_HASH_HANDLE m_Hash = nullptr;
};

constexpr size_t kDigits = 64;
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

/// Reads a whole file in blocks.
bool ReadAll(const std::string& path, const std::function<bool(char*, uint32_t)>& take)
{
    const KxCommon::UniqueFile file = Files::Open(path.c_str(), GENERIC_READ, OPEN_EXISTING, kShareAll);
    std::vector<char> block(1 << 16);
    for (uint32_t got = 1; file && got > 0;)
    {
        if (!Files::Read(file.get(), block.data(), static_cast<uint32_t>(block.size()), &got) ||
            !take(block.data(), got))
            return false;
    }
    return static_cast<bool>(file);
}

/// A file's line in the manifest without its name: SHA-256 and size. Empty if it cannot be read.
std::string Print(const std::string& path)
{
    Hash hash;
    uint64_t size = 0;
    const bool isRead = ReadAll(path,
                                [&](char* bytes, uint32_t got)
                                {
                                    size += got;
                                    return hash.Add(bytes, got);
                                });
    const std::string digits = isRead ? hash.End() : "";
    return digits.empty() ? "" : digits + " " + std::to_string(size);
}

using Prints = std::map<std::string, std::string>; // by name

std::optional<Prints> PrintsOf(const RuleDirectory& directory)
{
    std::vector<std::string> names;
    if (!directory.FindFiles(names))
        return std::nullopt;
    Prints prints;
    for (const std::string& name : names)
    {
        if ((prints[name] = Print(directory.Path() + name)).empty())
            return std::nullopt;
    }
    return prints;
}

Prints ReadManifest(const RuleDirectory& directory)
{
    std::string text;
    const bool isRead = ReadAll(directory.Path() + kManifest,
                                [&text](const char* bytes, uint32_t got)
                                {
                                    text.append(bytes, got);
                                    return text.size() < (1 << 20);
                                });
    Prints prints;
    for (size_t at = 0; isRead && at < text.size();)
    {
        const size_t end = std::min(text.find('\n', at), text.size());
        const std::string line = text.substr(at, end - at);
        const size_t name = line.find(' ', kDigits + 1);
        if (line.size() > kDigits && name != std::string::npos && RuleFiles::IsBareName(line.substr(name + 1)))
            prints[line.substr(name + 1)] = line.substr(0, name);
        at = end + 1;
    }
    return prints;
}

bool WriteManifest(const RuleDirectory& directory, const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names)
    {
        const std::string print = Print(directory.Path() + name);
        if (print.empty())
            return false;
        text.append(print).append(" ").append(name).append("\n");
    }
    KxCommon::UniqueFile file = Files::Open((directory.Path() + kManifest).c_str(), GENERIC_WRITE, CREATE_ALWAYS);
    return file && Files::Write(file.get(), text.data(), static_cast<uint32_t>(text.size())) &&
           Files::Flush(file.get()) && Files::Close(file);
}

void RemoveDirectory(const std::string& path)
{
    const DWORD error = ::GetLastError();
    ::RemoveDirectoryA(path.c_str());
    ::SetLastError(error);
}

} // namespace

bool CopyFiles(const RuleDirectory& from, const RuleDirectory& to, const std::vector<std::string>& names,
               std::string& failed)
{
    size_t done = 0;
    while (done < names.size() && from.CopyTo(to, names[done]))
        ++done;
    if (done == names.size() && WriteManifest(to, names))
        return true;
    const DWORD error = ::GetLastError();
    failed = done < names.size() ? names[done] : kManifest;
    for (size_t i = 0; i <= std::min(done, names.size() - 1); ++i)
        to.Remove(names[i]);
    to.Remove(kManifest);
    ::SetLastError(error);
    return false;
}

bool CopyToBackup(const RuleDirectory& directory, const std::vector<std::string>& names, std::string& backup,
                  std::string& failed)
{
    backup = directory.NewBackupDirectory();
    failed = backup.empty() ? FileFormat::kBackupDirectory : "";
    if (backup.empty())
        return false;
    backup.pop_back();
    RuleDirectory target;
    target.Locate(directory.Path() + backup, directory.MasterFileName());
    if (CopyFiles(directory, target, names, failed))
        return true;
    RemoveDirectory(target.Path());
    return false;
}

bool PutFiles(const RuleDirectory& source, const RuleDirectory& target, const std::vector<std::string>& names,
              std::string& failed)
{
    std::vector<std::string> replaced;
    failed = {};
    if (!target.FindFiles(replaced))
        return false;
    for (auto name = names.rbegin(); name != names.rend(); ++name)
    {
        if (!target.Put(source, *name, *name))
        {
            failed = *name;
            return false;
        }
    }
    for (const std::string& name : replaced)
    {
        if (std::find(names.begin(), names.end(), name) == names.end())
            target.Remove(name);
    }
    return true;
}

std::vector<Dated> FindBackups(const RuleDirectory& directory)
{
    std::vector<std::string> names;
    const std::string parent = std::string(FileFormat::kBackupDirectory) + '\\';
    static_cast<void>(Files::FindFiles(directory.Path() + parent + '*', names));
    std::vector<Dated> backups;
    for (const std::string& name : names)
    {
        const size_t dash = std::min(name.find('-'), name.size());
        const std::string number = dash == name.size() ? "0" : name.substr(dash + 1);
        const std::string place = parent + name;
        const DWORD attributes = Files::Attributes((directory.Path() + place).c_str());
        if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
            IsNumber(name.substr(0, dash), kDateDigits, kDateDigits) && IsNumber(number, 1, 5))
            backups.push_back({place, name.substr(0, dash), static_cast<unsigned>(std::stoul(number))});
    }
    std::sort(backups.begin(), backups.end(),
              [](const Dated& a, const Dated& b)
              { return std::tie(a.Digits, a.Number) > std::tie(b.Digits, b.Number); });
    return backups;
}

void RemoveOldest(const RuleDirectory& directory, size_t keep, const std::string& made)
{
    --keep; // the one just made, which need not be the newest by its name: clocks are set back
    for (const Dated& backup : FindBackups(directory))
    {
        if (backup.Number == 0 || backup.Name == made)
            continue;
        if (keep > 0)
        {
            --keep;
            continue;
        }
        RuleDirectory old;
        old.Locate(directory.Path() + backup.Name, directory.MasterFileName());
        for (const auto& [name, print] : ReadManifest(old))
            old.Remove(name);
        old.Remove(kManifest);
        RemoveDirectory(old.Path());
    }
}

std::optional<std::vector<Changed>> Compare(const RuleDirectory& directory, const RuleDirectory& backup)
{
    Prints before = ReadManifest(backup);
    if (before.empty())
        before = PrintsOf(backup).value_or(Prints());
    const std::optional<Prints> now = PrintsOf(directory);
    if (before.empty() || !now)
        return std::nullopt;
    std::vector<Changed> changes;
    for (const auto& [name, print] : before)
    {
        if (!now->contains(name))
            changes.push_back({name, Change::Missing});
        else if (now->at(name) != print)
            changes.push_back({name, Change::Altered});
    }
    for (const auto& [name, print] : *now)
    {
        if (!before.contains(name))
            changes.push_back({name, Change::Added});
    }
    return changes;
}

bool HasManifest(const RuleDirectory& backup)
{
    return !ReadManifest(backup).empty();
}

} // namespace Copies
