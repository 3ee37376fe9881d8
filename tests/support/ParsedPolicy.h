// Policies for tests, from their text.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "policy/RulesText.h"
#include "tests/support/PolicyText.h"

/// In either form.
inline KxPolicy::Policy ParsedPolicy(const std::string& text)
{
    KxPolicy::Policy policy;
    std::vector<KxPolicy::Diagnostic> found;
    EXPECT_TRUE(KxPolicy::ReadAnyPolicy(text, policy, found)) << found.front().Text << "\n" << text;
    return policy;
}
