/*
 * first-steps.c: the rule store from C99. Reads the given rule directory, adds a rule set if there is none, and prints
 * every rule.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include <KxPfwRule.h>

static int failed(const char* what, int32_t code)
{
    fprintf(stderr, "%s: %d\n", what, (int)code);
    return 1;
}

/* An access rule: TCP from one address or from anywhere to one port. */
static void makeRule(PFW_RULE* rule, uint16_t index, uint32_t address, uint16_t port, uint32_t action)
{
    memset(rule, 0, sizeof *rule);
    rule->wRuleIndex = index;
    rule->dwActive = 1;
    rule->dwKind = KXRULE_KIND_ACCESS;
    rule->Access.dwProtocol = KXRULE_PROTOCOL_TCP;
    rule->Access.Addr[0].dwType = address != 0 ? KXRULE_ADDR_SINGLE : KXRULE_ADDR_ANY;
    rule->Access.Addr[0].dwFamily = KXRULE_FAMILY_IPV4;
    rule->Access.Addr[0].Addr1.dwIPv4 = address;
    rule->Access.Addr[1].dwType = KXRULE_ADDR_ANY;
    rule->Access.Port[0].nType = KXRULE_PORT_ANY;
    rule->Access.Port[1].nType = KXRULE_PORT_SINGLE;
    rule->Access.Port[1].wPort1 = port;
    rule->Access.dwAction = action;
}

/* A rule set and its rules are one block of memory; the library copies it. */
static int32_t addOffice(void)
{
    static const wchar_t name[] = L"Office";
    PFW_RULESET* set = calloc(1, KXRULE_RULESET_BYTES(2));
    int32_t result = KXRULE_E_NULL_POINTER;
    if (set != NULL)
    {
        memcpy(&set->wszName, name, sizeof name);
        set->nRuleCount = 2;
        makeRule(&KXRULE_RULES(set)[0], 10, 0x0A000001, 443, KXRULE_ACTION_ACCEPT); /* 10.0.0.1 */
        makeRule(&KXRULE_RULES(set)[1], 20, 0, 23, KXRULE_ACTION_DROP);
        result = kxRuleAddRuleSet(0, set); /* 0: any free index, which is stored in the record */
        if (result == KXRULE_OK)
        {
            const uint16_t active = set->wRuleSetIndex;
            result = kxRuleSetActiveRuleSet(&active, 1);
        }
        free(set);
    }
    return result;
}

static void printRules(uint16_t setIndex)
{
    const int32_t count = kxRuleGetRuleSet(setIndex, NULL, 0);
    PFW_RULESET* set = count < 0 ? NULL : malloc(KXRULE_RULESET_BYTES(count));
    if (set == NULL || kxRuleGetRuleSet(setIndex, set, count) < 0)
    {
        free(set);
        return;
    }
    for (int32_t i = 0; i < count; ++i)
    {
        const PFW_RULE* rule = &KXRULE_RULES(set)[i];
        char line[4096]; /* longer than any rule's text */
        if (kxRuleGetRuleString2(rule, line, (int32_t)sizeof line) >= 0)
            printf("%u/%u %s\n", (unsigned)setIndex, (unsigned)rule->wRuleIndex, line);
    }
    free(set);
}

int main(int argc, char** argv)
{
    uint16_t indexes[KXRULE_MAX_RULESETS];
    int32_t result = kxRuleInitialize(argc > 1 ? argv[1] : NULL, NULL);
    if (result != KXRULE_OK)
        return failed("kxRuleInitialize", result);
    result = kxRuleRead();
    if (result != KXRULE_OK) /* then change nothing: the next write would list only what could be read */
    {
        kxRuleFinalize();
        return failed("kxRuleRead", result);
    }
    if (kxRuleGetRuleSetIndex(NULL, 0) == 0)
        result = addOffice();
    if (result == KXRULE_OK)
        result = kxRuleFlush(); /* on disk now, not at the next timed write */
    const int32_t count = kxRuleGetRuleSetIndex(indexes, KXRULE_MAX_RULESETS);
    for (int32_t i = 0; i < count && i < KXRULE_MAX_RULESETS; ++i)
        printRules(indexes[i]);
    kxRuleFinalize();
    return result == KXRULE_OK ? 0 : failed("change", result);
}
