// A macro: made from a record, shown as text, copied to a record.
#include "rules/Macro.h"

#include <algorithm>
#include <cstring>

#include "common/srclib/KxComn_Record.h"
#include "rules/RuleText.h"

namespace
{

// Items are stored as raw blocks, so one of an unknown type passes through unchanged; it has no text.
void AppendItem(std::string& text, const MACRO_ITEM& item)
{
    RuleText::Line shown;
    switch (item.dwItemType)
    {
    case KXRULE_ITEM_ADDR:
        RuleText::AppendAddress(shown, item.Addr);
        break;
    case KXRULE_ITEM_PORT:
        RuleText::AppendPort(shown, item.Port);
        break;
    case KXRULE_ITEM_TEXT:
        shown += KxCommon::Record::Text(item.szText, sizeof item.szText);
        break;
    }
    text += shown.View();
}

constexpr size_t kUsualItem = 24; // bytes of an item's text

} // namespace

CMacro::CMacro(const PFW_MACRO& record) : m_Name(KxCommon::Record::Text(record.szName, KXRULE_MACRO_NAME_BYTES - 1))
{
    const int32_t count = record.nItemCount;
    const MACRO_ITEM* const items = KXRULE_MACRO_ITEMS(&record);
    if (count > 0)
        m_Items.assign(items, items + count);
}

int32_t CMacro::GetMacroString(std::string& text) const
{
    if (m_Items.empty())
        return KXRULE_E_MACRO_TEXT;
    text.clear();
    text.reserve(m_Name.size() + m_Items.size() * kUsualItem);
    text += m_Name;
    text += '=';
    for (size_t i = 0; i < m_Items.size(); ++i)
    {
        if (i > 0)
            text += ',';
        AppendItem(text, m_Items[i]);
    }
    return KXRULE_OK;
}

void CMacro::CopyRecord(void* out) const noexcept
{
    PFW_MACRO& record = *static_cast<PFW_MACRO*>(out);
    std::memset(record.szName, 0, sizeof record.szName);
    std::memcpy(record.szName, m_Name.data(), std::min(m_Name.size(), sizeof record.szName - 1));
    record.nItemCount = static_cast<int32_t>(m_Items.size());
    std::copy(m_Items.begin(), m_Items.end(), KXRULE_MACRO_ITEMS(&record));
}
