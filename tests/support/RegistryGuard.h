// The product's machine-wide settings for the time of one test. Windows.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_Windows.h"

/// Removes all settings and restores them at the end. All test programs that use it share one registry, so only one of
/// them uses it at a time; the others wait.
class RegistryGuard
{
public:
    RegistryGuard() : m_Turn(::CreateMutexW(nullptr, FALSE, L"KxTestRegistryGuard"))
    {
        ::WaitForSingleObject(m_Turn.get(), INFINITE);
        HKEY key = nullptr;
        ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Quelvane\\VQR\\PFW", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                          &key, nullptr);
        m_Key.reset(key);
        for (const wchar_t* const name : {L"InstallPath", L"RuleWriteInterval", L"HashNetworkFiles"})
            Save(name);
    }
    ~RegistryGuard()
    {
        for (const auto& [name, value] : m_Saved)
        {
            ::RegDeleteValueW(m_Key.get(), name.c_str());
            if (value.Type != REG_NONE)
                Set(name.c_str(), value.Type, value.Bytes.data(), value.Bytes.size());
        }
        ::ReleaseMutex(m_Turn.get());
    }
    RegistryGuard(const RegistryGuard&) = delete;
    RegistryGuard& operator=(const RegistryGuard&) = delete;

    void Set(const wchar_t* name, DWORD type, const void* bytes, size_t size) const
    {
        ::RegSetValueExW(m_Key.get(), name, 0, type, static_cast<const BYTE*>(bytes), static_cast<DWORD>(size));
    }
    void SetNumber(const wchar_t* name, uint32_t number) const { Set(name, REG_DWORD, &number, sizeof number); }
    void SetText(const wchar_t* name, const std::wstring& text) const
    {
        Set(name, REG_SZ, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
    }

private:
    struct Value
    {
        DWORD Type = REG_NONE; // REG_NONE: there was none
        std::vector<BYTE> Bytes;
    };

    void Save(const wchar_t* name)
    {
        Value value;
        DWORD size = 0;
        if (::RegQueryValueExW(m_Key.get(), name, nullptr, &value.Type, nullptr, &size) == ERROR_SUCCESS)
        {
            value.Bytes.resize(size);
            ::RegQueryValueExW(m_Key.get(), name, nullptr, nullptr, value.Bytes.data(), &size);
            ::RegDeleteValueW(m_Key.get(), name);
        }
        m_Saved[name] = std::move(value);
    }

    KxCommon::UniqueKernelObject m_Turn;
    KxCommon::UniqueRegKey m_Key;
    std::map<std::wstring, Value> m_Saved;
};
