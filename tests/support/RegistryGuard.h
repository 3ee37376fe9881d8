// The product's machine-wide settings for the time of one test. Windows.
#pragma once

#include <cstdint>
#include <string>

#include "common/srclib/KxComn_Windows.h"

/// While it exists, this process finds an empty key in the place of HKEY_LOCAL_MACHINE. One at a time.
class RegistryGuard
{
public:
    RegistryGuard()
    {
        HKEY key = nullptr;
        ::RegCreateKeyExW(HKEY_CURRENT_USER, m_Name.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
        ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, key);
        ::RegCloseKey(key);
    }
    ~RegistryGuard()
    {
        ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
        ::RegDeleteTreeW(HKEY_CURRENT_USER, m_Name.c_str());
    }
    RegistryGuard(const RegistryGuard&) = delete;
    RegistryGuard& operator=(const RegistryGuard&) = delete;

    void Set(const wchar_t* name, DWORD type, const void* bytes, size_t size) const
    {
        ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Quelvane\\VQR\\PFW", name, type, bytes,
                          static_cast<DWORD>(size));
    }
    void SetNumber(const wchar_t* name, uint32_t number) const { Set(name, REG_DWORD, &number, sizeof number); }
    void SetText(const wchar_t* name, const std::wstring& text) const
    {
        Set(name, REG_SZ, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
    }

private:
    const std::wstring m_Name = L"Software\\KxTest" + std::to_wstring(::GetCurrentProcessId());
};
