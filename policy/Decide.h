// Which rule decides about traffic. The library stores rules and filters nothing; that the product evaluates them as
// Decider::Decide does is what everything here that judges rules assumes.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "policy/Policy.h"
#include "policy/Ranges.h"

namespace KxPolicy
{

/// What becomes of traffic that a rule decides about.
enum class Verdict
{
    Allowed, // accept
    Refused, // drop, reject, reset
    Asked,   // ask
    Unknown  // an action without a name
};
/// Access rules that are on.
[[nodiscard]] bool Decides(const PFW_RULE& rule) noexcept;
[[nodiscard]] Verdict VerdictOf(const PFW_RULE& rule) noexcept;
[[nodiscard]] std::string_view VerdictText(Verdict verdict) noexcept;

/// What keeps a rule from matching.
enum class Obstacle
{
    Protocol,
    From,
    To,
    FromPort,
    ToPort,
    Program,
    Off
};
[[nodiscard]] std::string_view ObstacleText(Obstacle obstacle) noexcept;

/// Traffic as one set for each field, in the order of Obstacle: any combination of their members is meant. Programs are
/// numbers that a Decider gives them.
using Traffic = std::tuple<NumberSet, AddressSet, AddressSet, NumberSet, NumberSet, NumberSet>;

struct RuleRef
{
    const RuleSetRecord* RuleSet;
    const PFW_RULE* Rule;
};
struct DecidingRule
{
    RuleRef Which;
    bool IsCertain; // false: it may match, but has a name, an extension or a value that cannot be told
    bool IsRest;    // it decides about everything that the rules before it leave
};
struct NearMiss
{
    RuleRef Which;
    Obstacle Kept; // the only one
};

/// The policy must outlive it.
struct Decision
{
    std::vector<DecidingRule> Rules; // in their order; more than one: each about a part
    bool IsUndecided = false;        // about some of the traffic no rule decides for certain
    bool IsComplete = true;          // false: there were too many parts to go on
    std::vector<NearMiss> Misses;    // rules before the last of those, in their order
    std::vector<RuleRef> Others;     // rules of other kinds that apply to some of it
};

class Decider
{
public:
    /// Asks the rule sets of the active list, or those of any other.
    explicit Decider(const Policy& policy);
    Decider(const Policy& policy, const std::vector<uint16_t>& ruleSetIndexes);

    /// Tells which rules decide about traffic that an access rule describes: by its protocol, addresses, ports and
    /// application; one without an application asks for all programs.
    ///
    /// Rule sets are asked in the order of the list, the rules of each by ascending index; the first that matches
    /// decides, and nothing after it is looked at. Only access rules that are on decide. What they decide is their
    /// action: accept allows, drop, reject and reset refuse, ask leaves it to the user. Rules of the other kinds (nat,
    /// throttle, stream, genstream, and access2, which has no action) apply beside that and decide nothing.
    ///
    /// A rule matches when all its fields do. Protocol any takes every number, tcpudp both of them. The first address
    /// and port are where the traffic comes from, the second where it goes. Ports exist with TCP and UDP only. Names
    /// stand for macros, see Names. A rule for a program matches its path in any letter case; hashes are not compared.
    /// Where a rule cannot be told to match (an extension in use, a name that no macro explains, a field of unknown
    /// meaning) it counts as one that may decide, and the rules after it are asked as well.
    [[nodiscard]] Decision Decide(const PFW_RULE& traffic) const;
    [[nodiscard]] Decision Decide(const Traffic& asked) const;

    /// The rules before an access rule that together leave nothing for it to decide, in their order; empty when
    /// something is left, or may be, or when there are too many parts to tell.
    [[nodiscard]] std::vector<RuleRef> Covering(size_t place) const;

    /// The rules in the order in which they are asked.
    [[nodiscard]] size_t Count() const noexcept { return m_Entries.size(); }
    [[nodiscard]] const RuleRef& Rule(size_t place) const noexcept { return m_Entries[place].Which; }
    /// What it matches; where that cannot be told, what it may match.
    [[nodiscard]] const Traffic& Matches(size_t place) const noexcept { return m_Entries[place].Matches; }

private:
    /// From the first to the last value of each field, as numbers in the same order: what lies apart here shares
    /// nothing, and that is soon seen.
    struct Hull
    {
        uint32_t First[std::tuple_size_v<Traffic>];
        uint32_t Last[std::tuple_size_v<Traffic>];
    };
    struct Entry
    {
        RuleRef Which;
        Traffic Matches;
        bool IsCertain;
    };
    struct Less
    {
        bool operator()(const KxCommon::WideString& a, const KxCommon::WideString& b) const noexcept
        {
            return KxCommon::String::CompareNoCase(a, b) < 0;
        }
    };

    [[nodiscard]] Traffic TrafficOf(const PFW_RULE& rule, bool& isCertain) const;

    Names m_Names;
    std::map<KxCommon::WideString, uint32_t, Less> m_Programs;
    std::vector<Entry> m_Entries;
    std::vector<Hull> m_Hulls; // of those that decide for certain; of others what nothing meets

    [[nodiscard]] static Hull HullOf(const Entry& entry);
};

} // namespace KxPolicy
