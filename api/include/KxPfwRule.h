/*
 * KxPfwRule.h: the rule store of the host firewall. Records, result codes and the 25 functions of KxPfwRul.dll.
 *
 * The library holds rule sets, their rules and macros (named lists of addresses, ports and texts) in memory, records
 * which rule sets are active, renders rules as text, binds access rules to application hashes, and stores everything
 * in encrypted files in one directory, the rule directory. It filters no traffic.
 *
 *     if (kxRuleInitialize("C:\\ProgramData\\Firewall\\Rules", NULL) != KXRULE_OK) ...   // reads no file yet
 *     int32_t result = kxRuleRead();                                                     // loads the store
 *     PFW_RULE rule = {0};
 *     rule.dwKind = KXRULE_KIND_ACCESS; ...
 *     result = kxRuleAddRule(1, 100, &rule);                                             // on disk within the interval
 *     result = kxRuleFlush();                                                            // on disk now
 *     kxRuleFinalize();
 *
 * Records are byte-packed and little-endian; texts are in the active code page where they are narrow and UTF-16
 * where they are wide. Everything that a function returns is a copy in the caller's buffer.
 *
 * Threads: any thread may call any function. All but kxRuleGetRuleString2, kxRuleGetMacroString and
 * kxRuleUpdateHashValue run one at a time, under the global lock. After two failures the calling thread holds on to the
 * store's master lock (see kxRuleAddRuleSet and kxRuleRead, and docs/threads.md): until that thread calls
 * kxRuleFinalize or ends, calls of other threads that change, read, write or refresh the store wait, and so do timed
 * writes. Meanwhile nothing reaches the disk unless that thread writes it.
 *
 * Files are read and written, and libraries loaded, with the rights of the process, also on a thread that
 * impersonates a client. If that client is anonymous, which the system does not let the library undo,
 * kxRuleInitialize returns KXRULE_E_MUTEX, and the functions that need files (kxRuleRead, kxRuleWrite, kxRuleFlush,
 * kxRuleDeleteRuleSet) return KXRULE_E_FILE_OPEN; nothing changes then.
 *
 * Before kxRuleInitialize and after kxRuleFinalize, the functions that look up, add and delete work on what is in
 * memory, with their usual results (except kxRuleDeleteRuleSet, which refuses); the next kxRuleInitialize empties it.
 * Only changes between the two reach the disk.
 *
 * Results are KXRULE_OK (0) or one of the negative codes below; some functions return a count, a length or a size
 * instead. A function returns only the codes that are listed for it. No function throws.
 *
 * C99 or C++11 and later; x86-64 Windows. A program links with the import library (libKxPfwRul.dll.a or KxPfwRul.lib),
 * or loads the DLL itself: see KXRULE_FUNCTIONS. The file formats are described in docs/format.md.
 */
#ifndef KXPFWRULE_H
#define KXPFWRULE_H

#include <stddef.h>
#include <stdint.h>

/* The version of this header: 10000 x major + 100 x minor + patch. Within a major version nothing is taken away. */
#define KXRULE_VERSION 10000

/* Calls go straight to the DLL. To link the functions into the program itself, define this as nothing. */
#if !defined(KXRULE_API)
#if defined(_WIN32)
#define KXRULE_API __declspec(dllimport)
#else
#define KXRULE_API
#endif
#endif

/* One UTF-16 code unit. (On systems other than Windows the header serves the library's own portable tests.) */
#if defined(_WIN32)
typedef wchar_t KXWCHAR;
#elif defined(__cplusplus)
typedef char16_t KXWCHAR;
#else
typedef uint_least16_t KXWCHAR;
#endif

/* Fields follow one another without gaps. The attribute makes GCC and Clang warn of pointers to packed fields. */
#if defined(__GNUC__)
#define KXRULE_PACKED __attribute__((packed))
#define KXRULE_EXTENSION __extension__
#else
#define KXRULE_PACKED
#define KXRULE_EXTENSION
#endif

#if defined(__cplusplus)
#define KXRULE_STATIC_ASSERT(condition) static_assert(condition, #condition)
#define KXRULE_C_BEGIN                                                                                                 \
    extern "C"                                                                                                         \
    {
#define KXRULE_C_END }
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define KXRULE_STATIC_ASSERT(condition) _Static_assert(condition, #condition)
#define KXRULE_C_BEGIN
#define KXRULE_C_END
#else /* C99: a declaration, which may be repeated, and which is invalid if the condition is false */
#define KXRULE_STATIC_ASSERT(condition) extern const char g_kxRuleLayout[(condition) ? 1 : -1]
#define KXRULE_C_BEGIN
#define KXRULE_C_END
#endif

KXRULE_C_BEGIN

/* ------------------------------------------------------------------------------------------------ result codes -- */

#define KXRULE_OK 0                           /* success */
#define KXRULE_E_NULL_POINTER (-10012)        /* a required pointer is null; also: out of memory while adding */
#define KXRULE_E_NO_RULESET (-10015)          /* no such rule set, a rule set index in use, or an index out of range */
#define KXRULE_E_NO_RULE (-10016)             /* no rule with that index in the rule set */
#define KXRULE_E_TOO_MANY_RULESETS (-10017)   /* the store already holds 64 rule sets */
#define KXRULE_E_TOO_MANY_RULES (-10018)      /* the rule set would hold more than 1024 rules */
#define KXRULE_E_RULE_EXISTS (-10019)         /* the rule index is in use in the rule set */
#define KXRULE_E_MACRO_TEXT (-10053)          /* a macro without items has no text */
#define KXRULE_E_RULE_TEXT (-10054)           /* a rule whose kind is not 1 to 5 has no text */
#define KXRULE_E_FILE_OPEN (-10055)           /* a file could not be opened */
#define KXRULE_E_FILE_READ (-10056)           /* a file could not be read, or memory ran out while reading */
#define KXRULE_E_FILE_WRITE (-10057)          /* a file could not be written, or memory ran out while writing */
#define KXRULE_E_RULESET_FORMAT (-10059)      /* a rule set file has another magic or version */
#define KXRULE_E_MACRO_FORMAT (-10060)        /* the macro file has another magic or version */
#define KXRULE_E_ALREADY_INITIALIZED (-10061) /* kxRuleInitialize without kxRuleFinalize before it */
#define KXRULE_E_MUTEX (-10063)               /* the named mutex could not be created */
#define KXRULE_E_PORT_LIST (-10064)           /* a port list of an access rule is empty or blank */
#define KXRULE_E_HASH_LIBRARY (-10067)        /* KxHash.dll or its function could not be loaded */

/* ------------------------------------------------------------------------------------------------------ limits -- */

#define KXRULE_MAX_RULESETS 64           /* rule sets in the store */
#define KXRULE_MAX_RULES 1024            /* rules in a rule set */
#define KXRULE_MAX_RULESET_INDEX 65280   /* rule set indexes run from 1 to this; 0 means none or all */
#define KXRULE_DESCRIPTION_UNITS 65      /* UTF-16 units of a description, terminator included */
#define KXRULE_RULESET_NAME_UNITS 65     /* UTF-16 units of a rule set's name, terminator included */
#define KXRULE_MACRO_NAME_BYTES 32       /* bytes of a macro's name, terminator included */
#define KXRULE_ADDR_NAME_BYTES 44        /* bytes of an address name, terminator included */
#define KXRULE_PORT_LIST_BYTES 129       /* bytes of a port list or port name, terminator included */
#define KXRULE_EXT_TEXT_BYTES 256        /* bytes of an extension text, terminator included */
#define KXRULE_APP_NAME_UNITS 261        /* UTF-16 units of an application path, terminator included */
#define KXRULE_HASH_BYTES 20             /* bytes of an application hash */
#define KXRULE_STREAM_TEXT_BYTES 2331    /* bytes of a stream rule's text, terminator included */
#define KXRULE_GENSTREAM_TEXT_BYTES 2049 /* bytes of a general stream rule's text, terminator included */
#define KXRULE_MACRO_PAYLOAD_BYTES 133   /* bytes of a macro item after its type */

/* ---------------------------------------------------------------------------------------- values of the fields -- */

/* PFW_RULE::dwKind */
#define KXRULE_KIND_ACCESS 1u
#define KXRULE_KIND_NAT 2u
#define KXRULE_KIND_THROTTLE 3u
#define KXRULE_KIND_STREAM 4u
#define KXRULE_KIND_GENSTREAM 5u
#define KXRULE_KIND_ACCESS2 6u /* an access rule in its second layout; it has no text */

/* dwProtocol */
#define KXRULE_PROTOCOL_ANY 0u
#define KXRULE_PROTOCOL_ICMP 1u
#define KXRULE_PROTOCOL_TCP 6u
#define KXRULE_PROTOCOL_UDP 17u
#define KXRULE_PROTOCOL_TCPUDP 65536u

/* dwAction */
#define KXRULE_ACTION_ACCEPT 1u
#define KXRULE_ACTION_DROP 2u
#define KXRULE_ACTION_REJECT 3u
#define KXRULE_ACTION_RESET 4u
#define KXRULE_ACTION_ASK 5u

/* PFW_NAT::dwNatType */
#define KXRULE_NAT_SNAT 1u
#define KXRULE_NAT_MASQ 2u
#define KXRULE_NAT_DNAT 3u
#define KXRULE_NAT_RDIR 4u

/* PFW_STREAM::dwAppProtocol */
#define KXRULE_APP_HTTP 1u
#define KXRULE_APP_SMTP 2u

/* PFW_GENSTREAM::dwDirection */
#define KXRULE_DIRECTION_IN 1u
#define KXRULE_DIRECTION_OUT 2u
#define KXRULE_DIRECTION_ANY 3u

/* RULE_ADDR::dwType; 0 and 6 are rendered like 2 */
#define KXRULE_ADDR_ANY 1u
#define KXRULE_ADDR_SINGLE 2u
#define KXRULE_ADDR_MASK 3u   /* Addr2 is the mask */
#define KXRULE_ADDR_PREFIX 4u /* Addr2 is the prefix length */
#define KXRULE_ADDR_RANGE 5u  /* Addr2 is the upper end */
#define KXRULE_ADDR_NAME 7u   /* szName holds a name */

/* RULE_ADDR::dwFamily: Windows' own address family numbers */
#define KXRULE_FAMILY_IPV4 2u
#define KXRULE_FAMILY_IPV6 23u

/* RULE_PORT::nType */
#define KXRULE_PORT_NONE 0
#define KXRULE_PORT_ANY 1
#define KXRULE_PORT_SINGLE 2
#define KXRULE_PORT_RANGE 3
#define KXRULE_PORT_LIST 4 /* szList holds items joined by commas, ranges as low-high: 80,443,1000-2000 */
#define KXRULE_PORT_NAME 5 /* szList holds a name */

/* MACRO_ITEM::dwItemType */
#define KXRULE_ITEM_ADDR 0u
#define KXRULE_ITEM_PORT 1u
#define KXRULE_ITEM_TEXT 2u

/* ----------------------------------------------------------------------------------------------------- records -- */

/* Unions name their largest member first, so that `= {0}` zeroes a record to its last byte with every compiler. */

/* Members of nameless unions and structures are C11; pedantic C99 and C++ compilers call them an extension. */
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wc11-extensions"
#pragma clang diagnostic ignored "-Wgnu-anonymous-struct"
#pragma clang diagnostic ignored "-Wnested-anon-types"
#elif defined(_MSC_VER)
#pragma warning(push)
#pragma warning(disable : 4201)
#endif
#pragma pack(push, 1)

/* An address value: 16 bytes. */
typedef union KXRULE_PACKED PFW_ADDR
{
    uint8_t abIPv6[16]; /* IPv6 address in network order */
    uint32_t dwIPv4;    /* IPv4 address or mask in host byte order (10.0.0.1 is 0x0A000001), or a prefix length */
} PFW_ADDR;

/* An address item of a rule or a macro: 48 bytes. */
typedef struct KXRULE_PACKED RULE_ADDR
{
    uint32_t dwType; /*  0  KXRULE_ADDR_... */
    KXRULE_EXTENSION union
    {
        KXRULE_EXTENSION struct
        {
            uint32_t dwNot;    /*  4  nonzero: negated */
            uint32_t dwFamily; /*  8  KXRULE_FAMILY_... */
            PFW_ADDR Addr1;    /* 12  the address, or the lower end of a range */
            uint32_t dwSpare;  /* 28  carried, never read */
            PFW_ADDR Addr2;    /* 32  mask, prefix length or upper end, as dwType says */
        };
        char szName[KXRULE_ADDR_NAME_BYTES]; /* 4  type KXRULE_ADDR_NAME: NUL-terminated name */
    };
} RULE_ADDR;

/* A port item of a rule or a macro: 133 bytes. */
typedef struct KXRULE_PACKED RULE_PORT
{
    int32_t nType; /* 0  KXRULE_PORT_... */
    KXRULE_EXTENSION union
    {
        char szList[KXRULE_PORT_LIST_BYTES]; /* 4  types list and name: NUL-terminated text */
        KXRULE_EXTENSION struct
        {
            uint32_t dwNot;  /*  4  types single and range: nonzero: negated */
            uint16_t wPort1; /*  8  the port, or the lower end of a range */
            uint16_t wPort2; /* 10  the upper end of a range */
        };
    };
} RULE_PORT;

/* Kind 1: traffic accepted or refused, for one application or for all. Offsets are those in PFW_RULE. */
typedef struct KXRULE_PACKED PFW_ACCESS
{
    uint32_t dwSpare1;                         /*  140  carried, never read */
    uint32_t dwProtocol;                       /*  144  KXRULE_PROTOCOL_... */
    uint32_t dwSpare2;                         /*  148  carried, never read (rescue rules number themselves here) */
    RULE_ADDR Addr[2];                         /*  152  ranges are put in order when the rule is added */
    RULE_PORT Port[2];                         /*  248  ranges are put in order when the rule is added */
    uint32_t dwAction;                         /*  514  KXRULE_ACTION_... */
    uint32_t dwExtFlag;                        /*  518  nonzero: the extension below is in use and part of the text */
    uint32_t dwExtValue;                       /*  522  rendered as a signed number */
    uint16_t wExtValue;                        /*  526 */
    char szExtText[KXRULE_EXT_TEXT_BYTES];     /*  528 */
    KXWCHAR wszAppName[KXRULE_APP_NAME_UNITS]; /*  784  full path of the application, or SYSTEM; the last unit is
                                                        forced to 0 when the rule is added */
    uint8_t abAppHash[KXRULE_HASH_BYTES];      /* 1306  hash of the application's file; all zero: not yet known */
    uint32_t dwSystem;                         /* 1326  set to 1 when wszAppName is SYSTEM */
} PFW_ACCESS;

/* Kind 6: an access rule in its second layout; the same as PFW_ACCESS up to and including Port. */
typedef struct KXRULE_PACKED PFW_ACCESS2
{
    uint32_t dwSpare1;                         /*  140 */
    uint32_t dwProtocol;                       /*  144 */
    uint32_t dwSpare2;                         /*  148 */
    RULE_ADDR Addr[2];                         /*  152 */
    RULE_PORT Port[2];                         /*  248 */
    uint8_t abSpare[274];                      /*  514  carried, never read */
    KXWCHAR wszAppName[KXRULE_APP_NAME_UNITS]; /*  788 */
    uint8_t abAppHash[KXRULE_HASH_BYTES];      /* 1310 */
    uint32_t dwSystem;                         /* 1330 */
} PFW_ACCESS2;

/* Kind 2: address translation. */
typedef struct KXRULE_PACKED PFW_NAT
{
    uint32_t dwProtocol; /* 140 */
    RULE_ADDR Addr[3];   /* 144, 192, 240 */
    RULE_PORT Port[3];   /* 288, 421, 554 */
    uint32_t dwNatType;  /* 687  KXRULE_NAT_... */
} PFW_NAT;

/* Kind 3: traffic limits. */
typedef struct KXRULE_PACKED PFW_THROTTLE
{
    uint32_t dwProtocol;                   /* 140 */
    RULE_ADDR Addr[2];                     /* 144, 192 */
    RULE_PORT Port[2];                     /* 240, 373 */
    uint16_t wLimit[6];                    /* 506  six parameters, rendered in order */
    uint32_t dwExtFlag;                    /* 518  nonzero: the extension below is part of the text */
    uint32_t dwExtValue;                   /* 522 */
    uint16_t wExtValue;                    /* 526 */
    char szExtText[KXRULE_EXT_TEXT_BYTES]; /* 528 */
} PFW_THROTTLE;

/* Kind 4: an application protocol's stream. */
typedef struct KXRULE_PACKED PFW_STREAM
{
    uint32_t dwAppProtocol;                      /* 140  KXRULE_APP_... */
    RULE_ADDR Addr[2];                           /* 144, 192 */
    uint32_t dwStreamParam;                      /* 240  rendered after the addresses */
    uint32_t dwAction;                           /* 244 */
    uint32_t dwExtFlag;                          /* 248  not consulted: the extension is always part of the text */
    uint32_t dwExtValue;                         /* 252 */
    uint16_t wExtValue;                          /* 256 */
    char szExtText[KXRULE_EXT_TEXT_BYTES];       /* 258 */
    char szStreamText[KXRULE_STREAM_TEXT_BYTES]; /* 514  always part of the text */
} PFW_STREAM;

/* Kind 5: a stream of any protocol. */
typedef struct KXRULE_PACKED PFW_GENSTREAM
{
    uint32_t dwProtocol;                            /* 140 */
    RULE_ADDR Addr[2];                              /* 144, 192 */
    RULE_PORT Port[2];                              /* 240, 373 */
    uint32_t dwDirection;                           /* 506  KXRULE_DIRECTION_... */
    uint32_t dwParam[3];                            /* 510, 514, 518: parameters 0 to 2 */
    uint32_t dwAction;                              /* 522 */
    uint32_t dwParam3;                              /* 526  parameter 3 */
    uint32_t dwExtFlag;                             /* 530  not consulted */
    uint32_t dwExtValue;                            /* 534 */
    uint16_t wExtValue;                             /* 538 */
    char szExtText[KXRULE_EXT_TEXT_BYTES];          /* 540 */
    char szStreamText[KXRULE_GENSTREAM_TEXT_BYTES]; /* 796  part of the text unless its first two bytes are both 0 */
} PFW_GENSTREAM;

/* A rule: 2845 bytes, exchanged and stored as one block. Bytes that the kind does not use are carried unchanged. */
typedef struct KXRULE_PACKED PFW_RULE
{
    uint16_t wRuleIndex;                              /*   0  the rule's key in its rule set */
    KXWCHAR wszDescription[KXRULE_DESCRIPTION_UNITS]; /*   2  free text, carried unchanged */
    uint32_t dwActive;                                /* 132  what kxRuleIsRuleActive returns */
    uint32_t dwKind;                                  /* 136  KXRULE_KIND_...: which member below is meant */
    KXRULE_EXTENSION union
    {
        uint8_t abKind[2705];    /* 140  the whole block */
        PFW_ACCESS Access;       /* 140 */
        PFW_NAT Nat;             /* 140 */
        PFW_THROTTLE Throttle;   /* 140 */
        PFW_STREAM Stream;       /* 140 */
        PFW_GENSTREAM GenStream; /* 140 */
        PFW_ACCESS2 Access2;     /* 140 */
    };
} PFW_RULE;

/* The head of a rule set: 136 bytes, followed without a gap by nRuleCount records of PFW_RULE (KXRULE_RULES). */
typedef struct KXRULE_PACKED PFW_RULESET
{
    uint16_t wRuleSetIndex;                     /*   0  1 to 65535; above 65280 it cannot be active */
    KXWCHAR wszName[KXRULE_RULESET_NAME_UNITS]; /*   2  at most 64 units and the terminator */
    int32_t nRuleCount;                         /* 132  below 1: no rules */
} PFW_RULESET;

/* One item of a macro: 137 bytes. */
typedef struct KXRULE_PACKED MACRO_ITEM
{
    uint32_t dwItemType; /* 0  KXRULE_ITEM_... */
    KXRULE_EXTENSION union
    {
        char szText[KXRULE_MACRO_PAYLOAD_BYTES]; /* 4  KXRULE_ITEM_TEXT: NUL-terminated text */
        RULE_ADDR Addr;                          /* 4  KXRULE_ITEM_ADDR: the first 48 bytes */
        RULE_PORT Port;                          /* 4  KXRULE_ITEM_PORT */
    };
} MACRO_ITEM;

/* The head of a macro: 40 bytes, followed without a gap by nItemCount items (KXRULE_MACRO_ITEMS). */
typedef struct KXRULE_PACKED PFW_MACRO
{
    uint32_t dwReserved;                  /*  0  neither read nor written by the library */
    char szName[KXRULE_MACRO_NAME_BYTES]; /*  4  at most 31 bytes and the terminator */
    int32_t nItemCount;                   /* 36  below 1: no items */
} PFW_MACRO;

#pragma pack(pop)
#if defined(__clang__)
#pragma clang diagnostic pop
#elif defined(_MSC_VER)
#pragma warning(pop)
#endif

/* The rules after the head of a rule set, and the items after the head of a macro. */
#define KXRULE_RULES(ruleSet) ((PFW_RULE*)((unsigned char*)(ruleSet) + sizeof(PFW_RULESET)))
#define KXRULE_MACRO_ITEMS(macro) ((MACRO_ITEM*)((unsigned char*)(macro) + sizeof(PFW_MACRO)))

/* Bytes of a rule set record with that many rules, and of a macro record with that many items. */
#define KXRULE_RULESET_BYTES(ruleCount) (sizeof(PFW_RULESET) + (size_t)(ruleCount) * sizeof(PFW_RULE))
#define KXRULE_MACRO_BYTES(itemCount) (sizeof(PFW_MACRO) + (size_t)(itemCount) * sizeof(MACRO_ITEM))

/*
 * Called by kxRuleUpdateHashValue once for every rule whose hash it set.
 *   ruleSetIndex  the rule's set
 *   rule          the stored record after the change; valid during the call only, not to be written to
 *   context       the caller's value
 * The result is ignored. The call is made under the master lock: it must not call any function of the library, nor
 * wait for a thread that does, nor throw.
 */
typedef int32_t (*KXRULE_HASH_CALLBACK)(uint32_t ruleSetIndex, const PFW_RULE* rule, void* context);

/* --------------------------------------------------------------------------------------------------- lifecycle -- */

/*
 * Starts the library: trace, named mutex, empty store, timer of delayed writes. Reads no rule file; see kxRuleRead.
 *   rulePath        the rule directory. A relative path is resolved here, once. Null or empty: the DLL's own directory
 *                   (the current one if that cannot be determined). Created if missing (one level); if that fails,
 *                   the first write returns KXRULE_E_FILE_OPEN. At most 223 bytes: with
 *                   a longer path, no copies can be made in RuleBackup.
 *   masterFileName  a bare file name for the master file. Null or empty: KxRulMas.dat.
 * 0, or KXRULE_E_ALREADY_INITIALIZED  the library is initialised; only the trace settings are read again
 *       KXRULE_E_MUTEX                Global\KxPfwRuleDllLockMutex could not be created, or memory ran out; not
 *                                     initialised, but the trace stays on until kxRuleFinalize is called
 * Call kxRuleRead next, even if the directory should be empty: a write without it replaces the store that is there
 * (after copying it to a dated backup directory) and does not list its rule sets. Changes reach the disk every
 * RuleWriteInterval milliseconds (docs/settings.md), 30 minutes unless configured. Only one process at a time may
 * read or write a rule directory: nothing reloads what another process wrote.
 */
KXRULE_API int32_t kxRuleInitialize(const char* rulePath, const char* masterFileName);

/*
 * Writes pending changes, stops the timer, closes mutex and trace. Always 0, even if that last write failed: call
 * kxRuleFlush first to find out. The write waits up to two seconds for another program that has one of the files open.
 * Without an initialised library the call does nothing and returns 0. A master lock that is held on is released; while
 * another thread holds on to it and there is something to write, the call waits for that thread's kxRuleFinalize, or
 * for the thread's end. Since the call waits for the timer's thread, it must not be made from DllMain or the destructor
 * of a global object in a DLL, where that thread cannot end.
 */
KXRULE_API int32_t kxRuleFinalize(void);

/*
 * Discards what is in memory and reads master, macro and rule set files. Damage is detected only if a length, the
 * padding, a magic number or a count does not fit; a flipped bit inside a record can turn it into a different rule.
 * If the store can go on, damage is repaired and not reported: if the master file is unusable, or missing although
 * there are rule set files, it and all rule set files are moved to a dated backup directory (the macro file stays); at
 * most the sets that it named before the damage get rescue rule sets, and the result does not show it. An unreadable
 * rule set is copied to a .brk file and replaced by a rescue rule set (docs/recovery.md). May load KxHash.dll.
 * 0, or KXRULE_E_FILE_READ       the macro file is damaged (no rule set has been read then), or memory ran out
 *       KXRULE_E_MACRO_FORMAT    the macro file has another magic or version (no rule set has been read then)
 *       KXRULE_E_FILE_OPEN, KXRULE_E_FILE_WRITE  the rescue of the last listed rule set could not be written
 *       KXRULE_E_FILE_OPEN       for more than a second another program has had the master or the macro file open and
 *                                lets nobody else read it: nothing was moved or written, try again. Or not
 *                                initialised
 * After a failure in an initialised library the calling thread holds on to the master lock until it calls
 * kxRuleFinalize or ends: its own calls go on, those of other threads wait. Changes that were not written before the
 * read are gone. Do not change the store after a failed read: the first write copies all rule files into a dated
 * backup directory, but it lists only what is in memory.
 */
KXRULE_API int32_t kxRuleRead(void);

/*
 * Writes the macro file, modified rule sets and the master file now. Each file is written under a temporary name and
 * replaces the old one only when complete and flushed.
 * 0, or KXRULE_E_FILE_OPEN   a temporary file could not be created in the rule directory, or not initialised
 *       KXRULE_E_FILE_WRITE  a file could not be written or replaced, or memory ran out; the old file stays. Or the
 *                            old file was never read, and another program has it open so that it can be neither
 *                            copied nor renamed first (docs/recovery.md). The files after it are not written
 */
KXRULE_API int32_t kxRuleWrite(void);

/* Like kxRuleWrite if anything changed since the last timed write; otherwise 0 without touching a file. */
KXRULE_API int32_t kxRuleFlush(void);

/* --------------------------------------------------------------------------------------------------- rule sets -- */

/*
 * Replaces the list of active rule sets.
 *   indexes  count rule set indexes, 1 to 65280, stored in this order; they need not exist, duplicates stay. Null with
 *            count 0, and a negative count with a non-null pointer, empty the list.
 * 0, or KXRULE_E_NULL_POINTER  indexes is null and count is not 0, or memory ran out
 *       KXRULE_E_NO_RULESET    an index is 0 or above 65280; the old list stays
 */
KXRULE_API int32_t kxRuleSetActiveRuleSet(const uint16_t* indexes, int32_t count);

/*
 * Copies at most maxCount entries of the active list (none if indexes is null or maxCount below 1) and returns the
 * total number of entries.
 */
KXRULE_API int32_t kxRuleGetActiveRuleSet(uint16_t* indexes, int32_t maxCount);

/*
 * Adds a rule set with its rules.
 *   index    the index of the set, or 0 to allocate a free one. One above 65280 is accepted but cannot be made
 *            active. The record's own wRuleSetIndex is ignored.
 *   ruleSet  in: KXRULE_RULESET_BYTES(nRuleCount) bytes, copied; access rules are normalised in the copy; of two
 *            rules with the same wRuleIndex the later one counts. Out: wRuleSetIndex on success, else unchanged.
 * 0, or KXRULE_E_NULL_POINTER       ruleSet is null, or memory ran out
 *       KXRULE_E_PORT_LIST          a rule of kind 1 has an empty or blank port list; kind 6 is not checked here
 *       KXRULE_E_TOO_MANY_RULESETS  the store already holds 64 rule sets
 *       KXRULE_E_TOO_MANY_RULES     more than 1024 different wRuleIndex values
 *       KXRULE_E_NO_RULESET         index is in use. In an initialised library the calling thread then holds on to
 *                                   the master lock until it calls kxRuleFinalize or ends: its own calls go on, those
 *                                   of other threads wait. Add with index 0, or call kxRuleGetRuleSetIndex first.
 * May load KxHash.dll, once for each access rule without a hash.
 */
KXRULE_API int32_t kxRuleAddRuleSet(uint16_t index, PFW_RULESET* ruleSet);

/*
 * Removes a rule set, or all of them (index 0), rewrites the master file at once and then deletes their files. The
 * active list does not change; in its current state it reaches the disk with the master file, while other changes
 * still wait.
 * 0, or KXRULE_E_NO_RULESET  no rule set has that index (never for 0)
 *       KXRULE_E_FILE_OPEN, KXRULE_E_FILE_WRITE  the master file could not be written (as in kxRuleWrite); the rule
 *                            set is gone from memory all the same, and its file stays
 *       KXRULE_E_FILE_OPEN   not initialised; nothing changes
 *       KXRULE_E_FILE_WRITE  memory ran out; the rule set may or may not be gone
 */
KXRULE_API int32_t kxRuleDeleteRuleSet(uint16_t index);

/* Copies at most maxCount rule set indexes, ascending (none if indexes is null), and returns their total number. */
KXRULE_API int32_t kxRuleGetRuleSetIndex(uint16_t* indexes, int32_t maxCount);

/*
 * Copies a rule set out.
 *   ruleSet   null: count only. Otherwise room for KXRULE_RULESET_BYTES(maxRules) bytes.
 *   maxRules  the number of rule records that fit; 0 fills only the head, below 0 nothing is written.
 * Returns the total number of rules in the set, which is also in nRuleCount however many were copied (ascending by
 * rule index), or KXRULE_E_NO_RULESET; then nothing is written. Call with null first, then with a buffer of that
 * size.
 */
KXRULE_API int32_t kxRuleGetRuleSet(uint16_t index, PFW_RULESET* ruleSet, int32_t maxRules);

/* ------------------------------------------------------------------------------------------------------- rules -- */

/* The smallest rule index of a set, 0 if it holds no rule (or rule 0), or KXRULE_E_NO_RULESET. */
KXRULE_API int32_t kxRuleGetRuleTopIndex(uint16_t ruleSetIndex);

/* The largest rule index of a set, 0 if it holds no rule (or only rule 0), or KXRULE_E_NO_RULESET. */
KXRULE_API int32_t kxRuleGetRuleBottomIndex(uint16_t ruleSetIndex);

/*
 * Adds one rule to a rule set. It reaches the disk with the next timed write, or at once with kxRuleWrite.
 *   ruleSetIndex  an existing rule set
 *   ruleIndex     the rule's key in the set, 0 to 65535; overrides the record's own wRuleIndex
 *   rule          2845 bytes, copied; access rules are normalised in the copy and get their application's hash
 * 0, or KXRULE_E_NULL_POINTER    rule is null, or memory ran out
 *       KXRULE_E_PORT_LIST       a rule of kind 1 or 6 has an empty or blank port list (bytes above 127 are blanks)
 *       KXRULE_E_NO_RULESET      no rule set with that index
 *       KXRULE_E_TOO_MANY_RULES  the set holds 1024 rules
 *       KXRULE_E_RULE_EXISTS     the set has a rule with that index
 * Takes the global lock, then the master lock; may load KxHash.dll.
 */
KXRULE_API int32_t kxRuleAddRule(uint16_t ruleSetIndex, uint16_t ruleIndex, const PFW_RULE* rule);

/*
 * Deletes a rule, or all rules of the set (ruleIndex 0; rule 0 cannot be deleted alone).
 * 0, or KXRULE_E_NO_RULESET  no rule set with that index
 *       KXRULE_E_NO_RULE     no rule with that index (never for 0)
 */
KXRULE_API int32_t kxRuleDeleteRule(uint16_t ruleSetIndex, uint16_t ruleIndex);

/*
 * Copies one rule out. Does not allocate, and does not trace except for a null pointer.
 * 0, or KXRULE_E_NO_RULESET    no rule set with that index
 *       KXRULE_E_NO_RULE       no rule with that index
 *       KXRULE_E_NULL_POINTER  rule is null, and there is a rule with that index
 */
KXRULE_API int32_t kxRuleGetRule(uint16_t ruleSetIndex, uint16_t ruleIndex, PFW_RULE* rule);

/* The rule's dwActive unchanged, or KXRULE_E_NO_RULESET or KXRULE_E_NO_RULE; equal values cannot be distinguished. */
KXRULE_API int32_t kxRuleIsRuleActive(uint16_t ruleSetIndex, uint16_t ruleIndex);

/* ------------------------------------------------------------------------------------------------------ macros -- */

/*
 * Appends a macro without checking for equal names.
 *   macro  KXRULE_MACRO_BYTES(nItemCount) bytes, copied
 * 0, or KXRULE_E_NULL_POINTER  macro is null, or memory ran out
 */
KXRULE_API int32_t kxRuleAddMacro(const PFW_MACRO* macro);

/* Removes every macro. 0. */
KXRULE_API int32_t kxRuleDeleteMacro(void);

/* The number of macros. */
KXRULE_API int32_t kxRuleGetMacroCount(void);

/*
 * Copies all macros out, one packed record right after the other, in the order they were added; dwReserved is left as
 * it was in the buffer.
 *   buffer      bufferSize bytes; nothing is written when it is null or too small
 * Returns the bytes needed for all macros (at most 2^31 - 1), in either case. Call with bufferSize 0 first.
 */
KXRULE_API int32_t kxRuleGetMacro(void* buffer, int32_t bufferSize);

/* ------------------------------------------------------------------------------------------------------- texts -- */

/*
 * The three text functions return the length of the text in bytes, without terminator, and copy it into text as
 * strncpy does: at most textSize bytes; the rest of the buffer is filled with NUL; a text of textSize bytes or more
 * is cut and has no terminator. On a double-byte code page a character cut in half becomes NUL. Nothing is copied
 * when text is null, textSize is below 1, or the result is a code. Call with null first, then with length + 1 bytes.
 */

/*
 * One stored rule as a line of text, such as ACCESS,TCP,192.168.0.1,!10.0.0.0/255.0.0.0,,80:90,ACCEPT
 * The length, or KXRULE_E_NO_RULESET, KXRULE_E_NO_RULE,
 *                KXRULE_E_RULE_TEXT  its kind is not 1 to 5
 */
KXRULE_API int32_t kxRuleGetRuleString(uint16_t ruleSetIndex, uint16_t ruleIndex, char* text, int32_t textSize);

/*
 * A record, which need not be stored, as a line of text, normalised as if it were added. Takes no lock; may load
 * KxHash.dll.
 * The length, or KXRULE_E_NULL_POINTER  rule is null
 *                KXRULE_E_RULE_TEXT     its kind is not 1 to 5, or memory ran out
 */
KXRULE_API int32_t kxRuleGetRuleString2(const PFW_RULE* rule, char* text, int32_t textSize);

/*
 * A macro record as a line of text, such as web=80|8080,10.1.1.1; it is not looked up in the store. Takes no lock.
 * The length, or KXRULE_E_NULL_POINTER  macro is null
 *                KXRULE_E_MACRO_TEXT    it has no items, or memory ran out
 */
KXRULE_API int32_t kxRuleGetMacroString(const PFW_MACRO* macro, char* text, int32_t textSize);

/* ------------------------------------------------------------------------------------------ application hashes -- */

/*
 * Refreshes the application hashes of all rules, or of those bound to one application.
 *   applicationPath  NUL-terminated; compared ignoring case. Null: every rule whose dwSystem is 0.
 *   hash             20 bytes, or null. Null or all zero: recompute the hash of every selected rule whose dwSystem is
 *                    0. Otherwise: skip those that already have it, and give the others the hash computed from their
 *                    file, never this one. A rule whose dwSystem is 1, selected by its name, takes any hash that is
 *                    not zero (if it is named SYSTEM, until the next kxRuleRead), and is otherwise left alone.
 *   callback         called once per rule whose hash was set, or null; see KXRULE_HASH_CALLBACK
 *   context          passed to the callback
 * 0, or KXRULE_E_HASH_LIBRARY  KxHash.dll could not be loaded, or memory ran out
 *       any other value        the status with which kxCfwGetHashValue failed, unchanged
 * Whatever a rule's kind, bytes 784 to 1329 of its record are treated as an access rule's fields: a rule of kind 6 is
 * not refreshed in its own fields, and rules of other kinds may have bytes 1306 to 1325 replaced if the bytes before
 * them look like a path, as they do in a stream rule whose text has 271 to 812 bytes: a refresh of all applications
 * asks for the hash of a part of that text, fails, and ends with that set. If there are such rules, refresh application
 * by application. Rules whose dwSystem is neither 0 nor 1 are left alone. An uninitialised library returns 0.
 * A rule that fails retains its hash and does not stop its set; the refresh ends after the first set with a failure and
 * returns the first failure of that set. Changed sets are written with the next timed write. Takes the master lock
 * only, for as long as it reads files: meanwhile a call that changes the store waits for it, and all other calls wait
 * for that call.
 */
KXRULE_API int32_t kxRuleUpdateHashValue(const KXWCHAR* applicationPath, const uint8_t* hash,
                                         KXRULE_HASH_CALLBACK callback, void* context);

/* ------------------------------------------------------------------------------------------- loaded at run time -- */

/*
 * For a program that loads the DLL itself instead of linking with it: all functions, each as F(name, (parameters)); a
 * type for each, such as kxRuleRead_FUNC for kxRuleRead; and KXRULE_LIBRARY, with a pointer of that name to each.
 * examples/load-at-run-time.c has a loader to paste. Functions of later versions come after these.
 */
/* clang-format off */
#define KXRULE_FUNCTIONS(F)                                                                                            \
    F(kxRuleInitialize, (const char* rulePath, const char* masterFileName))                                            \
    F(kxRuleFinalize, (void))                                                                                          \
    F(kxRuleRead, (void))                                                                                              \
    F(kxRuleWrite, (void))                                                                                             \
    F(kxRuleFlush, (void))                                                                                             \
    F(kxRuleSetActiveRuleSet, (const uint16_t* indexes, int32_t count))                                                \
    F(kxRuleGetActiveRuleSet, (uint16_t* indexes, int32_t maxCount))                                                   \
    F(kxRuleAddRuleSet, (uint16_t index, PFW_RULESET* ruleSet))                                                        \
    F(kxRuleDeleteRuleSet, (uint16_t index))                                                                           \
    F(kxRuleGetRuleSetIndex, (uint16_t* indexes, int32_t maxCount))                                                    \
    F(kxRuleGetRuleSet, (uint16_t index, PFW_RULESET* ruleSet, int32_t maxRules))                                      \
    F(kxRuleGetRuleTopIndex, (uint16_t ruleSetIndex))                                                                  \
    F(kxRuleGetRuleBottomIndex, (uint16_t ruleSetIndex))                                                               \
    F(kxRuleAddRule, (uint16_t ruleSetIndex, uint16_t ruleIndex, const PFW_RULE* rule))                                \
    F(kxRuleDeleteRule, (uint16_t ruleSetIndex, uint16_t ruleIndex))                                                   \
    F(kxRuleGetRule, (uint16_t ruleSetIndex, uint16_t ruleIndex, PFW_RULE* rule))                                      \
    F(kxRuleIsRuleActive, (uint16_t ruleSetIndex, uint16_t ruleIndex))                                                 \
    F(kxRuleAddMacro, (const PFW_MACRO* macro))                                                                        \
    F(kxRuleDeleteMacro, (void))                                                                                       \
    F(kxRuleGetMacroCount, (void))                                                                                     \
    F(kxRuleGetMacro, (void* buffer, int32_t bufferSize))                                                              \
    F(kxRuleGetRuleString, (uint16_t ruleSetIndex, uint16_t ruleIndex, char* text, int32_t textSize))                  \
    F(kxRuleGetRuleString2, (const PFW_RULE* rule, char* text, int32_t textSize))                                      \
    F(kxRuleGetMacroString, (const PFW_MACRO* macro, char* text, int32_t textSize))                                    \
    F(kxRuleUpdateHashValue,                                                                                           \
      (const KXWCHAR* applicationPath, const uint8_t* hash, KXRULE_HASH_CALLBACK callback, void* context))
/* clang-format on */

#define KXRULE_FUNCTION_TYPE(name, parameters) typedef int32_t name##_FUNC parameters;
#define KXRULE_FUNCTION_POINTER(name, parameters) name##_FUNC* name; /* NOLINT(bugprone-macro-parentheses) */
KXRULE_FUNCTIONS(KXRULE_FUNCTION_TYPE)
typedef struct KXRULE_LIBRARY
{
    KXRULE_FUNCTIONS(KXRULE_FUNCTION_POINTER)
} KXRULE_LIBRARY;
#undef KXRULE_FUNCTION_TYPE
#undef KXRULE_FUNCTION_POINTER

/* ------------------------------------------------------------------------------------------------------ layout -- */

/* The layouts are binding: whatever compiler builds a caller checks them here. */
KXRULE_STATIC_ASSERT(sizeof(KXWCHAR) == 2);
KXRULE_STATIC_ASSERT(sizeof(RULE_ADDR) == 48);
KXRULE_STATIC_ASSERT(offsetof(RULE_ADDR, dwNot) == 4);
KXRULE_STATIC_ASSERT(offsetof(RULE_ADDR, szName) == 4);
KXRULE_STATIC_ASSERT(offsetof(RULE_ADDR, dwFamily) == 8);
KXRULE_STATIC_ASSERT(offsetof(RULE_ADDR, Addr1) == 12);
KXRULE_STATIC_ASSERT(offsetof(RULE_ADDR, Addr2) == 32);
KXRULE_STATIC_ASSERT(sizeof(RULE_PORT) == 133);
KXRULE_STATIC_ASSERT(offsetof(RULE_PORT, dwNot) == 4);
KXRULE_STATIC_ASSERT(offsetof(RULE_PORT, szList) == 4);
KXRULE_STATIC_ASSERT(offsetof(RULE_PORT, wPort1) == 8);
KXRULE_STATIC_ASSERT(offsetof(RULE_PORT, wPort2) == 10);
KXRULE_STATIC_ASSERT(sizeof(PFW_RULE) == 2845);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, wszDescription) == 2);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, dwActive) == 132);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, dwKind) == 136);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Access) == 140);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Access.dwProtocol) == 144);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Access.Addr) == 152);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Access.Port) == 248);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Access.dwAction) == 514);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Access.dwExtFlag) == 518);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Access.dwExtValue) == 522);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Access.wExtValue) == 526);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Access.szExtText) == 528);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Access.wszAppName) == 784);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Access.abAppHash) == 1306);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Access.dwSystem) == 1326);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Access2.Port) == 248);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Access2.wszAppName) == 788);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Access2.abAppHash) == 1310);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Access2.dwSystem) == 1330);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Nat.dwProtocol) == 140);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Nat.Addr) == 144);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Nat.Port) == 288);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Nat.dwNatType) == 687);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Throttle.Addr) == 144);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Throttle.Port) == 240);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Throttle.wLimit) == 506);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Throttle.dwExtFlag) == 518);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Throttle.dwExtValue) == 522);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Throttle.szExtText) == 528);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Stream.dwStreamParam) == 240);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Stream.dwAction) == 244);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Stream.dwExtValue) == 252);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Stream.szExtText) == 258);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, Stream.szStreamText) == 514);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, GenStream.Addr) == 144);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, GenStream.Port) == 240);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, GenStream.dwDirection) == 506);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, GenStream.dwParam) == 510);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, GenStream.dwAction) == 522);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, GenStream.dwParam3) == 526);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, GenStream.dwExtFlag) == 530);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, GenStream.dwExtValue) == 534);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, GenStream.wExtValue) == 538);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, GenStream.szExtText) == 540);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULE, GenStream.szStreamText) == 796);
KXRULE_STATIC_ASSERT(sizeof(PFW_RULESET) == 136);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULESET, wszName) == 2);
KXRULE_STATIC_ASSERT(offsetof(PFW_RULESET, nRuleCount) == 132);
KXRULE_STATIC_ASSERT(sizeof(MACRO_ITEM) == 137);
KXRULE_STATIC_ASSERT(offsetof(MACRO_ITEM, szText) == 4);
KXRULE_STATIC_ASSERT(sizeof(PFW_MACRO) == 40);
KXRULE_STATIC_ASSERT(offsetof(PFW_MACRO, szName) == 4);
KXRULE_STATIC_ASSERT(offsetof(PFW_MACRO, nItemCount) == 36);
#if defined(__cplusplus) /* a member that can be read here is the one that {} zeroes */
KXRULE_STATIC_ASSERT(PFW_ADDR{}.abIPv6[15] == 0);
KXRULE_STATIC_ASSERT(RULE_PORT{}.szList[KXRULE_PORT_LIST_BYTES - 1] == 0);
KXRULE_STATIC_ASSERT(PFW_RULE{}.abKind[2704] == 0);
KXRULE_STATIC_ASSERT(MACRO_ITEM{}.szText[KXRULE_MACRO_PAYLOAD_BYTES - 1] == 0);
#endif

KXRULE_C_END

#endif /* KXPFWRULE_H */
