// Which rule decides about traffic. The library stores rules and filters nothing; all code here that judges rules
// assumes that the product evaluates them as Decider::Decide does.
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

/// What happens to traffic that a rule decides about.
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

/// The field because of which a rule does not match.
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

/// Traffic as one set for each field, in the order of Obstacle, which stands for every combination of their members.
/// Programs are numbered by a Decider.
using Traffic = std::tuple<NumberSet, AddressSet, AddressSet, NumberSet, NumberSet, NumberSet>;

struct RuleRef
{
    const RuleSetRecord* RuleSet;
    const PFW_RULE* Rule;
};
struct DecidingRule
{
    RuleRef Which;
    bool IsCertain; // false: it may match, but has a name, an extension or a value of unknown meaning
    bool IsRest;    // it decides about everything left by the rules before it
    size_t Place;   // of the Decider that was asked
};
struct NearMiss
{
    RuleRef Which;
    Obstacle Kept; // the only one
};

/// The policy must outlive it.
struct Decision
{
    std::vector<DecidingRule> Rules; // in their order; if more than one, each decides about a part
    bool IsUndecided = false;        // for some of the traffic, no rule decides for certain
    bool IsComplete = true;          // false: given up because there were too many parts
    std::vector<NearMiss> Misses;    // rules before the last deciding one, in their order
    std::vector<RuleRef> Others;     // rules of other kinds that apply to some of it
};

class Decider
{
public:
    /// Consults the rule sets of the active list, or of any other list.
    explicit Decider(const Policy& policy);
    Decider(const Policy& policy, const std::vector<uint16_t>& ruleSetIndexes);

    /// Returns which rules decide about the traffic that an access rule describes by its protocol, addresses, ports and
    /// application; without an application it stands for all programs.
    ///
    /// Rule sets are consulted in the order of the list, the rules of each by ascending index; the first that matches
    /// decides, and nothing after it is looked at. Only access rules that are on decide. What they decide is their
    /// action: accept allows, drop, reject and reset refuse, ask leaves it to the user. Rules of the other kinds (nat,
    /// throttle, stream, genstream, and access2, which has no action) apply as well and decide nothing.
    ///
    /// A rule matches if all its fields do. Protocol any matches every number, tcpudp both TCP and UDP. The first
    /// address and port are the source of the traffic, the second its destination. Ports exist with TCP and UDP only.
    /// Names stand for macros, see Names. A rule for a program matches its path, ignoring case; hashes are not
    /// compared. A rule of which it is unknown whether it matches (an extension in use, a name without a macro, a field
    /// of unknown meaning) counts as one that may decide, and the rules after it are consulted as well.
    [[nodiscard]] Decision Decide(const PFW_RULE& traffic) const;
    [[nodiscard]] Decision Decide(const Traffic& asked) const;

    /// The rules before an access rule that together leave nothing for it to decide, in their order; empty if
    /// something is or may be left. Nothing if there are too many parts to tell.
    [[nodiscard]] std::optional<std::vector<RuleRef>> Covering(size_t place) const;

    /// With only the rules that may match some of the traffic, for asking much about it.
    [[nodiscard]] Decider Narrowed(const Traffic& asked) const;

    /// The rules in the order in which they are consulted.
    [[nodiscard]] size_t Count() const noexcept { return m_Entries.size(); }
    [[nodiscard]] const RuleRef& Rule(size_t place) const noexcept { return m_Entries[place].Which; }
    /// What it matches; if that is not certain, what it may match.
    [[nodiscard]] const Traffic& Matches(size_t place) const noexcept { return m_Entries[place].Matches; }

private:
    /// The first and the last value of each field, as numbers in the same order: a quick test, since traffic that does
    /// not overlap here has nothing in common.
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

    /// Rules that decide for certain, about one program or about every one.
    struct Group
    {
        std::vector<size_t> Places;
        std::vector<Hull> Hulls;
    };
    static constexpr uint32_t kEveryProgram = UINT32_MAX;

    explicit Decider(const Names& names) : m_Names(names) {}
    void Add(Entry entry);
    [[nodiscard]] static Hull HullOf(const Traffic& traffic);
    [[nodiscard]] static uint32_t ProgramOf(const Traffic& traffic);

    Names m_Names;
    std::map<KxCommon::WideString, uint32_t, Less> m_Programs;
    std::vector<Entry> m_Entries;
    std::map<uint32_t, Group> m_Groups;
};

} // namespace KxPolicy
