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
    AnyToAny,  // accepts everything
    NoHash,    // bound to an application whose file may change unnoticed
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

/// What becomes of traffic to one service: a protocol, and ports where it has some.
struct Service
{
    std::string Name;
    Decision What;
};
/// All services that the rules tell apart, by protocol and port; where lists of ports overlap they are cut. No more
/// than the most; left counts the others.
[[nodiscard]] std::vector<Service> FindServices(const Decider& decider, size_t most, size_t& left);

struct ReportInput
{
    const Policy& Store;
    std::string Source; // where the store is
    std::string Time;
    std::function<std::string(const MacroRecord& macro)> MacroLine;
};

/// Self-contained: no address outside the page is used. Readable without scripts; with them it can be searched and
/// sorted.
[[nodiscard]] std::string ReportPage(const ReportInput& input);

} // namespace Tool
