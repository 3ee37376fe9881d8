// The store as one HTML page, with warnings.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "policy/Policy.h"

namespace Tool
{

using namespace KxPolicy;

enum class WarningKind
{
    Covered,  // an earlier rule takes everything that the rule could match
    AnyToAny, // accepts everything
    NoHash,   // bound to an application whose file may change unnoticed
    Rescue,   // replaces rules that were damaged
    NotThere, // an active rule set that does not exist
    NothingActive
};

struct Warning
{
    WarningKind Kind;
    uint16_t RuleSetIndex; // 0: none
    uint16_t RuleIndex;
    bool HasRule;
    std::string Text; // a sentence without its subject
};

/// In the order in which rules are checked: active rule sets as the active list has them, then the others.
[[nodiscard]] std::vector<Warning> FindWarnings(const Policy& policy);

struct ReportInput
{
    const Policy& Store;
    std::string Source; // where the store is
    std::string Time;
    std::function<std::string(uint16_t ruleSetIndex, uint16_t ruleIndex)> RuleLine;
    std::function<std::string(const MacroRecord& macro)> MacroLine;
};

/// Self-contained: no address outside the page is used. Readable without scripts; with them it can be searched and
/// sorted.
[[nodiscard]] std::string ReportPage(const ReportInput& input);

} // namespace Tool
