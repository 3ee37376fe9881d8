// A process that is made to be killed. It fills a store generation after generation through the exports and reports its
// progress on stdout; another run of it checks whether the files are complete. scripts/torture.py kills it.
//
//   victim write DIR [LOW HIGH]  checks, changes every rule set, writes, and again, until killed
//   victim next  DIR             one generation of "write"; exit code 0, or 1 and the library's result on stdout
//   victim read  DIR             reads once
//   victim check DIR LOW HIGH    every rule set is complete and of a generation from LOW to HIGH, none is a rescue set,
//                                nothing was backed up; exit code 0, or 1 and what is wrong
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/RecordBuilder.h"

namespace
{

constexpr uint16_t kSets = 6;

// Sizes differ between sets and generations, so that a mixture shows.
uint32_t RuleCount(uint16_t set, uint32_t generation)
{
    return 1 + (generation * 7919u + set * 104729u) % (set * 40u);
}

std::vector<PFW_RULE> RulesOf(uint16_t set, uint32_t generation)
{
    std::vector<PFW_RULE> rules;
    for (uint16_t index = 0; index < RuleCount(set, generation); ++index)
    {
        rules.push_back(Build::Rule(KXRULE_KIND_NAT, index));
        rules.back().dwActive = generation;
        for (size_t i = 0; i < sizeof rules.back().abKind; ++i)
            rules.back().abKind[i] = static_cast<uint8_t>(generation + set + i);
    }
    return rules;
}

int Say(const char* what, uint32_t number)
{
    std::printf("%s %u\n", what, static_cast<unsigned>(number));
    std::fflush(stdout);
    return 1;
}

int Fail(const std::string& what)
{
    std::printf("%s\n", what.c_str());
    return 1;
}

std::vector<PFW_RULE> Stored(uint16_t set)
{
    const int32_t count = kxRuleGetRuleSet(set, nullptr, 0);
    if (count < 0)
        return {};
    std::vector<unsigned char> bytes(KXRULE_RULESET_BYTES(count));
    kxRuleGetRuleSet(set, reinterpret_cast<PFW_RULESET*>(bytes.data()), count);
    return {KXRULE_RULES(bytes.data()), KXRULE_RULES(bytes.data()) + count};
}

// The generation that the store is at: the highest that any set has.
uint32_t Generation()
{
    uint32_t generation = 0;
    for (uint16_t set = 1; set <= kSets; ++set)
    {
        const auto rules = Stored(set);
        if (!rules.empty() && rules[0].dwActive > generation)
            generation = rules[0].dwActive;
    }
    return generation;
}

int32_t Put(uint16_t set, uint32_t generation)
{
    const auto rules = RulesOf(set, generation);
    if (kxRuleGetRuleSet(set, nullptr, 0) < 0)
        return kxRuleAddRuleSet(set, Build::RuleSet(set, KXW("set"), rules).get());
    int32_t result = kxRuleDeleteRule(set, 0);
    for (size_t i = 0; i < rules.size() && result == KXRULE_OK; ++i)
        result = kxRuleAddRule(set, rules[i].wRuleIndex, &rules[i]);
    return result;
}

int Next(uint32_t generation)
{
    for (uint16_t set = 1; set <= kSets; ++set)
    {
        if (Put(set, generation) != KXRULE_OK)
            return Fail("cannot change set " + std::to_string(set));
    }
    Say("begin", generation);
    const int32_t result = kxRuleWrite();
    if (result != KXRULE_OK)
        return Say("result", static_cast<uint32_t>(-result));
    Say("done", generation);
    return 0;
}

int Check(const char* directory, uint32_t low, uint32_t high)
{
    if (std::filesystem::exists(std::string(directory) + "\\RuleBackup"))
        return Fail("something was backed up");
    for (uint16_t set = 1; set <= kSets; ++set)
    {
        const auto rules = Stored(set);
        if (rules.empty())
            return Fail("set " + std::to_string(set) + " is missing");
        const uint32_t generation = rules[0].dwActive;
        const auto expected = RulesOf(set, generation);
        if (rules.size() != expected.size() ||
            std::memcmp(rules.data(), expected.data(), rules.size() * sizeof(PFW_RULE)) != 0)
            return Fail("set " + std::to_string(set) + " is not whole");
        if (generation < low || generation > high)
            return Fail("set " + std::to_string(set) + " is of generation " + std::to_string(generation) + ", not " +
                        std::to_string(low) + " to " + std::to_string(high));
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc > 2 ? argv[1] : "";
    if (mode.empty() || kxRuleInitialize(argv[2], nullptr) != KXRULE_OK)
        return 2;
    const int32_t result = kxRuleRead();
    if (result != KXRULE_OK)
        return Say("read failed", static_cast<uint32_t>(-result));
    const auto number = [&](int i) { return static_cast<uint32_t>(std::atoi(argv[i])); };
    int exitCode = argc > 4 ? Check(argv[2], number(3), number(4)) : 0;
    uint32_t generation = Generation();
    if (exitCode == 0 && mode == "write")
        Say("whole", generation);
    while (exitCode == 0 && (mode == "write" || mode == "next"))
    {
        exitCode = Next(++generation);
        if (mode == "next")
            break;
    }
    // No kxRuleFinalize, which would write once more: the process ends as if it had crashed.
    std::fflush(stdout);
    std::_Exit(exitCode);
}
