/*
 * KxPolicy.h: policies from a program. KxPolicy.dll takes a policy, a whole configuration of the rule store as text,
 * and makes the store of the calling process match it while the process runs. No other process can do that, since
 * nothing reloads what another process has written. The texts are those of kxrule import and export: JSON in the form
 * of docs/policy.schema.json, or lines of text.
 *
 *     static void print(int32_t severity, uint32_t line, uint32_t column, const char* where, const char* text,
 *                       void* context) { fprintf(stderr, "%u: %s\n", (unsigned)line, text); }
 *     ...
 *     result = kxPolicyApply(NULL, text, size, KXPOLICY_REPLACE, NULL, print, NULL);   // after kxRuleRead
 *     if (result < 0) ...          // reported to print; the store is as it was, unless this is KXPOLICY_E_PARTLY
 *     else if (result > 0) ...     // the store holds the policy, in memory and on the disk
 *
 * The store: every process that has KxPfwRul.dll loaded has one. KxPolicy.dll neither loads nor links with that
 * library; it works through the functions that it is given:
 *   library  null: those of the module KxPfwRul.dll that is loaded in the process, which stays loaded during the call.
 *            A program that links with KxPfwRul.dll, or has loaded it, needs nothing else. If several modules have that
 *            name, or the library is linked into the program: a table of all its functions, none of them null, which
 *            must stay valid during the call (examples/load-at-run-time.c fills one).
 * The library must be initialised and its store read; do not apply a policy to a store whose kxRuleRead has failed.
 *
 * Texts: UTF-8, with or without a byte order mark; size bytes, which need no terminator. A text of 2 GB or more is an
 * error. Nothing is retained after a call, and nothing has to be released: results are passed to a callback and are
 * valid until it returns.
 *
 * Threads: any thread may call any function, even several at the same time; the DLL has no locks or threads of its own,
 * no state between calls, and calls back on the calling thread without holding a lock. It works on the store through
 * calls to the library, each of which takes the library's locks, and waits for them, as described in KxPfwRule.h.
 * Therefore
 *   - every call may need 256 KB of the thread's stack;
 *   - kxPolicyCheck touches no store and waits for nothing;
 *   - kxPolicyExport and kxPolicyDifference copy the active list, the macros and then the rule sets, one at a time.
 *     What other threads change in between may be in one copy and not in the next;
 *   - between these two and kxPolicyApply another thread may change the store. kxPolicyApply compares the text with the
 *     store again, so it takes such changes into account. To apply exactly what a difference has shown, pass the stamp
 *     that came with it: if the store has changed since, the call is refused;
 *   - kxPolicyApply makes many calls to the library, between which other threads see part of the changes and a timed
 *     write may write them. Run one kxPolicyApply at a time, and let no other thread add, delete or change rule sets,
 *     rules or macros meanwhile. If one does, whatever it adds that is not in the policy stays; of two changes to a
 *     rule the later one counts; and a conflict, such as a rule added at an index that was free, ends the call with
 *     KXPOLICY_E_CHANGED, and the call takes its changes back.
 *     The worst case is another thread that adds the very rule set that is about to be added: the call checks first,
 *     but if the set appears right after the check, the addition fails in the library, which then leaves its master
 *     lock with the calling thread until that thread calls kxRuleFinalize or ends (see kxRuleAddRuleSet).
 * No function may be called from a load entry (DllMain).
 *
 * Results: 0 or a count if the function has succeeded, else one of the negative codes below or, from kxPolicyApply, one
 * of the library's. A function returns only the codes listed for it. No function throws.
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

/* In either mode, what a policy has no member for stays: the active list without "active", all macros without
 * "macros", all rule sets without "ruleSets". A rule set that is removed also leaves the active list. */
#define KXPOLICY_MERGE 0u       /* rule sets and rules (by index) and macros (by name) that it does not name stay */
#define KXPOLICY_REPLACE 1u     /* these are removed */
#define KXPOLICY_ALLOW_EMPTY 2u /* with KXPOLICY_REPLACE: the policy may remove every rule set */

/* --------------------------------------------------------------------------------------------------- callbacks -- */

#define KXPOLICY_ERROR 1   /* a reason why the call fails */
#define KXPOLICY_WARNING 2 /* something to be checked; the call goes on */

/*
 * Called for each diagnostic, in the order of the text; for at most 1000 errors, and then once to say how many more
 * there are. A JSON syntax error is the only one reported.
 *   severity  KXPOLICY_ERROR or KXPOLICY_WARNING; other values may come with later versions
 *   line      from 1; 0 with column 0 in warnings, and if the reason is not in the text but in the store
 *   column    from 1, in characters (code points)
 *   where     the value, such as ruleSets[0].rules[3].ports[1]; in warnings what it belongs to, such as rule set 1,
 *             rule 3; empty for the text as such and for the store
 *   text      a readable sentence. It may quote the policy, including bytes that are not UTF-8
 *   context   the caller's value
 * Both texts are NUL-terminated and valid during the call only. The function may call the library and KxPolicy.dll
 * (though not to change the store in the middle of kxPolicyApply); it must not throw, nor unload either.
 */
typedef void (*KXPOLICY_REPORT)(int32_t severity, uint32_t line, uint32_t column, const char* where, const char* text,
                                void* context);

/*
 * Called once with a whole text in UTF-8: size bytes followed by a NUL, valid during the call only. The same rules
 * apply.
 */
typedef void (*KXPOLICY_TAKE)(const char* text, size_t size, void* context);

/* --------------------------------------------------------------------------------------------------- functions -- */

/*
 * Reads a policy and reports what is wrong with it: form, values, whatever the library would refuse, and the limits as
 * far as they depend on the policy alone. Needs no rule library.
 *   text, size  the policy; text may be null when size is 0 (which is an error of the text)
 *   report      called for each diagnostic, or null
 *   context     passed to report
 * 0, or KXPOLICY_E_ARGUMENT, KXPOLICY_E_TEXT, KXPOLICY_E_MEMORY
 */
KXPOLICY_API int32_t kxPolicyCheck(const char* text, size_t size, KXPOLICY_REPORT report, void* context);

/*
 * Exports everything in the store as a policy, byte for byte, which kxPolicyApply with KXPOLICY_REPLACE restores (rules
 * that have to be added become what kxRuleAddRule makes of them). The same store gives the same text. If the store has
 * a rule set above 65280, which no policy can name, the text is complete, but kxPolicyApply refuses it.
 *   library  see above
 *   flags    0
 *   stamp    out: a 64-bit number that identifies the contents of the store, including the hashes of applications. It
 *            does not withstand deliberate collisions. Only for this process to compare; do not store it. Or null. Not
 *            written on failure
 *   take     receives the text
 *   context  passed to take
 * 0, or KXPOLICY_E_ARGUMENT, KXPOLICY_E_LIBRARY, KXPOLICY_E_MEMORY
 */
KXPOLICY_API int32_t kxPolicyExport(const KXRULE_LIBRARY* library, uint32_t flags, uint64_t* stamp, KXPOLICY_TAKE take,
                                    void* context);

/*
 * What kxPolicyApply with the same text and flags would change. Changes nothing.
 *   stamp    out: a number that identifies the contents of the store, see kxPolicyExport; or null. Not written on
 *            failure
 *   take     receives readable lines: + added, - removed, ~ changed, with the JSON lines that differ; no lines if
 *            nothing differs. Or null
 *   report   called for what is wrong with the text, and for why it cannot be applied; or null
 *   context  passed to both
 * The number of rule sets that differ, plus one if the macros differ and one if the active list does; or
 * KXPOLICY_E_ARGUMENT, KXPOLICY_E_TEXT, KXPOLICY_E_LIBRARY, KXPOLICY_E_LIMIT, KXPOLICY_E_EMPTY, KXPOLICY_E_MEMORY
 */
KXPOLICY_API int32_t kxPolicyDifference(const KXRULE_LIBRARY* library, const char* text, size_t size, uint32_t flags,
                                        uint64_t* stamp, KXPOLICY_TAKE take, KXPOLICY_REPORT report, void* context);

/*
 * Makes the store match the policy and writes it. Only what differs is changed: rules that stay the same retain the
 * hashes that the library has computed. A store that already matches the policy is neither changed nor written.
 *   flags    KXPOLICY_MERGE or KXPOLICY_REPLACE, and perhaps KXPOLICY_ALLOW_EMPTY
 *   stamp    in: what the store must hold, from kxPolicyExport or kxPolicyDifference; null: anything
 *   report   called for what is wrong with the text, and for why it cannot be applied; or null
 * The number of differences there were, counted as by kxPolicyDifference; or a code, which means
 *   KXPOLICY_E_ARGUMENT, KXPOLICY_E_TEXT, KXPOLICY_E_LIBRARY, KXPOLICY_E_LIMIT, KXPOLICY_E_EMPTY
 *                               nothing has been changed
 *   KXPOLICY_E_CHANGED          the stamp differs: nothing has been changed. Or the library refused a change that was
 *                               possible when the store was read: everything is taken back
 *   KXRULE_E_FILE_OPEN, KXRULE_E_FILE_WRITE
 *                               what was changed before this call could not be written: nothing has been changed (the
 *                               first of them also: the library is not initialised). Or the changes of this call could
 *                               not be written: everything is taken back
 *   KXRULE_E_NULL_POINTER       the library ran out of memory: everything is taken back
 *   KXPOLICY_E_MEMORY           memory ran out: nothing has been changed, or everything is taken back
 *   KXPOLICY_E_PARTLY           the store holds part of the changes. kxPolicyApply with an earlier export, or with this
 *                               policy, makes it complete
 * Taken back means: in memory, the rule sets, macros and active list that the policy would have changed are as they
 * were before the call, except that a rule that had to be deleted and added again may have another hash, and that
 * other threads' changes to them since then are lost. The next write puts that on the disk; until then the disk may
 * hold part of the changes, and still does if the process is killed first. Each file is complete at any time.
 * A rule set that is removed or renamed is deleted together with its file, and no copy is made: export first.
 */
KXPOLICY_API int32_t kxPolicyApply(const KXRULE_LIBRARY* library, const char* text, size_t size, uint32_t flags,
                                   const uint64_t* stamp, KXPOLICY_REPORT report, void* context);

/* ------------------------------------------------------------------------------------------- loaded at run time -- */

/*
 * For a program that loads the DLL itself: all functions, each as F(name, (parameters)); a type for each, such as
 * kxPolicyCheck_FUNC for kxPolicyCheck; and KXPOLICY_LIBRARY, with a pointer of that name to each. The loader of
 * examples/load-at-run-time.c works for this DLL with KXPOLICY_FUNCTIONS, KXPOLICY_LIBRARY and L"KxPolicy.dll" in place
 * of its own names. FreeLibrary is allowed whenever no call is running.
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
