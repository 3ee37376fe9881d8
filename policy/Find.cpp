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
    Query(const Policy& policy, std::string_view text, bool withAny)
        : m_Text(FromUtf8(text)), m_Meanings(policy), m_WithAny(withAny)
    {
        RULE_ADDR address{};
        RULE_PORT port{};
        std::string why;
        if (ParseAddress(text, address, why) && address.dwType != KXRULE_ADDR_NAME && address.dwType != KXRULE_ADDR_ANY)
            m_Addresses = SetOf(address).value_or(AddressSet());
        if (ParsePort(text, port, why) && port.nType != KXRULE_PORT_NAME && port.nType > KXRULE_PORT_ANY)
            m_Ports = SetOf(port).value_or(NumberSet());
    }

    [[nodiscard]] bool IsIn(const RULE_ADDR& item) const
    {
        if (item.dwType == KXRULE_ADDR_NAME && IsName(KxCommon::Record::Text(&item.szName, sizeof item.szName)))
            return true;
        return (m_WithAny || item.dwType != KXRULE_ADDR_ANY) &&
               Meet(m_Addresses, m_Meanings.SetOf(item).value_or(AddressSet()));
    }
    [[nodiscard]] bool IsIn(const RULE_PORT& item) const
    {
        if (item.nType == KXRULE_PORT_NAME && IsName(KxCommon::Record::Text(&item.szList, sizeof item.szList)))
            return true;
        return (m_WithAny || item.nType > KXRULE_PORT_ANY) &&
               Meet(m_Ports, m_Meanings.SetOf(item).value_or(NumberSet()));
    }
    /// Whether a macro means it, and so does a rule that names the macro.
    [[nodiscard]] bool IsMeantBy(const std::string& macro) const
    {
        RULE_ADDR address{KXRULE_ADDR_NAME, {}};
        RULE_PORT port{KXRULE_PORT_NAME, {}};
        macro.copy(address.szName, sizeof address.szName - 1);
        macro.copy(port.szList, sizeof port.szList - 1);
        return Meet(m_Addresses, m_Meanings.SetOf(address).value_or(AddressSet())) ||
               Meet(m_Ports, m_Meanings.SetOf(port).value_or(NumberSet()));
    }
    [[nodiscard]] bool IsPort(uint32_t number) const { return Meet(m_Ports, NumberSet{{number, number}}); }
    [[nodiscard]] bool IsIn(WideStringView text) const { return Contains(text, m_Text); }
    [[nodiscard]] bool IsInNarrow(std::string_view text) const { return IsIn(KxCommon::String::ToWide(text)); }

    /// From now on, every item with this name is found.
    void AddName(const std::string& name) { m_Names.insert(name); }

private:
    [[nodiscard]] bool IsName(std::string_view name) const
    {
        return m_Names.count(std::string(name)) > 0 || IsInNarrow(name);
    }

    KxCommon::WideString m_Text;
    Names m_Meanings;
    AddressSet m_Addresses; // empty: it is not an address
    NumberSet m_Ports;
    bool m_WithAny;
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
    case FieldType::DoubleWord: // a stream's parameter is its destination port
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

/// If the name or a text of the macro matches, rules that name it are found by that name; if its meaning matches, they
/// are found anyway.
std::string FindInMacro(Query& query, const MacroRecord& macro)
{
    bool texts = query.IsInNarrow(macro.Name);
    std::string where = texts ? "name" : "";
    bool items = query.IsMeantBy(macro.Name);
    for (const MACRO_ITEM& item : macro.Items)
    {
        const bool found = item.dwItemType == KXRULE_ITEM_TEXT &&
                           query.IsInNarrow(KxCommon::Record::Text(&item.szText, sizeof item.szText));
        items = items || found;
        texts = texts || found;
    }
    if (texts)
        query.AddName(macro.Name);
    return where + (!where.empty() && items ? ", " : "") + (items ? "items" : "");
}

} // namespace

std::string QueryMistake(std::string_view query)
{
    // Only these characters, and one that does not occur in numbers: no text in a rule looks like this.
    const bool isAddress = query.find_first_not_of("0123456789./-") == std::string_view::npos &&
                           std::count(query.begin(), query.end(), '.') >= 3;
    const bool isAddress6 = query.find_first_not_of("0123456789abcdefABCDEF:./-") == std::string_view::npos &&
                            query.find("::") != std::string_view::npos;
    const bool isPorts = query.find_first_not_of("0123456789-") == std::string_view::npos &&
                         std::count(query.begin(), query.end(), '-') == 1 && query.size() > 2 && query.front() != '-' &&
                         query.back() != '-';
    RULE_ADDR address{};
    RULE_PORT port{};
    std::string why;
    if (((isAddress || isAddress6) && !ParseAddress(query, address, why)) || (isPorts && !ParsePort(query, port, why)))
        return why.empty() ? "it is neither an address nor ports" : why;
    return {};
}

bool Contains(WideStringView text, WideStringView part) noexcept
{
    for (size_t i = 0; !part.empty() && i + part.size() <= text.size(); ++i)
    {
        if (KxCommon::String::EqualNoCase(text.substr(i, part.size()), part))
            return true;
    }
    return false;
}

std::vector<Hit> Find(const Policy& policy, std::string_view text, bool withAny)
{
    Query query(policy, text, withAny);
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
