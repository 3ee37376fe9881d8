/*
 * load-at-run-time.c: the rule store from a program that does not link with it, and starts without it. LoadRuleLibrary
 * can be copied into your program. Prints how many rule sets the given directory holds.
 */
#include <stdio.h>
#include <windows.h>

#include <KxPfwRule.h>

/* A pointer to each of the 25 functions: g_Rule.kxRuleRead() and so on. */
static KXRULE_LIBRARY g_Rule;

/*
 * Searches for the DLL in the program's and the system's directory, never in the current directory or along PATH, where
 * others may have put one. (Windows 7 knows the flags since update KB2533623; without it nothing is loaded.) Null, with
 * GetLastError, if the DLL or one of its functions is missing. Call FreeLibrary only after kxRuleFinalize.
 */
static HMODULE LoadRuleLibrary(void)
{
    BOOL complete = TRUE;
    HMODULE library =
        LoadLibraryExW(L"KxPfwRul.dll", NULL, LOAD_LIBRARY_SEARCH_APPLICATION_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (library == NULL)
        return NULL;
#define LOAD(name, parameters)                                                                                         \
    g_Rule.name = (name##_FUNC*)(void (*)(void))GetProcAddress(library, #name);                                        \
    complete = complete && g_Rule.name != NULL;
    KXRULE_FUNCTIONS(LOAD)
    if (complete)
        return library;
    FreeLibrary(library);
    SetLastError(ERROR_PROC_NOT_FOUND);
    return NULL;
}

int main(int argc, char** argv)
{
    HMODULE library = LoadRuleLibrary();
    int32_t result;
    if (library == NULL)
    {
        fprintf(stderr, "KxPfwRul.dll: error %lu\n", GetLastError());
        return 1;
    }
    result = g_Rule.kxRuleInitialize(argc > 1 ? argv[1] : NULL, NULL);
    if (result == KXRULE_OK)
        result = g_Rule.kxRuleRead();
    if (result == KXRULE_OK)
        printf("%d rule sets\n", (int)g_Rule.kxRuleGetRuleSetIndex(NULL, 0));
    else
        fprintf(stderr, "result %d\n", (int)result);
    g_Rule.kxRuleFinalize();
    FreeLibrary(library);
    return result == KXRULE_OK ? 0 : 1;
}
