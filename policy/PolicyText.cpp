// A policy's text, whichever form it has.
#include "policy/PolicyText.h"

#include "policy/RulesText.h"

namespace KxPolicy
{

bool ReadPolicyText(std::string_view text, Policy& policy, std::vector<Diagnostic>& diagnostics)
{
    if (!ReadAnyPolicy(text, policy, diagnostics))
        return false;
    if (!policy.HasVersion)
        diagnostics.push_back(
            {1, 1, {}, "\"version\" is missing; this form has version " + std::to_string(kPolicyVersion)});
    return diagnostics.empty();
}

} // namespace KxPolicy
