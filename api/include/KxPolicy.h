/*
 * KxPolicy.h: policies from a program. KxPolicy.dll takes a policy as text, a whole configuration of the rule store,
 * and makes the store of the calling process hold it, while the process runs: no other process can, since nothing
 * reloads what another process wrote. Texts are those of kxrule import and export: JSON, as docs/policy.schema.json
 * has it.
 *
 *     static void print(int32_t severity, uint32_t line, uint32_t column, const char* where, const char* text,
 *                       void* context) { fprintf(stderr, "%u: %s\n", (unsigned)line, text); }
 *     ...
 *     result = kxPolicyApply(NULL, text, size, KXPOLICY_REPLACE, NULL, print, NULL);   // after kxRuleRead
 *     if (result < 0) ...          // told to print; the store is as it was, unless this is KXPOLICY_E_PARTLY
 *     else if (result > 0) ...     // the store holds the policy, in memory and on the disk
 *
 * The store: every process that has KxPfwRul.dll loaded has one. KxPolicy.dll neither loads nor links with that
 * library; it works through the functions that it is given:
 *   library  null: those of the module KxPfwRul.dll that is loaded in the process, which stays loaded while the call
 *            lasts. A program that links with KxPfwRul.dll, or has loaded one, needs no more. Where several modules
 *            have that name, or the library is linked into the program: a table of all its functions, none of them
 *            null, that stay there while the call lasts (examples/load-at-run-time.c fills one).
 * The library must be initialised and have been read; do not apply a policy to a store whose kxRuleRead has failed.
 *
 * Texts: UTF-8, with or without a byte order mark; size bytes, which need no terminator. One of 2 GB and more is an
 * error. Nothing is kept after a call, and nothing has to be released: what is handed out is handed to a callback and
 * valid until that returns.
 *
 * Threads: any thread may call any function, also several at once; the DLL has no lock and no thread of its own,
 * keeps nothing between calls, and calls back on the calling thread without holding a lock. What a call does to the
 * store it does by calls of the library, each of which takes the library's locks and waits for them as KxPfwRule.h
 * says. So
 *   - every call may need 256 KB of the thread's stack;
 *   - kxPolicyCheck touches no store and waits for nothing;
 *   - kxPolicyExport and kxPolicyDifference copy the active list, the macros and then one rule set after the other. What
 *     other threads change in between can be in one copy and not in the next;
 *   - between these two and kxPolicyApply another thread may change the store. kxPolicyApply compares the text with the
 *     store anew, so it takes that into account. Who wants exactly what a difference has shown passes the stamp that came
 *     with it: then a store that has changed since is refused;
 *   - kxPolicyApply is many calls of the library, between which others see part of the changes and a timed write may
 *     write them. Run one kxPolicyApply at a time, and let no other thread add, delete or change rule sets, rules or
 *     macros meanwhile. Where one does, what it adds beside the policy stays, of two changes of a rule the later one
 *     counts, and what no longer fits, such as a rule that has come into a place that was free, ends the call with
 *     KXPOLICY_E_CHANGED, and the call takes its changes back.
 *     Worst is another thread that adds the very rule set that is about to be added: the call looks first, but in
 *     the moment after that the addition fails in the library, which then leaves its master lock with the calling thread
 *     until that calls kxRuleFinalize or ends (see kxRuleAddRuleSet).
 * No function may be called from a load entry (DllMain).
 *
 * Results: 0 or a count when the function has done what it is for, else one of the negative codes below or, from
 * kxPolicyApply, one of the library. Only the codes listed at a function are returned by it. No function throws.
 *
 * C99 or C++11 and later; x86-64 Windows. A program links with the import library (libKxPolicy.dll.a or
 * KxPolicy.lib), or loads the DLL itself: see KXPOLICY_FUNCTIONS.
 */
#ifndef KXPOLICY_H
#define KXPOLICY_H

#include "KxPfwRule.h" /* whose version is this header's: KXRULE_VERSION */

/* Calls go straight to the DLL. To link the functions into the program itself, define this as nothing. */
#if !defined(KXPOLICY_API)
#if defined(_WIN32)
#define KXPOLICY_API __declspec(dllimport)
#else
#define KXPOLICY_API
#endif
#endif

KXRULE_C_BEGIN

/* ------------------------------------------------------------------------------------------------ result codes -- */

#define KXPOLICY_E_ARGUMENT (-20001) /* a required pointer is null, or a flag is unknown; nothing is reported */
#define KXPOLICY_E_TEXT (-20002)     /* the text has errors, each of which has been reported with its place */
#define KXPOLICY_E_LIBRARY (-20003)  /* library is null and no KxPfwRul.dll with all its functions is loaded */
#define KXPOLICY_E_LIMIT (-20004)    /* the store would hold more than 64 rule sets, or a set more than 1024 rules */
#define KXPOLICY_E_EMPTY (-20005)    /* no rule set would be left, and KXPOLICY_ALLOW_EMPTY is not set */
#define KXPOLICY_E_CHANGED (-20006)  /* another thread has changed the store: since the stamp, or meanwhile */
#define KXPOLICY_E_MEMORY (-20007)   /* memory ran out; nothing may have been reported */
#define KXPOLICY_E_PARTLY (-20008)   /* a change failed, and what had been changed could not be taken back */

/* ------------------------------------------------------------------------------------------------------- flags -- */

/* In either mode what a policy has no member for stays: the active list without "active", all macros without
 * "macros", all rule sets without "ruleSets". A rule set that goes leaves the active list. */
#define KXPOLICY_MERGE 0u       /* rule sets and rules (by index), macros (by name) that it does not name stay */
#define KXPOLICY_REPLACE 1u     /* they go */
#define KXPOLICY_ALLOW_EMPTY 2u /* with KXPOLICY_REPLACE: the policy may remove every rule set that there is */

/* --------------------------------------------------------------------------------------------------- callbacks -- */

#define KXPOLICY_ERROR 1   /* a reason why the call fails */
#define KXPOLICY_WARNING 2 /* something that a reader should look at; the call goes on */

/*
 * Called for each thing that is found, in the text's order; at most 1000 errors, and then one that says how many more
 * there are. Where the text stops being JSON that is the only one.
 *   severity  KXPOLICY_ERROR or KXPOLICY_WARNING; other values may come with later versions
 *   line      from 1; 0 with column 0 when it is no place in the text but the store that stands in the way
 *   column    from 1, in characters (code points)
 *   where     the value, such as ruleSets[0].rules[3].ports[1]; empty for the text as such and for the store
 *   text      a sentence for people. It may quote the policy, also bytes of it that are not UTF-8
 *   context   the caller's value
 * Both texts are NUL-terminated and valid during the call only. The function may call the library and KxPolicy.dll
 * (though not to change the store in the middle of kxPolicyApply); it must not throw, nor unload either.
 */
typedef void (*KXPOLICY_REPORT)(int32_t severity, uint32_t line, uint32_t column, const char* where, const char* text,
                                void* context);

/*
 * Called once with a whole text, UTF-8: size bytes and a NUL after them, valid during the call only. The same rules.
 */
typedef void (*KXPOLICY_TAKE)(const char* text, size_t size, void* context);

/* --------------------------------------------------------------------------------------------------- functions -- */

/*
 * Reads a policy and reports what is wrong with it: form, values, what the library would refuse, limits of the policy
 * by itself. Needs no rule library.
 *   text, size  the policy; text may be null when size is 0 (which is an error of the text)
 *   report      told of everything, or null
 *   context     handed to report
 * 0, or KXPOLICY_E_ARGUMENT, KXPOLICY_E_TEXT, KXPOLICY_E_MEMORY
 */
KXPOLICY_API int32_t kxPolicyCheck(const char* text, size_t size, KXPOLICY_REPORT report, void* context);

/*
 * Everything in the store as a policy, byte for byte, which kxPolicyApply with KXPOLICY_REPLACE brings back (rules as
 * kxRuleAddRule takes them, where they have to be added). The same text for the same store. Of a store with a rule
 * set above 65280, which no policy can name, the text is complete, but kxPolicyApply refuses it.
 *   library  see above
 *   flags    0
 *   stamp    out: a number for what the store holds, hashes of applications included: 64 bits that tell one content
 *            from another, not made to withstand somebody who wants two with the same. Or null. Not written on failure.
 *            To be compared by this process alone, not stored
 *   take     gets the text
 *   context  handed to take
 * 0, or KXPOLICY_E_ARGUMENT, KXPOLICY_E_LIBRARY, KXPOLICY_E_MEMORY
 */
KXPOLICY_API int32_t kxPolicyExport(const KXRULE_LIBRARY* library, uint32_t flags, uint64_t* stamp, KXPOLICY_TAKE take,
                                    void* context);

/*
 * What kxPolicyApply with the same text and flags would change. Changes nothing.
 *   stamp    out: a number for what the store holds, see kxPolicyExport; or null. Not written on failure
 *   take     gets lines for people: + added, - removed, ~ changed, with the JSON lines that differ; no line when nothing
 *            differs. Or null
 *   report   told of what is wrong with the text, or why it cannot be applied; or null
 *   context  handed to both
 * The number of rule sets that differ, one more for macros that do and one more for the active list; or
 * KXPOLICY_E_ARGUMENT, KXPOLICY_E_TEXT, KXPOLICY_E_LIBRARY, KXPOLICY_E_LIMIT, KXPOLICY_E_EMPTY, KXPOLICY_E_MEMORY
 */
KXPOLICY_API int32_t kxPolicyDifference(const KXRULE_LIBRARY* library, const char* text, size_t size, uint32_t flags,
                                        uint64_t* stamp, KXPOLICY_TAKE take, KXPOLICY_REPORT report, void* context);

/*
 * Makes the store hold the policy and writes it. Only what differs is changed: rules that stay the same keep the
 * hashes that the library has computed. A store that holds the policy already is neither changed nor written.
 *   flags    KXPOLICY_MERGE or KXPOLICY_REPLACE, and perhaps KXPOLICY_ALLOW_EMPTY
 *   stamp    in: what the store must hold, from kxPolicyExport or kxPolicyDifference; null: anything
 *   report   told of what is wrong with the text, or why it cannot be applied; or null
 * The number of differences that there were, counted as by kxPolicyDifference; or a code, and then
 *   KXPOLICY_E_ARGUMENT, KXPOLICY_E_TEXT, KXPOLICY_E_LIBRARY, KXPOLICY_E_LIMIT, KXPOLICY_E_EMPTY
 *                               nothing has been changed
 *   KXPOLICY_E_CHANGED          another stamp: nothing has been changed. Or a change was refused that fitted the store when
 *                               it was read: all is taken back
 *   KXRULE_E_FILE_OPEN, KXRULE_E_FILE_WRITE
 *                               what was changed before this call could not be written: nothing has been changed (the
 *                               first of them also: the library is not initialised). Or the changes could not: all is
 *                               taken back
 *   KXRULE_E_NULL_POINTER       the library ran out of memory: all is taken back
 *   KXPOLICY_E_MEMORY           memory ran out: nothing has been changed, or all is taken back
 *   KXPOLICY_E_PARTLY           the store holds a part of the changes. kxPolicyApply with an export from before, or
 *                               with this policy, makes it whole
 * Taken back means: in memory the rule sets, macros and active list that the policy would have changed are as they
 * were before the call, except that a rule that had to be deleted and added again may have got another hash, and that
 * other threads' changes to them since then are lost. The next write puts that on the disk, where until then part of
 * the changes can lie; a process that ends by force before it leaves that part. Each file is whole at any time.
 * A rule set that is removed or gets another name is deleted, its file with it, and nothing keeps a copy: export first.
 */
KXPOLICY_API int32_t kxPolicyApply(const KXRULE_LIBRARY* library, const char* text, size_t size, uint32_t flags,
                                   const uint64_t* stamp, KXPOLICY_REPORT report, void* context);

/* ------------------------------------------------------------------------------------------- loaded at run time -- */

/*
 * All functions, F(name, (parameters)) each, for a program that loads the DLL itself; a type for each:
 * kxPolicyCheck_FUNC is that of kxPolicyCheck; and KXPOLICY_LIBRARY, a pointer to each by its name. The loader of
 * examples/load-at-run-time.c does for this DLL with the words KXPOLICY_FUNCTIONS, KXPOLICY_LIBRARY and
 * L"KxPolicy.dll" in their places. FreeLibrary at any time when no call is running.
 */
/* clang-format off */
#define KXPOLICY_FUNCTIONS(F)                                                                                          \
    F(kxPolicyCheck, (const char* text, size_t size, KXPOLICY_REPORT report, void* context))                           \
    F(kxPolicyExport, (const KXRULE_LIBRARY* library, uint32_t flags, uint64_t* stamp, KXPOLICY_TAKE take,             \
                       void* context))                                                                                 \
    F(kxPolicyDifference, (const KXRULE_LIBRARY* library, const char* text, size_t size, uint32_t flags,               \
                           uint64_t* stamp, KXPOLICY_TAKE take, KXPOLICY_REPORT report, void* context))                \
    F(kxPolicyApply, (const KXRULE_LIBRARY* library, const char* text, size_t size, uint32_t flags,                    \
                      const uint64_t* stamp, KXPOLICY_REPORT report, void* context))
/* clang-format on */

#define KXPOLICY_FUNCTION_TYPE(name, parameters) typedef int32_t name##_FUNC parameters;
#define KXPOLICY_FUNCTION_POINTER(name, parameters) name##_FUNC* name; /* NOLINT: a declarator */
KXPOLICY_FUNCTIONS(KXPOLICY_FUNCTION_TYPE)
typedef struct KXPOLICY_LIBRARY
{
    KXPOLICY_FUNCTIONS(KXPOLICY_FUNCTION_POINTER)
} KXPOLICY_LIBRARY;
#undef KXPOLICY_FUNCTION_TYPE
#undef KXPOLICY_FUNCTION_POINTER

KXRULE_C_END

#endif /* KXPOLICY_H */
