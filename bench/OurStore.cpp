// The library, called as programs call it.
#include "bench/OurStore.h"

#include <cstring>

namespace Bench
{

OurStore::OurStore(const std::string& directory)
{
    Check(kxRuleInitialize(directory.c_str(), nullptr) == KXRULE_OK, "kxRuleInitialize");
}

OurStore::~OurStore()
{
    kxRuleFinalize();
}

void OurStore::AddSet(uint16_t set)
{
    PFW_RULESET head = {};
    constexpr wchar_t kName[] = L"bench";
    std::memcpy(reinterpret_cast<uint8_t*>(&head) + offsetof(PFW_RULESET, wszName), kName, sizeof(kName));
    Check(kxRuleAddRuleSet(set, &head) == KXRULE_OK, "kxRuleAddRuleSet");
}

void OurStore::Fill(const Shape& shape)
{
    for (uint16_t set = kFirstSet; set < kFirstSet + shape.Sets; ++set)
    {
        AddSet(set);
        for (size_t i = 0; i < shape.Rules; ++i)
        {
            const PFW_RULE rule = MakeRule(set, i);
            Check(kxRuleAddRule(set, RuleKey(i), &rule) == KXRULE_OK, "kxRuleAddRule");
        }
    }
}

void OurStore::MarkAll(const Shape& shape)
{
    // A refused deletion changes nothing, but marks the set as changed.
    for (uint16_t set = kFirstSet; set < kFirstSet + shape.Sets; ++set)
        Check(kxRuleDeleteRule(set, 65535) == KXRULE_E_NO_RULE, "kxRuleDeleteRule");
}

void OurStore::WriteAll()
{
    Check(kxRuleWrite() == KXRULE_OK, "kxRuleWrite");
}

void OurStore::ChangeOne(uint16_t set, uint16_t rule, const PFW_RULE& record)
{
    Check(kxRuleDeleteRule(set, rule) == KXRULE_OK, "kxRuleDeleteRule");
    Check(kxRuleAddRule(set, rule, &record) == KXRULE_OK, "kxRuleAddRule");
    Check(kxRuleFlush() == KXRULE_OK, "kxRuleFlush");
}

void OurStore::ReadAll()
{
    Check(kxRuleRead() == KXRULE_OK, "kxRuleRead");
}

bool OurStore::Holds(const Shape& shape) const
{
    if (kxRuleGetRuleSetIndex(nullptr, 0) != shape.Sets)
        return false;
    for (uint16_t set = kFirstSet; set < kFirstSet + shape.Sets; ++set)
        if (kxRuleGetRuleSet(set, nullptr, 0) != shape.Rules)
            return false;
    return true;
}

} // namespace Bench
