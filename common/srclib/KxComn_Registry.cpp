// Settings in the registry.
#include "common/srclib/KxComn_Registry.h"

#include <cstring>
#include <utility>

#include "common/srclib/Utility.h"

namespace KxCommon::Storage
{

namespace
{

constexpr DWORD kReadAccess = 0x20019;   // KEY_READ
constexpr DWORD kWriteAccess = 0x2001F;  // KEY_READ | KEY_WRITE
constexpr DWORD kDeleteAccess = 0x10002; // DELETE | KEY_SET_VALUE
constexpr DWORD kEnumerateAccess = 0x9;  // KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS
constexpr DWORD kKeyNameSize = 256;      // the system's limit of 255, and the terminator
constexpr DWORD kValueNameSize = 16384;  // likewise 16383

[[noreturn]] void Throw(LSTATUS code)
{
    throw new Exception(static_cast<uint32_t>(code), "..\\..\\..\\Common\\srclib\\KxComn_Registry.cpp");
}

void Check(LSTATUS status)
{
    if (status != ERROR_SUCCESS)
        Throw(status);
}

DWORD ViewFlag(uint32_t view) noexcept
{
    switch (view)
    {
    case kView32:
        return KEY_WOW64_32KEY;
    case kView64:
        return KEY_WOW64_64KEY;
    default:
        return 0;
    }
}

std::string KeyPath(const Key& where, const char* name)
{
    std::string path = where.Location == nullptr ? "" : where.Location;
    AppendSeparator(path);
    return path + (name == nullptr ? "" : name);
}

// False if there are no more.
template <class Enumerate>
bool NextName(std::string& name, DWORD size, const Enumerate& enumerate)
{
    std::string found(size, '\0');
    const LSTATUS status = enumerate(found.data(), &size);
    if (status == ERROR_NO_MORE_ITEMS)
        return false;
    Check(status);
    found.resize(size);
    name = std::move(found);
    return true;
}

} // namespace

void Registry::Open(const Key& where, const char* name, uint32_t access, uint32_t view)
{
    m_Path = KeyPath(where, name);
    HKEY key = nullptr;
    const LSTATUS status = ::RegOpenKeyExA(HKEY_LOCAL_MACHINE, m_Path.c_str(), 0, access | ViewFlag(view), &key);
    m_Key.reset(key);
    Check(status);
}

bool Registry::OpenForReading(const Key& where, const char* name, uint32_t view)
{
    Open(where, name, kReadAccess, view);
    return true;
}

bool Registry::OpenForWriting(const Key& where, const char* name, uint32_t view)
{
    m_Path = KeyPath(where, name);
    HKEY key = nullptr;
    const LSTATUS status = ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, m_Path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                             kWriteAccess | ViewFlag(view), m_Attributes.Record(), &key, nullptr);
    m_Key.reset(key);
    Check(status);
    return true;
}

bool Registry::OpenForDeleting(const Key& where, const char* name, uint32_t view)
{
    Open(where, name, kDeleteAccess, view);
    return true;
}

bool Registry::OpenForEnumerating(const Key& where, const char* name, uint32_t view)
{
    Open(where, name, kEnumerateAccess, view);
    return true;
}

bool Registry::Close()
{
    if (!m_Key)
        return false;
    Check(::RegCloseKey(m_Key.release()));
    return true;
}

uint32_t Registry::ReadBinary(const char* name, void* data, uint32_t size)
{
    DWORD type = REG_NONE;
    DWORD length = size;
    Check(::RegQueryValueExA(m_Key.get(), name, nullptr, &type, static_cast<BYTE*>(data), &length));
    if (type != REG_BINARY)
        Throw(ERROR_INVALID_DATA);
    return length;
}

std::string Registry::ReadString(const char* name, const char* /*defaultText*/)
{
    DWORD type = REG_NONE;
    DWORD size = 0;
    Check(::RegQueryValueExA(m_Key.get(), name, nullptr, &type, nullptr, &size));
    if (type != REG_SZ)
        Throw(ERROR_INVALID_DATA);
    std::string text(size + size_t{1}, '\0'); // a stored text may lack its terminator
    DWORD sizeNow = size;
    Check(::RegQueryValueExA(m_Key.get(), name, nullptr, &type, reinterpret_cast<BYTE*>(text.data()), &sizeNow));
    if (type != REG_SZ || sizeNow != size) // somebody wrote in between
        Throw(ERROR_INVALID_DATA);
    text.resize(std::strlen(text.c_str()));
    return text;
}

uint32_t Registry::ReadNumber(const char* name, uint32_t /*defaultNumber*/)
{
    DWORD type = REG_NONE;
    DWORD number = 0;
    DWORD size = sizeof number;
    const LSTATUS status =
        ::RegQueryValueExA(m_Key.get(), name, nullptr, &type, reinterpret_cast<BYTE*>(&number), &size);
    // A longer value does not fit, which is the wrong size, not a failure of the query.
    if (status == ERROR_MORE_DATA)
        Throw(ERROR_INVALID_DATA);
    Check(status);
    if (type != REG_DWORD || size != sizeof number)
        Throw(ERROR_INVALID_DATA);
    return number;
}

bool Registry::WriteBinary(const char* name, const void* data, uint32_t size)
{
    Check(::RegSetValueExA(m_Key.get(), name, 0, REG_BINARY, static_cast<const BYTE*>(data), size));
    return true;
}

bool Registry::WriteString(const char* name, const char* text)
{
    const DWORD size = static_cast<DWORD>(std::strlen(text) + 1);
    Check(::RegSetValueExA(m_Key.get(), name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text), size));
    return true;
}

bool Registry::WriteNumber(const char* name, uint32_t number)
{
    Check(::RegSetValueExA(m_Key.get(), name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof number));
    return true;
}

bool Registry::EnumerateKeys(uint32_t index, std::string& name)
{
    return NextName(name, kKeyNameSize,
                    [&](char* found, DWORD* size)
                    { return ::RegEnumKeyExA(m_Key.get(), index, found, size, nullptr, nullptr, nullptr, nullptr); });
}

bool Registry::EnumerateValues(uint32_t index, std::string& name)
{
    return NextName(name, kValueNameSize,
                    [&](char* found, DWORD* size)
                    { return ::RegEnumValueA(m_Key.get(), index, found, size, nullptr, nullptr, nullptr, nullptr); });
}

bool Registry::DeleteValue(const char* name)
{
    Check(::RegDeleteValueA(m_Key.get(), name));
    return true;
}

bool Registry::DeleteKey(const char* name)
{
    Check(::RegDeleteKeyA(m_Key.get(), name));
    return true;
}

} // namespace KxCommon::Storage
