// Which rules and macros mention a text, an address or a port.
#include "policy/Find.h"

#include <algorithm>
#include <cstring>
#include <set>

#include "common/srclib/KxComn_Record.h"
#include "policy/ItemText.h"
#include "policy/Ranges.h"
#include "policy/RecordText.h"
#include "policy/RuleFields.h"
#include "policy/Utf8.h"

namespace KxPolicy
{
namespace
{

using KxCommon::WideStringView;
using KxCommon::Record::Load;

class Query
{
public:
    explicit Query(std::string_view text) : m_Text(FromUtf8(text))
    {
        RULE_ADDR address{};
        RULE_PORT port{};
        std::string why;
        if (ParseAddress(text, address, why))
            m_Address = RangeOf(address);
        if (ParsePort(text, port, why))
            m_Ports = RangesOf(port);
    }

    [[nodiscard]] bool IsIn(const RULE_ADDR& item) const
    {
        if (item.dwType == KXRULE_ADDR_NAME)
            return IsName(KxCommon::Record::Text(&item.szName, sizeof item.szName));
        const std::optional<AddressRange> range = RangeOf(item);
        return m_Address && range && Overlap(*m_Address, *range);
    }
    [[nodiscard]] bool IsIn(const RULE_PORT& item) const
    {
        if (item.nType == KXRULE_PORT_NAME)
            return IsName(KxCommon::Record::Text(&item.szList, sizeof item.szList));
        for (const PortRange& range : RangesOf(item))
        {
            for (const PortRange& wanted : m_Ports)
            {
                if (range.First <= wanted.Last && wanted.First <= range.Last)
                    return true;
            }
        }
        return false;
    }
    [[nodiscard]] bool IsPort(uint32_t number) const
    {
        return std::any_of(m_Ports.begin(), m_Ports.end(),
                           [number](const PortRange& range) { return range.First <= number && number <= range.Last; });
    }
    [[nodiscard]] bool IsIn(WideStringView text) const
    {
        for (size_t i = 0; !m_Text.empty() && i + m_Text.size() <= text.size(); ++i)
        {
            if (KxCommon::String::EqualNoCase(text.substr(i, m_Text.size()), m_Text))
                return true;
        }
        return false;
    }
    [[nodiscard]] bool IsInNarrow(std::string_view text) const { return IsIn(KxCommon::String::ToWide(text)); }

    /// From now on this name is found wherever an item has it.
    void AddName(const std::string& name) { m_Names.insert(name); }

private:
    [[nodiscard]] bool IsName(std::string_view name) const
    {
        return m_Names.count(std::string(name)) > 0 || IsInNarrow(name);
    }

    KxCommon::WideString m_Text;
    std::optional<AddressRange> m_Address;
    std::vector<PortRange> m_Ports;
    std::set<std::string> m_Names;
};

bool IsInField(const Query& query, const RuleField& field, const uint8_t* at)
{
    switch (field.Type)
    {
    case FieldType::Address:
        return query.IsIn(Load<RULE_ADDR>(at));
    case FieldType::Port:
        return query.IsIn(Load<RULE_PORT>(at));
    case FieldType::DoubleWord: // a stream's parameter is the port that it speaks to
        return field.Count == 1 && query.IsPort(Load<uint32_t>(at));
    case FieldType::Text:
        return query.IsInNarrow(KxCommon::Record::Text(at, field.Room));
    case FieldType::WideText:
    case FieldType::Application:
        return query.IsIn(KxCommon::Record::WideText(at, field.Room));
    default:
        return false;
    }
}

std::string FindInRule(const Query& query, const PFW_RULE& rule)
{
    const uint8_t* const record = reinterpret_cast<const uint8_t*>(&rule);
    std::string where;
    const auto look = [&](const RuleField& field)
    {
        bool found = field.Type == FieldType::Extension &&
                     query.IsInNarrow(KxCommon::Record::Text(record + field.Places[3], field.Room));
        for (size_t i = 0; i < field.Count; ++i)
            found = found || IsInField(query, field, record + field.Places[i]);
        if (found)
            where += (where.empty() ? "" : ", ") + std::string(field.Name);
    };
    std::for_each(CommonFields().begin(), CommonFields().end(), look);
    std::for_each(KindFields(rule.dwKind).begin(), KindFields(rule.dwKind).end(), look);
    return where;
}

std::string FindInMacro(const Query& query, const MacroRecord& macro)
{
    bool items = false;
    for (const MACRO_ITEM& item : macro.Items)
    {
        const uint32_t type = item.dwItemType;
        items =
            items || (type == KXRULE_ITEM_ADDR && query.IsIn(item.Addr)) ||
            (type == KXRULE_ITEM_PORT && query.IsIn(item.Port)) ||
            (type == KXRULE_ITEM_TEXT && query.IsInNarrow(KxCommon::Record::Text(&item.szText, sizeof item.szText)));
    }
    const bool name = query.IsInNarrow(macro.Name);
    return std::string(name ? "name" : "") + (name && items ? ", " : "") + (items ? "items" : "");
}

} // namespace

std::vector<Hit> Find(const Policy& policy, std::string_view text)
{
    Query query(text);
    std::vector<Hit> macros;
    if (policy.Macros)
    {
        for (const MacroRecord& macro : *policy.Macros)
        {
            std::string where = FindInMacro(query, macro);
            if (where.empty())
                continue;
            macros.push_back({nullptr, nullptr, &macro, std::move(where)});
        }
    }
    for (const Hit& hit : macros)
        query.AddName(hit.Macro->Name);
    std::vector<Hit> hits;
    for (const RuleSetRecord& ruleSet : policy.RuleSets)
    {
        if (query.IsIn(ruleSet.Name))
            hits.push_back({&ruleSet, nullptr, nullptr, "name"});
        for (const PFW_RULE& rule : ruleSet.Rules)
        {
            std::string where = FindInRule(query, rule);
            if (!where.empty())
                hits.push_back({&ruleSet, &rule, nullptr, std::move(where)});
        }
    }
    hits.insert(hits.end(), macros.begin(), macros.end());
    return hits;
}

} // namespace KxPolicy
