/**
 * @file
 * Time: the clock, conversions between broken-down times and file times, zones, ticks.
 *
 * FILETIME counts seconds since 1970-01-01 00:00:00 UTC, from 1901-12-13 20:45:52 to 2038-01-19 03:14:07. It is
 * not the 100 ns count of Win32, and -1 stands for "no time". A local file time is a count of the same kind
 * taken from the local wall clock.
 *
 * Two rules convert. The UTC rule (timegm(3)) reads a SYSTEMTIME as UTC; fields out of range are carried over
 * (month 13 is January of the next year); a result that a FILETIME cannot hold is -1 with EOVERFLOW. The local rule
 * (localtime_r(3)) breaks an instant down in the process's current zone, as tzset(3) last loaded it.
 *
 * None of the operations is a cancellation point.
 */
#ifndef VWINCOMPAT_DATETIME_H
#define VWINCOMPAT_DATETIME_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Reads the clock, in UTC.
 *
 * Seconds and milliseconds are two reads of the clock, in this order: when the second turns between them, the
 * milliseconds are those of the new second.
 *
 * @return TRUE, or FALSE with the record untouched when the clock cannot be read or broken down.
 */
VLL_API BOOL vllGetSystemTime(SYSTEMTIME *lpSystemTime);

/** As vllGetSystemTime(), broken down in the process's zone. */
VLL_API BOOL vllGetLocalTime(SYSTEMTIME *lpLocalTime);

/**
 * Converts by the UTC rule; weekday and milliseconds do not count.
 *
 * @param lpFileTime  receives the result in any case.
 * @return TRUE, or FALSE when the result is -1 (EOVERFLOW, or 1969-12-31 23:59:59 itself).
 */
VLL_API BOOL vllSystemTimeToFileTime(const SYSTEMTIME *lpSystemTime, FILETIME *lpFileTime);

/**
 * Breaks a file time down in UTC; wMilliseconds is 0.
 *
 * @return TRUE, or FALSE with an error of gmtime_r(3).
 */
VLL_API BOOL vllFileTimeToSystemTime(const FILETIME *lpFileTime, SYSTEMTIME *lpSystemTime);

/**
 * Converts UTC seconds to those of the local wall clock.
 *
 * @param lpLocalFileTime  receives the result; untouched when the local time cannot be told.
 * @return TRUE, or FALSE when the result is -1.
 */
VLL_API BOOL vllFileTimeToLocalFileTime(const FILETIME *lpFileTime, FILETIME *lpLocalFileTime);

/**
 * Converts a UTC time to the process's zone. Unlike Win32 it takes no zone record.
 *
 * @param lpLocalTime  receives all fields but wMilliseconds, which stays as it was. May be lpUniversalTime.
 * @return TRUE, or FALSE when the UTC rule gives -1.
 */
VLL_API BOOL vllSystemTimeToTzSpecificLocalTime(const SYSTEMTIME *lpUniversalTime, SYSTEMTIME *lpLocalTime);

/** @return -1 when the first time is earlier than the second, 1 when it is later, 0 when they are equal. */
VLL_API LONG vllCompareFileTime(const FILETIME *lpFileTime1, const FILETIME *lpFileTime2);

/**
 * Reads the clock in seconds.
 *
 * @return TRUE, or FALSE with -1 stored: EOVERFLOW once the clock is past what a FILETIME holds.
 */
VLL_API BOOL vllGetSystemTimeAsFileTime(FILETIME *lpSystemTimeAsFileTime);

/**
 * Reads the times of an open file. Linux keeps no creation time: the time of the last status change stands in.
 *
 * @param hFile  an open descriptor.
 * @param lpCreationTime, lpLastAccessTime, lpLastWriteTime  each may be null.
 * @return TRUE, or FALSE with an error of fstat(2), or EOVERFLOW when one that was asked for does not fit. Then
 *         nothing is stored.
 */
VLL_API BOOL vllGetFileTime(HANDLE hFile, FILETIME *lpCreationTime, FILETIME *lpLastAccessTime,
                            FILETIME *lpLastWriteTime);

/**
 * Sets the times of an open file, in whole seconds: the parts below a second of both become 0.
 *
 * @param lpCreationTime  ignored; may be null.
 * @param lpLastAccessTime, lpLastWriteTime  each may be null, which keeps that time (but for its part below a
 *                        second). With both null nothing is done, whatever hFile is.
 * @return TRUE, or FALSE with an error of fstat(2) or futimens(3).
 */
VLL_API BOOL vllSetFileTime(HANDLE hFile, const FILETIME *lpCreationTime, const FILETIME *lpLastAccessTime,
                            const FILETIME *lpLastWriteTime);

/** @return milliseconds of CLOCK_MONOTONIC, which wrap to 0 every 49.7 days. */
VLL_API DWORD vllGetTickCount(void);

/**
 * Reads a counter that runs at the rate of times(2), usually 100 a second.
 *
 * @param lpFrequency  receives the ticks per second; may be null.
 * @return the ticks since some point in the past, 32 bits with sign: it wraps.
 */
VLL_API LARGE_INTEGER vllKeQueryPerformanceCounter(LARGE_INTEGER *lpFrequency);

/**
 * Writes the local date as month/day/year, "11/16/26".
 *
 * @param buffer  at least 9 bytes.
 * @return buffer, or null with the buffer untouched when the clock cannot be read.
 */
VLL_API char *vll_strdate(char *buffer);

/** As vll_strdate(), the local time as "16:21:16". */
VLL_API char *vll_strtime(char *buffer);

/**
 * A time zone. The library's own layout: narrow names, and dates of the current year instead of recurring
 * rules.
 */
typedef struct TIME_ZONE_INFORMATION {
    LONG Bias;                /**< minutes: UTC = local standard time + Bias */
    char StandardName[32];    /**< abbreviation, "CET" */
    SYSTEMTIME StandardDate;  /**< this year's change to standard time, as the clock reads after it */
    LONG StandardBias;        /**< minutes added to Bias in standard time */
    char DaylightName[32];    /**< abbreviation, "CEST" */
    SYSTEMTIME DaylightDate;  /**< this year's change to daylight-saving time, as the clock reads after it */
    LONG DaylightBias;        /**< minutes added to Bias in daylight-saving time */
    DWORD Reserved;           /**< 0 */
    char TimeZoneKeyName[64]; /**< path below /usr/share/zoneinfo/, "Europe/Paris" */
} TIME_ZONE_INFORMATION;

#define TIME_ZONE_ID_INVALID ((LONG)-1)
#define TIME_ZONE_ID_UNKNOWN 0
#define TIME_ZONE_ID_STANDARD 1
#define TIME_ZONE_ID_DAYLIGHT 2

/**
 * Describes the system's zone for the current year, from /etc/localtime (RFC 8536, the version-1 block).
 *
 * Only the half whose change comes first in the year carries its name. TimeZoneKeyName stays empty. A year with one
 * change leaves both dates and both biases 0. A damaged or truncated file counts as having no further changes.
 *
 * @return TIME_ZONE_ID_INVALID with the record untouched (no clock, no readable zone file: the last error is
 *         that of the failing call, and not set for a file of another kind), TIME_ZONE_ID_UNKNOWN (no change this
 *         year, only Bias is set), or what is in force now: TIME_ZONE_ID_STANDARD or TIME_ZONE_ID_DAYLIGHT.
 */
VLL_API LONG vllGetTimeZoneInformation(TIME_ZONE_INFORMATION *lpTimeZoneInformation);

/**
 * Sets the clock, converted by the UTC rule; wMilliseconds counts. The kernel's time zone and the hardware clock
 * stay as they are.
 *
 * @return TRUE, or FALSE: EOVERFLOW (no such file time), EPERM, EINVAL (milliseconds over 999, or a time that the
 *         clock cannot take).
 */
VLL_API BOOL vllSetSystemTime(const SYSTEMTIME *lpSystemTime);

/**
 * Sets the clock from a local wall-clock time by the zone's rule (mktime(3), which finds out whether
 * daylight-saving time holds), so that vllGetLocalTime() reads back what was set. Results as vllSetSystemTime().
 */
VLL_API BOOL vllSetLocalTime(const SYSTEMTIME *lpSystemTime);

/**
 * Switches the system to another zone: links /etc/localtime to the zone file, with the root file system remounted
 * writable for the while, writes the clock to the hardware clock in local time (hwclock -wl) and reloads the
 * process's zone. Nothing is undone when a step fails.
 *
 * Runs /bin/mount, /bin/ln and /sbin/hwclock and waits for each, without a shell; a process that ignores SIGCHLD
 * cannot learn their outcome and fails with ECHILD at the first.
 *
 * @param lpTimeZoneInformation  TimeZoneKeyName alone counts: letters, digits and "/_-+".
 * @return TRUE, or FALSE: EINVAL (empty name, no NUL in it, another character), ENOENT (no such zone) or EISDIR, with
 *         nothing changed; else the error of the step that failed, unspecified when a command told its
 *         failure by its exit status.
 */
VLL_API BOOL vllSetTimeZoneInformation(const TIME_ZONE_INFORMATION *lpTimeZoneInformation);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_DATETIME_H */
