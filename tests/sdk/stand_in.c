/*
 * Just enough of the library for python_test.py, on the machine's own system: one rule set. missing.c, which
 * the test writes, has the other functions.
 */
#include <stdio.h>
#include <string.h>

#include "KxPolicy.h"

static PFW_RULESET g_Head;
static PFW_RULE g_Rules[4];
static int g_Full;
static int g_Flushed;
static int g_Finalized;

int flushed(void)
{
    return g_Flushed;
}

int finalized(void)
{
    return g_Finalized;
}

int32_t kxRuleInitialize(const char* rulePath, const char* masterFileName)
{
    g_Full = strcmp(rulePath, "full") == 0;
    return (g_Full || strcmp(rulePath, "somewhere") == 0) && masterFileName == NULL ? KXRULE_OK : KXRULE_E_MUTEX;
}

int32_t kxRuleFinalize(void)
{
    ++g_Finalized;
    return KXRULE_OK;
}

int32_t kxRuleRead(void)
{
    return KXRULE_OK;
}

int32_t kxRuleFlush(void)
{
    ++g_Flushed;
    return g_Full ? KXRULE_E_FILE_WRITE : KXRULE_OK;
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

/* Policies: the text "bad" has an error, any other is two differences from a store of stamp 7. */
int32_t kxPolicyCheck(const char* text, size_t size, KXPOLICY_REPORT report, void* context)
{
    if (size != 3 || memcmp(text, "bad", 3) != 0)
        return KXRULE_OK;
    report(KXPOLICY_ERROR, 1, 2, "active[0]", "expected a \xC3\xBC", context);
    return KXPOLICY_E_TEXT;
}

int32_t kxPolicyExport(const KXRULE_LIBRARY* library, uint32_t flags, uint64_t* stamp, KXPOLICY_TAKE take,
                       void* context)
{
    char text[64];
    *stamp = 7;
    take(text, (size_t)sprintf(text, "%d rules", library->kxRuleGetRuleSet(g_Head.wRuleSetIndex, NULL, 0)), context);
    return flags == 0 ? KXRULE_OK : KXPOLICY_E_ARGUMENT;
}

int32_t kxPolicyDifference(const KXRULE_LIBRARY* library, const char* text, size_t size, uint32_t flags,
                           uint64_t* stamp, KXPOLICY_TAKE take, KXPOLICY_REPORT report, void* context)
{
    *stamp = 7;
    take(flags == (KXPOLICY_REPLACE | KXPOLICY_ALLOW_EMPTY) ? "- all" : "+ x", flags == 3 ? 5 : 3, context);
    return kxPolicyCheck(text, size, report, context) == KXRULE_OK ? 2 : KXPOLICY_E_TEXT;
}

int32_t kxPolicyApply(const KXRULE_LIBRARY* library, const char* text, size_t size, uint32_t flags,
                      const uint64_t* stamp, KXPOLICY_REPORT report, void* context)
{
    if (stamp != NULL && *stamp != 7)
        return KXPOLICY_E_CHANGED;
    return kxPolicyCheck(text, size, report, context) == KXRULE_OK ? 2 : KXPOLICY_E_TEXT;
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
