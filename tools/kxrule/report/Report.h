// The store as one HTML page, with warnings.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "policy/Decide.h"

namespace Tool
{

using namespace KxPolicy;

enum class WarningKind
{
    Covered,   // earlier rules take everything that the rule could match, and decide otherwise
    Redundant, // they decide the same
    Unchecked, // of neither could be told
    AnyToAny,  // accepts everything
    NoHash,    // a program in rules that do not notice when its file changes
    Rescue,    // replaces rules that were damaged
    NotThere,  // an active rule set that does not exist
    NothingActive,
    Mistake // what hardly anybody means: policy/Lint.h
};

struct Warning
{
    WarningKind Kind;
    uint16_t RuleSetIndex; // 0: none
    uint16_t RuleIndex;
    bool HasRule;
    std::string Text;             // a sentence without its subject
    std::vector<RuleRef> By = {}; // the rules that take effect instead
};

/// In the order in which rules are checked: active rule sets as the active list has them, then the others.
[[nodiscard]] std::vector<Warning> FindWarnings(const Policy& policy);

inline constexpr size_t kMostShares = 12; // in a cell; the others are counted

/// What one rule decides of the traffic to a service.
struct Share
{
    DecidingRule Rule;
    std::vector<DecidingRule> Less; // rules before it that decide otherwise about some of what it matches
};
/// What becomes of traffic of one program, or of all that no other row is about.
struct ServiceRow
{
    const PFW_RULE* Program;      // a rule that names it
    std::vector<Share> Shares[4]; // by verdict; without those that change nothing
    size_t More[4];               // shares beyond the most
    bool IsUndecided;
    bool IsComplete;
};
/// What becomes of traffic to one service: a protocol, and ports where it has some.
struct Service
{
    std::string Protocol;
    std::string Ports;
    std::vector<ServiceRow> Rows; // the first is that of all other programs
};
/// All services that the rules tell apart, by protocol and port; where lists of ports overlap they are cut. Ends when
/// there are that many rows; left counts the services without.
[[nodiscard]] std::vector<Service> FindServices(const Decider& decider, size_t mostRows, size_t& left);

struct ReportInput
{
    const Policy& Store;
    std::string Machine;
    std::string Source; // where the store is
    std::string Time;
    std::function<std::string(const MacroRecord& macro)> MacroLine;
};

/// Self-contained: no address outside the page is used. Up to 2,000 rules it is readable without scripts; with them it
/// can be searched and sorted. The rows of a larger page are text, which the script turns into rows as they are needed.
[[nodiscard]] std::string ReportPage(const ReportInput& input);

} // namespace Tool
