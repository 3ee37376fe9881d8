// What differs between compilers, and nothing else: the only place with compiler extensions beside the public header.
#pragma once

// One UTF-16 code unit and its literals, as in the public header: on systems other than Windows wchar_t is wider.
#if defined(_WIN32)
typedef wchar_t KXWCHAR;
#define KXW(text) L##text
#else
typedef char16_t KXWCHAR;
#define KXW(text) u##text
#endif

// Fields follow one another without gaps, as in the public header.
#if defined(__GNUC__)
#define KX_PACKED __attribute__((packed))
#else
#define KX_PACKED
#endif

// printf-style functions: GCC checks their arguments. On Windows the system's C library formats ("ms_printf":
// %S is UTF-16 text, %I64u is known). Natively %S has no two-byte counterpart, so nothing is checked there.
#if defined(__GNUC__) && !defined(__clang__) && defined(_WIN32)
#define KX_PRINTF(formatIndex, firstArgument) __attribute__((format(ms_printf, formatIndex, firstArgument)))
#else
#define KX_PRINTF(formatIndex, firstArgument)
#endif

// Instruction sets beyond the baseline, chosen at run time for each function. Other compilers need no mark.
#if defined(__GNUC__) || defined(__clang__)
#define KX_TARGET(features) __attribute__((target(features)))
#define KX_ALWAYS_INLINE inline __attribute__((always_inline))
#else
#define KX_TARGET(features)
#define KX_ALWAYS_INLINE __forceinline
#endif

// Starts to load the cache line of an address. A macro: GCC 12 drops calls of a function that does nothing else.
#if defined(__GNUC__) || defined(__clang__)
#define KX_PREFETCH(address) __builtin_prefetch(address)
#else
#define KX_PREFETCH(address) static_cast<void>(address)
#endif

// KX_CPUID(registers, leaf) fills int registers[4] with EAX to EDX. Defined only on x64.
#if defined(_M_X64) && defined(_MSC_VER)
extern "C" void __cpuid(int[4], int);
#pragma intrinsic(__cpuid)
#define KX_CPUID(registers, leaf) __cpuid(registers, leaf)
#elif defined(__x86_64__)
#define KX_CPUID(registers, leaf)                                                                                      \
    __asm__("cpuid"                                                                                                    \
            : "=a"((registers)[0]), "=b"((registers)[1]), "=c"((registers)[2]), "=d"((registers)[3])                   \
            : "a"(leaf), "c"(0))
#endif

// Lock annotations, checked by Clang with -Wthread-safety; other compilers see nothing.
#if defined(__clang__)
#define KX_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KX_THREAD_ANNOTATION(x)
#endif
#define KX_CAPABILITY(name) KX_THREAD_ANNOTATION(capability(name))
#define KX_SCOPED_CAPABILITY KX_THREAD_ANNOTATION(scoped_lockable)
#define KX_GUARDED_BY(lock) KX_THREAD_ANNOTATION(guarded_by(lock))
#define KX_REQUIRES(...) KX_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define KX_ACQUIRE(...) KX_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KX_RELEASE(...) KX_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define KX_TRY_ACQUIRE(...) KX_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define KX_EXCLUDES(...) KX_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define KX_NO_THREAD_SAFETY_ANALYSIS KX_THREAD_ANNOTATION(no_thread_safety_analysis)
