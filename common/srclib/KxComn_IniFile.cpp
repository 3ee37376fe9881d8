// Settings in an INI file, through the system's profile functions.
#include "common/srclib/KxComn_IniFile.h"

#include <vector>

#include "common/srclib/KxComn_Windows.h"

#include "common/srclib/Utility.h"

namespace KxCommon::Storage
{

namespace
{

constexpr DWORD kReadStep = 256;

const char* OrEmpty(const char* text) noexcept
{
    return text == nullptr ? "" : text; // the profile functions take null for "all of them"
}

} // namespace

void IniFile::Select(const Key& where, const char* section)
{
    std::string path = OrEmpty(where.Location);
    AppendSeparator(path);
    m_Path = path + OrEmpty(where.Name);
    m_Section = OrEmpty(section);
}

bool IniFile::OpenForReading(const Key& where, const char* section, uint32_t /*view*/)
{
    Select(where, section);
    return true;
}

bool IniFile::OpenForWriting(const Key& where, const char* section, uint32_t /*view*/)
{
    Select(where, section);
    return true;
}

bool IniFile::Close()
{
    m_Section.clear();
    return true;
}

bool IniFile::Flush()
{
    ::WritePrivateProfileStringA(nullptr, nullptr, nullptr, m_Path.c_str()); // returns 0 after flushing
    return true;
}

std::string IniFile::ReadString(const char* name, const char* defaultText)
{
    for (DWORD size = kReadStep;; size += kReadStep)
    {
        std::vector<char> buffer(size);
        const DWORD length = ::GetPrivateProfileStringA(m_Section.c_str(), OrEmpty(name), OrEmpty(defaultText),
                                                        buffer.data(), size, m_Path.c_str());
        if (length != size - 1) // otherwise it may have been cut
            return std::string(buffer.data(), length);
    }
}

uint32_t IniFile::ReadNumber(const char* name, uint32_t defaultNumber)
{
    return ::GetPrivateProfileIntA(m_Section.c_str(), OrEmpty(name), static_cast<INT>(defaultNumber), m_Path.c_str());
}

bool IniFile::WriteString(const char* name, const char* text)
{
    if (::WritePrivateProfileStringA(m_Section.c_str(), OrEmpty(name), OrEmpty(text), m_Path.c_str()) != FALSE)
        return true;
    const DWORD error = ::GetLastError(); // the memory for the exception may change it
    throw new Exception(error, "..\\..\\..\\Common\\srclib\\KxComn_IniFile.cpp");
}

bool IniFile::WriteNumber(const char* name, uint32_t number)
{
    return WriteString(name, std::to_string(number).c_str());
}

} // namespace KxCommon::Storage
