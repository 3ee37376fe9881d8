// The names of rule files. docs/format.md, "How readers treat the unexpected", says which are refused.
#include "persistence/RuleFileNames.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "persistence/FileFormat.h"

namespace RuleFiles
{

namespace
{

constexpr size_t kLongestName = 200; // leaves room for the directory within the system's 260

// ASCII only: file names of the library and of devices contain no other letters.
constexpr char ToUpper(char character) noexcept
{
    return character >= 'a' && character <= 'z' ? static_cast<char>(character - 'a' + 'A') : character;
}

bool EqualNoCase(std::string_view a, std::string_view b) noexcept
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return ToUpper(x) == ToUpper(y); });
}

// In every directory the system takes these for devices, whatever extension follows.
bool IsDeviceName(std::string_view name) noexcept
{
    std::string_view stem = name.substr(0, name.find('.'));
    while (stem.ends_with(' '))
        stem.remove_suffix(1);
    for (const std::string_view device : {"CON", "PRN", "AUX", "NUL", "CLOCK$", "CONIN$", "CONOUT$"})
        if (EqualNoCase(stem, device))
            return true;
    // Superscript digits count as well; where the code page has them is not looked up.
    return stem.size() == 4 && (EqualNoCase(stem.substr(0, 3), "COM") || EqualNoCase(stem.substr(0, 3), "LPT")) &&
           ((stem[3] >= '0' && stem[3] <= '9') || static_cast<unsigned char>(stem[3]) >= 128);
}

} // namespace

std::string RuleSetFileName(uint16_t index)
{
    char name[sizeof FileFormat::kRuleSetPrefix + 4 + sizeof FileFormat::kRuleSetExtension];
    std::snprintf(name, sizeof name, "%s%04X%s", FileFormat::kRuleSetPrefix, static_cast<unsigned>(index),
                  FileFormat::kRuleSetExtension);
    return name;
}

bool IsBareName(std::string_view name) noexcept
{
    if (name.empty() || name.size() > kLongestName)
        return false;
    for (const char character : name)
        if (static_cast<unsigned char>(character) < 32 ||
            std::string_view("\\/:*?\"<>|").find(character) != std::string_view::npos)
            return false;
    for (const char end : {name.front(), name.back()})
        if (end == '.' || end == ' ')
            return false;
    return !IsDeviceName(name);
}

bool IsRuleSetFileName(std::string_view name) noexcept
{
    const std::string_view prefix = FileFormat::kRuleSetPrefix;
    const std::string_view extension = FileFormat::kRuleSetExtension;
    if (name.size() < prefix.size() + extension.size() || name.size() > prefix.size() + 4 + extension.size())
        return false;
    const size_t stem = name.size() - extension.size();
    return EqualNoCase(name.substr(0, prefix.size()), prefix) && EqualNoCase(name.substr(stem), extension) &&
           name.substr(0, stem).find('.') == std::string_view::npos;
}

bool IsOwnRuleSetFileName(std::string_view name) noexcept
{
    return EqualNoCase(name, RuleSetFileName(IndexFromFileName(name)));
}

bool IsTemporaryFileName(std::string_view name) noexcept
{
    constexpr std::string_view kExtension = ".tmp";
    constexpr size_t kPrefix = 3; // the system uses that many characters of it
    if (name.size() <= kPrefix + kExtension.size() || name.size() > kPrefix + 4 + kExtension.size())
        return false;
    const std::string_view digits = name.substr(kPrefix, name.size() - kPrefix - kExtension.size());
    const auto begins = [name](const char* prefix) { return EqualNoCase(name.substr(0, kPrefix), prefix); };
    return (begins(FileFormat::kMasterTemporary) || begins(FileFormat::kMacroTemporary) ||
            begins(FileFormat::kRuleSetTemporary)) &&
           EqualNoCase(name.substr(name.size() - kExtension.size()), kExtension) &&
           digits.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

uint16_t IndexFromFileName(std::string_view fileName) noexcept
{
    constexpr size_t kPrefix = sizeof FileFormat::kRuleSetPrefix - 1;
    constexpr size_t kDigits = 4;
    uint16_t index = 0;
    if (fileName.size() > kPrefix)
    {
        const std::string_view digits = fileName.substr(kPrefix, kDigits);
        std::from_chars(digits.data(), digits.data() + digits.size(), index, 16);
    }
    return index;
}

} // namespace RuleFiles
