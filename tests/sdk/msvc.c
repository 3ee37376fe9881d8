/* A program without a C library, so that MSVC's import library can be tried where MSVC's own is missing. */
#include <KxPfwRule.h>

int start(void)
{
    int32_t count = kxRuleInitialize("rules-c", 0);
    if (count == KXRULE_OK)
        count = kxRuleRead();
    if (count == KXRULE_OK)
        count = kxRuleGetRuleSet(1, 0, 0);
    kxRuleFinalize();
    return count;
}
