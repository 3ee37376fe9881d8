// explain: which rule decides about traffic, and why others do not.
#include <algorithm>

#include <nlohmann/json.hpp>

#include "policy/Decide.h"
#include "policy/ItemText.h"
#include "policy/RecordText.h"
#include "policy/RuleFields.h"
#include "policy/RulesText.h"
#include "policy/Utf8.h"
#include "policy/Words.h"
#include "tools/kxrule/commands/Commands.h"
#include "tools/kxrule/console/Columns.h"

namespace Tool
{
namespace
{

constexpr size_t kMostMisses = 5; // the last ones are nearest to the deciding rule; a large policy has hundreds

/// ADDRESS, ADDRESS:PORT, [IPV6]:PORT, :PORT or any.
void PutSide(PFW_RULE& traffic, size_t side, std::string text)
{
    RULE_ADDR address{KXRULE_ADDR_ANY, {}};
    RULE_PORT port{KXRULE_PORT_ANY, {}};
    std::string why;
    size_t colon = text.rfind(':');
    const bool isBracketed = !text.empty() && text.front() == '[' && text.find(']') != std::string::npos;
    if (isBracketed)
        colon = text.find(']') + 1 < text.size() ? text.find(']') + 1 : std::string::npos;
    else if (std::count(text.begin(), text.end(), ':') > 1) // an IPv6 address without a port
        colon = std::string::npos;
    std::string host = text.substr(0, colon);
    if (isBracketed)
        host = host.substr(1, host.find(']') - 1);
    if (!host.empty() && !ParseAddress(host, address, why))
        throw Failure("expected " + std::string(kAddressForms) + " (" + why + ")", ExitUsage);
    if (colon != std::string::npos && (text[colon] != ':' || !ParsePort(text.substr(colon + 1), port, why)))
        throw Failure("expected " + std::string(kPortForms) + " (" + why + ")", ExitUsage);
    traffic.Access.Addr[side] = address;
    traffic.Access.Port[side] = port;
}

PFW_RULE TrafficOf(const ExplainOptions& options)
{
    PFW_RULE traffic = DefaultRule(KXRULE_KIND_ACCESS);
    const Keywords names = KindFields(KXRULE_KIND_ACCESS)[0].Names;
    const Keyword* const protocol = FindKeyword(names, options.Protocol);
    uint32_t number = protocol != nullptr ? protocol->Value : 0;
    if (protocol == nullptr && !ParseNumber(options.Protocol, UINT8_MAX, number))
        throw Failure("expected " + KeywordNames(names) + " or a number from 0 to 255, found \"" + options.Protocol +
                          "\"",
                      ExitUsage);
    traffic.Access.dwProtocol = number;
    PutSide(traffic, 0, options.From);
    PutSide(traffic, 1, options.To);
    std::string why;
    if (!PutWide(&traffic.Access.wszAppName, KXRULE_APP_NAME_UNITS, options.Application, why))
        throw Failure("the program's name: " + why, ExitUsage);
    return traffic;
}

std::string Title(const RuleRef& which)
{
    return "rule " + std::to_string(uint16_t{which.Rule->wRuleIndex}) + " of rule set " +
           std::to_string(which.RuleSet->Index) + " " + Printable(ToUtf8(which.RuleSet->Name));
}

Json AsJson(const RuleRef& which)
{
    return {{"ruleSet", which.RuleSet->Index}, {"rule", uint16_t{which.Rule->wRuleIndex}}};
}

Json AsJson(const Decision& decision)
{
    Json json = {{"undecided", decision.IsUndecided},
                 {"complete", decision.IsComplete},
                 {"rules", Json::array()},
                 {"nearMisses", Json::array()},
                 {"apply", Json::array()}};
    for (const DecidingRule& rule : decision.Rules)
    {
        Json& entry = json["rules"].emplace_back(AsJson(rule.Which));
        entry["verdict"] = VerdictText(VerdictOf(*rule.Which.Rule));
        entry["certain"] = rule.IsCertain;
        entry["rest"] = rule.IsRest;
    }
    for (const NearMiss& miss : decision.Misses)
    {
        Json& entry = json["nearMisses"].emplace_back(AsJson(miss.Which));
        entry["kept"] = ObstacleText(miss.Kept);
    }
    for (const RuleRef& other : decision.Others)
        json["apply"].push_back(AsJson(other));
    return json;
}

void Print(Session& session, const Decision& decision)
{
    Console& console = session.Terminal();
    for (const DecidingRule& rule : decision.Rules)
    {
        const bool isAll = rule.IsRest && &rule == &decision.Rules.front();
        const std::string part = isAll ? "" : rule.IsRest ? "the rest: " : "some of it: ";
        const Verdict verdict = VerdictOf(*rule.Which.Rule);
        console.Out(part +
                    console.Paint(verdict == Verdict::Allowed ? Style::Good : Style::Bad,
                                  (rule.IsCertain ? "" : "perhaps ") + std::string(VerdictText(verdict))) +
                    " by " + Title(rule.Which) + "\n");
        PrintRule(session, *rule.Which.Rule);
    }
    if (decision.IsUndecided)
        console.Out((decision.Rules.empty() ? "no rule decides" : "no rule decides for certain about the rest") +
                    std::string(decision.IsComplete ? "\n" : "; there are too many parts to tell\n"));
    const size_t first = decision.Misses.size() - std::min(decision.Misses.size(), kMostMisses);
    if (!decision.Misses.empty())
        console.Out("only one field did not match" +
                    (first > 0 ? ", of " + Count(decision.Misses.size(), "rule") + " the last" : std::string()) +
                    ":\n");
    std::vector<std::vector<std::string>> rows;
    for (size_t i = first; i < decision.Misses.size(); ++i)
    {
        const NearMiss& miss = decision.Misses[i];
        rows.push_back({"  " + std::to_string(miss.Which.RuleSet->Index),
                        std::to_string(uint16_t{miss.Which.Rule->wRuleIndex}), std::string(ObstacleText(miss.Kept)),
                        Printable(RuleToText(*miss.Which.Rule, true))});
    }
    for (const std::string& line : Aligned(rows, {0, 1}))
        console.Out(line + "\n");
    for (const RuleRef& other : decision.Others)
    {
        console.Out("applies as well: " + Title(other) + "\n");
        PrintRule(session, *other.Rule);
    }
}

} // namespace

int Explain(Session& session, const ExplainOptions& options)
{
    const PFW_RULE traffic = TrafficOf(options);
    session.OpenToLook();
    const Policy policy = session.Read();
    const Decision decision = Decider(policy).Decide(traffic);
    if (session.Options().Json)
        session.Terminal().Out(AsJson(decision).dump(2) + "\n");
    else
        Print(session, decision);
    return ExitDone;
}

} // namespace Tool
