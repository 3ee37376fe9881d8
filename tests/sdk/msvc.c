/* A program without a C library, so that MSVC's import libraries can be tried where MSVC's own is missing. */
#include <KxPolicy.h>

static const char g_Policy[] = "{\"version\": 1, \"active\": [1, 1]}";

int start(void)
{
    int32_t count = kxRuleInitialize("rules-c", 0);
    if (count == KXRULE_OK)
        count = kxRuleRead();
    if (count == KXRULE_OK && kxPolicyApply(0, g_Policy, sizeof g_Policy - 1, KXPOLICY_MERGE, 0, 0, 0) == 1)
        count = kxRuleGetRuleSet(1, 0, 0);
    kxRuleFinalize();
    return count;
}
