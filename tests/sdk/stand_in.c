/* Just enough of the library for python_test.py, on the machine's own system: one rule set. */
#include <stdio.h>
#include <string.h>

#include "api/include/KxPfwRule.h"

static PFW_RULESET g_Head;
static PFW_RULE g_Rules[4];

int32_t kxRuleInitialize(const char* rulePath, const char* masterFileName)
{
    return strcmp(rulePath, "somewhere") == 0 && masterFileName == NULL ? KXRULE_OK : KXRULE_E_MUTEX;
}

int32_t kxRuleFinalize(void)
{
    return KXRULE_OK;
}

int32_t kxRuleRead(void)
{
    return KXRULE_OK;
}

int32_t kxRuleFlush(void)
{
    return KXRULE_OK;
}

int32_t kxRuleAddRuleSet(uint16_t index, PFW_RULESET* ruleSet)
{
    ruleSet->wRuleSetIndex = index != 0 ? index : 3;
    g_Head = *ruleSet;
    return KXRULE_OK;
}

int32_t kxRuleGetRuleSetIndex(uint16_t* indexes, int32_t maxCount)
{
    if (maxCount > 0)
        indexes[0] = g_Head.wRuleSetIndex;
    return 1;
}

int32_t kxRuleAddRule(uint16_t ruleSetIndex, uint16_t ruleIndex, const PFW_RULE* rule)
{
    if (ruleSetIndex != g_Head.wRuleSetIndex || ruleIndex != rule->wRuleIndex)
        return KXRULE_E_NO_RULESET;
    g_Rules[g_Head.nRuleCount] = *rule;
    g_Head.nRuleCount = g_Head.nRuleCount + 1;
    return KXRULE_OK;
}

int32_t kxRuleGetRuleSet(uint16_t index, PFW_RULESET* ruleSet, int32_t maxRules)
{
    if (index != g_Head.wRuleSetIndex)
        return KXRULE_E_NO_RULESET;
    if (ruleSet != NULL)
    {
        *ruleSet = g_Head;
        memcpy(KXRULE_RULES(ruleSet), g_Rules, (size_t)maxRules * sizeof(PFW_RULE));
    }
    return g_Head.nRuleCount;
}

int32_t kxRuleGetRuleString2(const PFW_RULE* rule, char* text, int32_t textSize)
{
    char line[256];
    const int length = snprintf(line, sizeof line, "%u %u %x/%u %u-%u %u", rule->wRuleIndex, rule->Access.dwProtocol,
                                rule->Access.Addr[0].Addr1.dwIPv4, rule->Access.Addr[0].Addr2.dwIPv4,
                                rule->Access.Port[1].wPort1, rule->Access.Port[1].wPort2, rule->Access.dwAction);
    if (text != NULL)
        strncpy(text, line, (size_t)textSize);
    return length;
}
