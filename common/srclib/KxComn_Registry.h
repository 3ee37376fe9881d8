// Settings in the registry.
#pragma once

#include <cstdint>
#include <string>

#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_SecurityAttributes.h"
#include "common/srclib/KxComn_Storage.h"
#include "common/srclib/KxComn_Windows.h"

namespace KxCommon::Storage
{

/// One key below HKEY_LOCAL_MACHINE: the descriptor's location (with a backslash appended if it lacks one) and the name
/// given when opening. Opening again closes what was open; so does destruction. Every failing call throws its error.
class Registry final : public Base
{
public:
    /// @param attributes  for keys that OpenForWriting creates; not copied
    explicit Registry(const AccessControl::SecurityAttributes& attributes = AccessControl::DefSecAttr) noexcept
        : m_Attributes(attributes)
    {
    }

    bool OpenForReading(const Key& where, const char* name, uint32_t view) override;
    bool OpenForWriting(const Key& where, const char* name, uint32_t view) override; // creates the key if necessary
    bool OpenForDeleting(const Key& where, const char* name, uint32_t view) override;
    bool OpenForEnumerating(const Key& where, const char* name, uint32_t view) override;
    bool Close() override;
    uint32_t ReadBinary(const char* name, void* data, uint32_t size) override;
    /// Of type REG_SZ, with or without a terminator.
    std::string ReadString(const char* name, const char* defaultText) override;
    /// A REG_DWORD of 4 bytes.
    uint32_t ReadNumber(const char* name, uint32_t defaultNumber) override;
    bool WriteBinary(const char* name, const void* data, uint32_t size) override;
    bool WriteString(const char* name, const char* text) override;
    bool WriteNumber(const char* name, uint32_t number) override;
    bool EnumerateKeys(uint32_t index, std::string& name) override;
    bool EnumerateValues(uint32_t index, std::string& name) override;

    bool DeleteValue(const char* name);
    bool DeleteKey(const char* name);

    [[nodiscard]] const std::string& Path() const noexcept { return m_Path; }

private:
    void Open(const Key& where, const char* name, uint32_t access, uint32_t view);

    const AccessControl::SecurityAttributes& m_Attributes;
    UniqueRegKey m_Key;
    std::string m_Path;
};

} // namespace KxCommon::Storage
