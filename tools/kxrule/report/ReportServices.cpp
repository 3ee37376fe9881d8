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
    std::string Name;
    NumberSet Protocols;
    NumberSet Ports;
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
            questions.push_back({name, numbers, EveryNumber()});
            continue;
        }
        const NumberSet known = Merged(ports[protocol]);
        for (auto cut = cuts[protocol].begin(); cut != cuts[protocol].end() && std::next(cut) != cuts[protocol].end();
             ++cut)
        {
            const Range<uint32_t> range{*cut, *std::next(cut) - 1};
            if (Meet(known, {range}))
                questions.push_back({name + " " + std::to_string(range.First) +
                                         (range.First == range.Last ? "" : "-" + std::to_string(range.Last)),
                                     numbers,
                                     {range}});
        }
        if (const NumberSet others = Difference(allPorts, known); !others.empty())
            questions.push_back({name + (known.empty() ? "" : ", other ports"), numbers, others});
    }
    questions.push_back({"other protocols", Difference(EveryNumber(), Merged(named)), EveryNumber()});
    return questions;
}

} // namespace

std::vector<Service> FindServices(const Decider& decider, size_t most, size_t& left)
{
    const std::vector<Question> questions = QuestionsOf(decider);
    std::vector<Service> services;
    left = questions.size() - std::min(questions.size(), most);
    for (size_t i = 0; i < questions.size() - left; ++i)
        services.push_back(
            {questions[i].Name, decider.Decide(Traffic{questions[i].Protocols, EveryAddress(), EveryAddress(),
                                                       EveryNumber(), questions[i].Ports, EveryNumber()})});
    return services;
}

} // namespace Tool
