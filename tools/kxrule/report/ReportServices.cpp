// The services that rules tell apart, and what becomes of traffic to each.
#include <algorithm>
#include <map>
#include <set>

#include "policy/RuleFields.h"
#include "tools/kxrule/report/Report.h"

namespace Tool
{
namespace
{

constexpr uint32_t kMostPorts = UINT16_MAX;

std::string ProtocolName(uint32_t protocol)
{
    switch (protocol)
    {
    case KXRULE_PROTOCOL_ICMP:
        return "ICMP";
    case KXRULE_PROTOCOL_TCP:
        return "TCP";
    case KXRULE_PROTOCOL_UDP:
        return "UDP";
    default:
        return "protocol " + std::to_string(protocol);
    }
}

struct Question
{
    std::string Protocol;
    std::string Ports;
    NumberSet ProtocolNumbers;
    NumberSet PortNumbers;
};

/// Each port belongs to one of the ranges between two places where a rule's ports begin or end.
std::vector<Question> QuestionsOf(const Decider& decider)
{
    const NumberSet allPorts{{0, kMostPorts}};
    std::set<uint32_t> protocols = {KXRULE_PROTOCOL_TCP, KXRULE_PROTOCOL_UDP};
    std::map<uint32_t, NumberSet> ports;
    std::map<uint32_t, std::set<uint32_t>> cuts;
    for (size_t place = 0; place < decider.Count(); ++place)
    {
        if (!Decides(*decider.Rule(place).Rule))
            continue;
        const auto& numbers = std::get<0>(decider.Matches(place));
        const auto& to = std::get<4>(decider.Matches(place));
        for (const Range<uint32_t>& range : numbers)
        {
            if (range.First == range.Last)
                protocols.insert(range.First);
        }
        for (const uint32_t protocol : {KXRULE_PROTOCOL_TCP, KXRULE_PROTOCOL_UDP})
        {
            if (Difference(allPorts, to).empty() || !Meet(numbers, {{protocol, protocol}}))
                continue;
            for (const Range<uint32_t>& range : to)
            {
                ports[protocol].push_back(range);
                cuts[protocol].insert({range.First, range.Last + 1});
            }
        }
    }
    std::vector<Question> questions;
    NumberSet named;
    for (const uint32_t protocol : protocols)
    {
        const NumberSet numbers{{protocol, protocol}};
        named.push_back(numbers[0]);
        const std::string name = ProtocolName(protocol);
        if (protocol != KXRULE_PROTOCOL_TCP && protocol != KXRULE_PROTOCOL_UDP)
        {
            questions.push_back({name, "", numbers, allPorts});
            continue;
        }
        const NumberSet known = Merged(ports[protocol]);
        for (auto cut = cuts[protocol].begin(); cut != cuts[protocol].end() && std::next(cut) != cuts[protocol].end();
             ++cut)
        {
            const Range<uint32_t> range{*cut, *std::next(cut) - 1};
            if (Meet(known, {range}))
                questions.push_back(
                    {name,
                     std::to_string(range.First) + (range.First == range.Last ? "" : "-" + std::to_string(range.Last)),
                     numbers,
                     {range}});
        }
        if (const NumberSet others = Difference(allPorts, known); !others.empty())
            questions.push_back({name, known.empty() ? "" : "other ports", numbers, others});
    }
    questions.push_back({"other protocols", "", Difference(EveryNumber(), Merged(named)), allPorts});
    return questions;
}

/// Whether two rules that may decide about one service and one program meet in it.
bool Meeting(const Traffic& a, const Traffic& b)
{
    return Meet(std::get<2>(a), std::get<2>(b)) && Meet(std::get<1>(a), std::get<1>(b)) &&
           Meet(std::get<3>(a), std::get<3>(b));
}

/// The rules that make a difference: not those that only say what the rest gets anyway.
std::vector<DecidingRule> Effective(const Decider& decider, const std::vector<DecidingRule>& rules)
{
    if (rules.empty() || !rules.back().IsRest)
        return rules;
    const Verdict rest = VerdictOf(*rules.back().Which.Rule);
    std::vector<DecidingRule> effective = {rules.back()};
    std::vector<const Traffic*> others; // of what comes after a rule, what gets another verdict than the rest
    for (auto rule = std::next(rules.rbegin()); rule != rules.rend(); ++rule)
    {
        const Traffic& matches = decider.Matches(rule->Place);
        const bool isOther = VerdictOf(*rule->Which.Rule) != rest;
        if (isOther)
            others.push_back(&matches);
        if (isOther || std::any_of(others.begin(), others.end(),
                                   [&matches](const Traffic* other) { return Meeting(*other, matches); }))
            effective.push_back(*rule);
    }
    std::reverse(effective.begin(), effective.end());
    return effective;
}

ServiceRow RowOf(const Decider& decider, const Traffic& asked, const PFW_RULE* program)
{
    const Decision decision = decider.Decide(asked);
    ServiceRow row{program, {}, {}, decision.IsUndecided, decision.IsComplete};
    for (const DecidingRule& rule : Effective(decider, decision.Rules))
    {
        const auto verdict = static_cast<size_t>(VerdictOf(*rule.Which.Rule));
        if (row.Shares[verdict].size() == kMostShares && !rule.IsRest)
        {
            ++row.More[verdict];
            continue;
        }
        Share share{rule, {}};
        for (const DecidingRule& before : decision.Rules)
        {
            if (before.Place == rule.Place)
                break;
            if (VerdictOf(*before.Which.Rule) != VerdictOf(*rule.Which.Rule) &&
                Meeting(decider.Matches(before.Place), decider.Matches(rule.Place)))
                share.Less.push_back(before);
        }
        row.Shares[verdict].push_back(std::move(share));
    }
    return row;
}

} // namespace

std::vector<Service> FindServices(const Decider& decider, size_t mostRows, size_t& left)
{
    const std::vector<Question> questions = QuestionsOf(decider);
    std::vector<Service> services;
    size_t rows = 0;
    for (size_t i = 0; i < questions.size() && rows < mostRows; ++i)
    {
        Traffic asked{questions[i].ProtocolNumbers, EveryAddress(), EveryAddress(), {{0, kMostPorts}},
                      questions[i].PortNumbers,     EveryNumber()};
        const Decider narrowed = decider.Narrowed(asked);
        std::map<uint32_t, const PFW_RULE*> programs;
        NumberSet named;
        for (size_t place = 0; place < narrowed.Count(); ++place)
        {
            const Range<uint32_t> program = std::get<5>(narrowed.Matches(place)).front();
            if (Decides(*narrowed.Rule(place).Rule) && program.First == program.Last &&
                programs.try_emplace(program.First, narrowed.Rule(place).Rule).second)
                named.push_back(program);
        }
        Service service{questions[i].Protocol, questions[i].Ports, {}};
        std::get<5>(asked) = Difference(EveryNumber(), Merged(named));
        service.Rows.push_back(RowOf(narrowed, asked, nullptr));
        for (const auto& [number, rule] : programs)
        {
            std::get<5>(asked) = {{number, number}};
            service.Rows.push_back(RowOf(narrowed, asked, rule));
        }
        rows += service.Rows.size();
        services.push_back(std::move(service));
    }
    left = questions.size() - services.size();
    return services;
}

} // namespace Tool
