/**
 * @file
 * Basic types and constants of the interface.
 *
 * The types are those of Win32 at the width that the library gives them. A handle has 32 bits on every
 * machine; whatever holds an address has the machine's own width.
 */
#ifndef VWINCOMPAT_TYPES_H
#define VWINCOMPAT_TYPES_H

#include <stddef.h>
#include <stdint.h>

/**
 * The version of these headers. A program may compare ::VLL_VERSION: `#if VLL_VERSION >= 10200` is 1.2.0 or
 * later.
 */
#define VLL_VERSION_MAJOR 1
#define VLL_VERSION_MINOR 0
#define VLL_VERSION_PATCH 0
/** The version as one number: major * 10000 + minor * 100 + patch. */
#define VLL_VERSION (VLL_VERSION_MAJOR * 10000 + VLL_VERSION_MINOR * 100 + VLL_VERSION_PATCH)
/** The version as text: "1.0.0". */
#define VLL_VERSION_STRING \
    VLL_TEXT_(VLL_VERSION_MAJOR) "." VLL_TEXT_(VLL_VERSION_MINOR) "." VLL_TEXT_(VLL_VERSION_PATCH)
#define VLL_TEXT_(number) VLL_QUOTE_(number)
#define VLL_QUOTE_(text) #text

/* VLL_API marks what the library exports, VLL_PRINTF what takes a printf(3) format. */
#if defined(__GNUC__)
#define VLL_API __attribute__((visibility("default")))
#define VLL_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))
#else
#define VLL_API
#define VLL_PRINTF(format_index, first_argument)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** An object of the library, or a plain descriptor (no bit above the low 16). Never 0 for an object. */
typedef uint32_t HANDLE;
typedef uint32_t DWORD;
typedef uint32_t UINT;
typedef uint16_t WORD;
typedef uint8_t BYTE;
/** FALSE, or TRUE: what an operation returns is one of the two. As a parameter, any value but 0 is true. */
typedef int32_t BOOL;
typedef int32_t LONG;
typedef int64_t LONGLONG;
/** A size in memory, of the machine's own width. */
typedef size_t SIZE_T;
typedef void *LPVOID;
typedef const void *LPCVOID;
typedef char *LPSTR;
typedef const char *LPCSTR;
typedef DWORD *LPDWORD;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

/** What operations that give out descriptors and console handles return when they fail; others return 0. */
#define INVALID_HANDLE_VALUE ((HANDLE)-1)

/** Seconds since 1970-01-01 00:00:00 UTC: not the 100 ns count of Win32. */
typedef int32_t FILETIME;

/** A performance count, or a frequency. */
typedef int64_t LARGE_INTEGER;

/** A broken-down time. */
typedef struct SYSTEMTIME {
    WORD wYear;      /**< full year */
    WORD wMonth;     /**< 1 to 12 */
    WORD wDayOfWeek; /**< 0 is Sunday */
    WORD wDay;       /**< 1 to 31 */
    WORD wHour;
    WORD wMinute;
    WORD wSecond; /**< 0 to 60 */
    WORD wMilliseconds;
} SYSTEMTIME;

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_TYPES_H */
