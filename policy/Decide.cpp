// Which rule decides about traffic.
#include "policy/Decide.h"

#include <algorithm>
#include <bit>
#include <set>

#include "common/srclib/KxComn_Record.h"
#include "policy/RuleFields.h"

namespace KxPolicy
{
namespace
{

using KxCommon::Record::Load;

constexpr size_t kMostParts = 4096;
constexpr size_t kFields = std::tuple_size_v<Traffic>;

template <size_t index>
using Field = std::integral_constant<size_t, index>;

/// take(Field<0>()), take(Field<1>()), ...
template <class Take>
void ForEachField(Take take)
{
    [&]<size_t... index>(std::index_sequence<index...>)
    {
        (take(Field<index>()), ...);
    }
    (std::make_index_sequence<kFields>());
}

/// A bit for each field that the two do not share.
uint32_t Apart(const Traffic& a, const Traffic& b)
{
    uint32_t apart = 0;
    ForEachField([&](auto field) { apart |= Meet(std::get<field>(a), std::get<field>(b)) ? 0u : 1u << field; });
    return apart;
}

/// Appends what is left of traffic: first the part outside in one field, then of the rest the part outside in the next.
void Subtract(Traffic from, const Traffic& what, std::vector<Traffic>& rest)
{
    if (Apart(from, what) != 0)
        return rest.push_back(std::move(from));
    ForEachField(
        [&](auto field)
        {
            auto inside = Intersection(std::get<field>(from), std::get<field>(what));
            std::get<field>(from) = Difference(std::get<field>(from), inside);
            if (!std::get<field>(from).empty())
                rest.push_back(from);
            std::get<field>(from) = std::move(inside);
        });
}

/// What is left; nothing if all of it is.
std::optional<std::vector<Traffic>> Without(const std::vector<Traffic>& from, const Traffic& what)
{
    if (std::all_of(from.begin(), from.end(), [&what](const Traffic& part) { return Apart(part, what) != 0; }))
        return std::nullopt;
    std::vector<Traffic> rest;
    for (const Traffic& part : from)
        Subtract(part, what, rest);
    return rest;
}

uint32_t Rank(uint32_t value) noexcept
{
    return value;
}

uint32_t Rank(const AddressValue& value) noexcept
{
    return value.Family == KXRULE_FAMILY_IPV4 ? static_cast<uint32_t>(value.Low >> 1)
                                              : 0x80000000u | static_cast<uint32_t>(value.High >> 33);
}

std::optional<NumberSet> ProtocolSet(uint32_t protocol)
{
    if (protocol == KXRULE_PROTOCOL_ANY)
        return EveryNumber();
    if (protocol == KXRULE_PROTOCOL_TCPUDP)
        return NumberSet{{KXRULE_PROTOCOL_TCP, KXRULE_PROTOCOL_TCP}, {KXRULE_PROTOCOL_UDP, KXRULE_PROTOCOL_UDP}};
    if (protocol > UINT8_MAX) // no protocol has such a number
        return std::nullopt;
    return NumberSet{{protocol, protocol}};
}

} // namespace

bool Decides(const PFW_RULE& rule) noexcept
{
    return rule.dwKind == KXRULE_KIND_ACCESS && rule.dwActive != 0;
}

Verdict VerdictOf(const PFW_RULE& rule) noexcept
{
    switch (rule.dwKind == KXRULE_KIND_ACCESS ? uint32_t{rule.Access.dwAction} : 0)
    {
    case KXRULE_ACTION_ACCEPT:
        return Verdict::Allowed;
    case KXRULE_ACTION_DROP:
    case KXRULE_ACTION_REJECT:
    case KXRULE_ACTION_RESET:
        return Verdict::Refused;
    case KXRULE_ACTION_ASK:
        return Verdict::Asked;
    default:
        return Verdict::Unknown;
    }
}

std::string_view VerdictText(Verdict verdict) noexcept
{
    static constexpr std::string_view kTexts[] = {"allowed", "refused", "asked", "unknown"};
    return kTexts[static_cast<size_t>(verdict)];
}

std::string_view ObstacleText(Obstacle obstacle) noexcept
{
    static constexpr std::string_view kTexts[] = {"protocol", "from address", "to address", "from port",
                                                  "to port",  "program",      "off"};
    return kTexts[static_cast<size_t>(obstacle)];
}

Decider::Decider(const Policy& policy) : Decider(policy, policy.Active.value_or(std::vector<uint16_t>())) {}

Decider::Decider(const Policy& policy, const std::vector<uint16_t>& ruleSetIndexes) : m_Names(policy)
{
    std::set<uint16_t> seen; // a rule set has nothing left to decide the second time it is listed
    for (const uint16_t index : ruleSetIndexes)
    {
        for (const RuleSetRecord& ruleSet : policy.RuleSets)
        {
            if (ruleSet.Index != index || !seen.insert(index).second)
                continue;
            for (const PFW_RULE& rule : ruleSet.Rules)
            {
                const KxCommon::WideString application = ApplicationOf(rule);
                if (!application.empty())
                    m_Programs.try_emplace(application, static_cast<uint32_t>(m_Programs.size()));
                Entry entry{{&ruleSet, &rule}, {}, true};
                entry.Matches = TrafficOf(rule, entry.IsCertain);
                Add(std::move(entry));
            }
        }
    }
}

void Decider::Add(Entry entry)
{
    if (entry.IsCertain && Decides(*entry.Which.Rule) && Apart(entry.Matches, entry.Matches) == 0)
    {
        Group& group = m_Groups[ProgramOf(entry.Matches)];
        group.Places.push_back(m_Entries.size());
        group.Hulls.push_back(HullOf(entry.Matches));
    }
    m_Entries.push_back(std::move(entry));
}

Decider Decider::Narrowed(const Traffic& asked) const
{
    Decider narrowed(m_Names);
    narrowed.m_Programs = m_Programs;
    for (const Entry& entry : m_Entries)
    {
        if (Apart(entry.Matches, asked) == 0)
            narrowed.Add(entry);
    }
    return narrowed;
}

uint32_t Decider::ProgramOf(const Traffic& traffic)
{
    const Range<uint32_t>& programs = std::get<5>(traffic).front();
    return programs.First == programs.Last ? programs.First : kEveryProgram;
}

Decider::Hull Decider::HullOf(const Traffic& traffic)
{
    Hull hull;
    ForEachField(
        [&](auto field)
        {
            hull.First[field] = Rank(std::get<field>(traffic).front().First);
            hull.Last[field] = Rank(std::get<field>(traffic).back().Last);
        });
    return hull;
}

Traffic Decider::TrafficOf(const PFW_RULE& rule, bool& isCertain) const
{
    const uint8_t* const record = reinterpret_cast<const uint8_t*>(&rule);
    const NumberSet streams{{KXRULE_PROTOCOL_TCP, KXRULE_PROTOCOL_TCP}};
    Traffic traffic{rule.dwKind == KXRULE_KIND_STREAM ? streams : EveryNumber(),
                    EveryAddress(),
                    EveryAddress(),
                    EveryNumber(),
                    EveryNumber(),
                    EveryNumber()};
    isCertain = true;
    const auto set = [&](auto& to, auto known)
    {
        isCertain = isCertain && known.has_value();
        if (known)
            to = std::move(*known);
    };
    bool hasPorts = false;
    for (const RuleField& field : KindFields(rule.dwKind))
    {
        const uint8_t* const first = record + field.Places[0];
        const uint8_t* const second = record + field.Places[1];
        if (field.Type == FieldType::Address)
        {
            set(std::get<1>(traffic), m_Names.SetOf(Load<RULE_ADDR>(first)));
            set(std::get<2>(traffic), m_Names.SetOf(Load<RULE_ADDR>(second)));
        }
        else if (field.Type == FieldType::Port)
        {
            const RULE_PORT from = Load<RULE_PORT>(first);
            const RULE_PORT to = Load<RULE_PORT>(second);
            hasPorts = from.nType > KXRULE_PORT_ANY || to.nType > KXRULE_PORT_ANY;
            set(std::get<3>(traffic), m_Names.SetOf(from));
            set(std::get<4>(traffic), m_Names.SetOf(to));
        }
        else if (field.Type == FieldType::Keyword && std::string_view(field.Name) == "protocol")
            set(std::get<0>(traffic), ProtocolSet(Load<uint32_t>(first)));
        else if (field.Type == FieldType::Extension)
            isCertain = isCertain && Load<uint32_t>(first) == 0;
    }
    if (hasPorts)
        std::get<0>(traffic) = Intersection(std::get<0>(traffic), *ProtocolSet(KXRULE_PROTOCOL_TCPUDP));
    const KxCommon::WideString application = ApplicationOf(rule);
    if (!application.empty())
    {
        const auto known = m_Programs.find(application);
        const uint32_t number = known == m_Programs.end() ? static_cast<uint32_t>(m_Programs.size()) : known->second;
        std::get<5>(traffic) = {{number, number}};
    }
    return traffic;
}

std::optional<std::vector<RuleRef>> Decider::Covering(size_t place) const
{
    const Entry& covered = m_Entries[place];
    if (!Decides(*covered.Which.Rule) || Apart(covered.Matches, covered.Matches) != 0)
        return std::vector<RuleRef>();
    const Hull hull = HullOf(covered.Matches);
    const auto meets = [&hull](const Hull& other)
    {
        for (size_t i = kFields; i-- > 0;) // ports and addresses where traffic goes differ most
        {
            if (hull.First[i] > other.Last[i] || other.First[i] > hull.Last[i])
                return false;
        }
        return true;
    };
    // Programs without a rule of their own are left by all rules but those for every program. So these cover a rule for
    // every program alone or not at all.
    std::vector<size_t> before;
    for (const uint32_t program : std::set<uint32_t>{kEveryProgram, ProgramOf(covered.Matches)})
    {
        const auto group = m_Groups.find(program);
        for (size_t i = 0; group != m_Groups.end() && i < group->second.Places.size(); ++i)
        {
            if (group->second.Places[i] >= place)
                break;
            if (meets(group->second.Hulls[i]))
                before.push_back(group->second.Places[i]);
        }
    }
    std::sort(before.begin(), before.end());
    std::vector<RuleRef> covering;
    std::vector<Traffic> left = {covered.Matches};
    for (size_t i = 0; i < before.size() && !left.empty(); ++i)
    {
        if (left.size() > kMostParts)
            return std::nullopt;
        if (auto rest = Without(left, m_Entries[before[i]].Matches))
        {
            covering.push_back(m_Entries[before[i]].Which);
            left = std::move(*rest);
        }
    }
    return left.empty() ? covering : std::vector<RuleRef>();
}

Decision Decider::Decide(const PFW_RULE& traffic) const
{
    bool ignored = true;
    return Decide(TrafficOf(traffic, ignored));
}

Decision Decider::Decide(const Traffic& asked) const
{
    Decision decision;
    std::vector<Traffic> left;
    if (Apart(asked, asked) == 0) // no field is empty
        left.push_back(asked);
    for (size_t place = 0; place < m_Entries.size(); ++place)
    {
        const Entry& entry = m_Entries[place];
        const PFW_RULE& rule = *entry.Which.Rule;
        const bool decides = rule.dwKind == KXRULE_KIND_ACCESS;
        if (decides && (left.empty() || !decision.IsComplete))
            continue;
        const uint32_t obstacles = Apart(entry.Matches, asked) | (rule.dwActive == 0 ? 1u << kFields : 0u);
        if (!decides && obstacles == 0)
            decision.Others.push_back(entry.Which);
        else if (decides && std::has_single_bit(obstacles))
            decision.Misses.push_back({entry.Which, static_cast<Obstacle>(std::countr_zero(obstacles))});
        if (!decides || obstacles != 0)
            continue;
        auto rest = Without(left, entry.Matches);
        if (!rest)
            continue;
        decision.Rules.push_back({entry.Which, entry.IsCertain, rest->empty(), place});
        if (entry.IsCertain)
            left = std::move(*rest);
        decision.IsComplete = left.size() <= kMostParts;
    }
    decision.IsUndecided = !left.empty();
    return decision;
}

} // namespace KxPolicy
