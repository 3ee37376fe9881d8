// Settings in an INI file.
#pragma once

#include <cstdint>
#include <string>

#include "common/srclib/KxComn_Storage.h"

namespace KxCommon::Storage
{

/// One section of the file whose path is the descriptor's folder (with a backslash appended if it lacks one) and its
/// file name. Opening touches no file. Reading never throws Storage::Exception: a missing value has its default. A
/// failed write throws.
class IniFile final : public Base
{
public:
    bool OpenForReading(const Key& where, const char* section, uint32_t view) override;
    bool OpenForWriting(const Key& where, const char* section, uint32_t view) override;
    bool Close() override;
    bool Flush() override;
    std::string ReadString(const char* name, const char* defaultText) override;
    uint32_t ReadNumber(const char* name, uint32_t defaultNumber) override;
    bool WriteString(const char* name, const char* text) override;
    bool WriteNumber(const char* name, uint32_t number) override;

private:
    void Select(const Key& where, const char* section);

    std::string m_Path;
    std::string m_Section;
};

} // namespace KxCommon::Storage
