// CMacro: a named list of address items, port items and texts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/include/KxPfwRule.h"

class CMacro
{
public:
    CMacro() = default;
    /// The name up to its NUL (31 bytes at most), the items as they are. nItemCount is read only once.
    explicit CMacro(const PFW_MACRO& record);
    CMacro(std::string name, std::vector<MACRO_ITEM> items) : m_Name(std::move(name)), m_Items(std::move(items)) {}
    CMacro(const CMacro&) = default;
    CMacro(CMacro&&) = default;
    CMacro& operator=(const CMacro&) = default;
    CMacro& operator=(CMacro&&) = default;
    virtual ~CMacro() = default; // the only virtual operation

    [[nodiscard]] const std::string& Name() const noexcept { return m_Name; }
    [[nodiscard]] const std::vector<MACRO_ITEM>& Items() const noexcept { return m_Items; }

    /// name=item,item,... 0, or KXRULE_E_MACRO_TEXT (no items) with text unchanged.
    [[nodiscard]] int32_t GetMacroString(std::string& text) const;

    /// Bytes of the macro's record.
    [[nodiscard]] uint64_t RecordBytes() const noexcept { return 40 + uint64_t{137} * m_Items.size(); }
    /// Writes the record to out, RecordBytes() long, except dwReserved. A longer name is cut to 31 bytes, the rest of
    /// the field is zero.
    void CopyRecord(void* out) const noexcept;

private:
    std::string m_Name;
    std::vector<MACRO_ITEM> m_Items;
};
