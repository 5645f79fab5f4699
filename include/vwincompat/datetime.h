/**
 * @file
 * Time: the clock, conversions between broken-down times and file times, zones, ticks.
 *
 * FILETIME counts seconds since 1970-01-01 00:00:00 UTC, from 1901-12-13 20:45:52 to 2038-01-19 03:14:07. It
 * is not the 100 ns count of Win32, and -1 stands for "no time". A local file time is a count of the same
 * kind taken from the local wall clock.
 *
 * Two rules convert. The UTC rule (timegm(3)) reads a SYSTEMTIME as UTC; fields out of range are carried over
 * (month 13 is January of the next year); a result that a FILETIME cannot hold is -1 with EOVERFLOW. The
 * local rule (localtime_r(3)) breaks an instant down in the process's current zone, as tzset(3) last loaded
 * it.
 *
 * None of the operations is a cancellation point.
 *
 * Example: the local date of tomorrow at this time, in a caller's record.
 *
 * @code{.c}
 * BOOL getTomorrow(SYSTEMTIME *local) {
 *     FILETIME time;
 *     SYSTEMTIME utc;
 *     if (!vllGetSystemTimeAsFileTime(&time)) {
 *         return FALSE; // vllGetLastError() has the reason
 *     }
 *     time += 24 * 60 * 60;
 *     local->wMilliseconds = 0; // the conversion to local time leaves it alone
 *     return vllFileTimeToSystemTime(&time, &utc) && vllSystemTimeToTzSpecificLocalTime(&utc, local);
 * }
 * @endcode
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
 * @param lpSystemTime  receives the time; not null. Untouched when the operation fails.
 * @return  TRUE, or FALSE.
 * @error EOVERFLOW  the clock is past what the system's time_t or the calendar holds.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllGetSystemTime(SYSTEMTIME *lpSystemTime);

/**
 * Reads the clock, as vllGetSystemTime() does, and breaks it down by the local rule.
 *
 * @param lpLocalTime  receives the time; not null. Untouched when the operation fails.
 * @return  TRUE, or FALSE.
 * @error EOVERFLOW  the clock is past what the system's time_t or the calendar holds.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllGetLocalTime(SYSTEMTIME *lpLocalTime);

/**
 * Converts a broken-down time by the UTC rule; weekday and milliseconds do not count.
 *
 * @param lpSystemTime  the time, in UTC; not null.
 * @param lpFileTime    receives the result, -1 after a failure; not null.
 * @return  TRUE, or FALSE when the result is -1. That is also what 1969-12-31 23:59:59 gives, which sets no
 *          error number.
 * @error EOVERFLOW  a FILETIME cannot hold the time.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllSystemTimeToFileTime(const SYSTEMTIME *lpSystemTime, FILETIME *lpFileTime);

/**
 * Breaks a file time down in UTC; wMilliseconds becomes 0.
 *
 * @param lpFileTime    the file time; not null. -1 is 1969-12-31 23:59:59.
 * @param lpSystemTime  receives the time; not null.
 * @return  TRUE.
 * @error none  the operation cannot fail: every file time can be broken down.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllFileTimeToSystemTime(const FILETIME *lpFileTime, SYSTEMTIME *lpSystemTime);

/**
 * Converts UTC seconds to those of the local wall clock, by the local rule and then the UTC rule.
 *
 * @param lpFileTime       the file time; not null.
 * @param lpLocalFileTime  receives the result, -1 after a failure; not null. May be lpFileTime.
 * @return  TRUE, or FALSE when the result is -1, also where that is a time.
 * @error EOVERFLOW  a FILETIME cannot hold the local time.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllFileTimeToLocalFileTime(const FILETIME *lpFileTime, FILETIME *lpLocalFileTime);

/**
 * Converts a UTC time to the process's zone. Unlike Win32 it takes no zone record.
 *
 * @param lpUniversalTime  the time, in UTC; not null.
 * @param lpLocalTime      receives all fields but wMilliseconds, which stays as it was; not null. Untouched
 *                         when the operation fails. May be lpUniversalTime.
 * @return  TRUE, or FALSE when the UTC rule gives -1. That is also what 1969-12-31 23:59:59 gives, which sets
 *          no error number.
 * @error EOVERFLOW  a FILETIME cannot hold the time.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllSystemTimeToTzSpecificLocalTime(const SYSTEMTIME *lpUniversalTime, SYSTEMTIME *lpLocalTime);

/**
 * Compares two file times.
 *
 * @param lpFileTime1  the first time; not null.
 * @param lpFileTime2  the second time; not null.
 * @return  -1 when the first time is earlier than the second, 1 when it is later, 0 when they are equal.
 * @error none  the operation cannot fail and leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Async-signal-safe.
 */
VLL_API LONG vllCompareFileTime(const FILETIME *lpFileTime1, const FILETIME *lpFileTime2);

/**
 * Reads the clock in seconds.
 *
 * @param lpSystemTimeAsFileTime  receives the time, -1 after a failure; not null.
 * @return  TRUE, or FALSE.
 * @error EOVERFLOW  the clock is past what a FILETIME holds.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllGetSystemTimeAsFileTime(FILETIME *lpSystemTimeAsFileTime);

/**
 * Reads the times of an open file with fstat(2). Linux keeps no creation time: the time of the last status
 * change stands in.
 *
 * @param hFile             the descriptor.
 * @param lpCreationTime    receives the time of the last status change. May be null.
 * @param lpLastAccessTime  receives the time of the last access. May be null.
 * @param lpLastWriteTime   receives the time of the last write. May be null.
 * @return  TRUE, or FALSE with nothing stored.
 * @error EBADF  hFile is no open descriptor.
 * @error EOVERFLOW  a time that was asked for does not fit a FILETIME.
 * @error others  as fstat(2) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllGetFileTime(HANDLE hFile, FILETIME *lpCreationTime, FILETIME *lpLastAccessTime,
                            FILETIME *lpLastWriteTime);

/**
 * Sets the times of an open file, in whole seconds, with futimens(3): the parts below a second of both become
 * 0.
 *
 * A time that is not given is read first and written back in whole seconds. With neither given nothing is
 * done, whatever hFile is.
 *
 * @param hFile             the descriptor.
 * @param lpCreationTime    ignored. May be null.
 * @param lpLastAccessTime  the new time of the last access. May be null: it stays.
 * @param lpLastWriteTime   the new time of the last write. May be null: it stays.
 * @return  TRUE, or FALSE.
 * @error EBADF  hFile is no open descriptor.
 * @error EPERM  the caller neither owns the file nor is privileged.
 * @error EROFS  the file system is read-only.
 * @error others  as fstat(2) and futimens(3) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllSetFileTime(HANDLE hFile, const FILETIME *lpCreationTime, const FILETIME *lpLastAccessTime,
                            const FILETIME *lpLastWriteTime);

/**
 * Returns the milliseconds of CLOCK_MONOTONIC (clock_gettime(2)), which wrap to 0 every 49.7 days.
 *
 * @return  the milliseconds since some point in the past.
 * @error none  the operation cannot fail and leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Async-signal-safe.
 */
VLL_API DWORD vllGetTickCount(void);

/**
 * Reads a counter that runs at the rate of times(2), usually 100 a second.
 *
 * @param lpFrequency  receives the ticks per second. May be null.
 * @return  the ticks since some point in the past, 32 bits with sign: they wrap.
 * @error none  the operation cannot fail.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Async-signal-safe.
 */
VLL_API LARGE_INTEGER vllKeQueryPerformanceCounter(LARGE_INTEGER *lpFrequency);

/**
 * Writes the local date as month/day/year, "11/16/26".
 *
 * @param buffer  receives the text; at least 9 bytes. Untouched when the operation fails.
 * @return  buffer, or null.
 * @error EOVERFLOW  the clock is past what the system's time_t or the calendar holds.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API char *vll_strdate(char *buffer);

/**
 * Writes the local time as hours:minutes:seconds, "16:21:16".
 *
 * @param buffer  receives the text; at least 9 bytes. Untouched when the operation fails.
 * @return  buffer, or null.
 * @error EOVERFLOW  the clock is past what the system's time_t or the calendar holds.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
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
 * Describes the system's zone for the current year, from /etc/localtime (RFC 8536).
 *
 * Of a full zone file the first block is read, which lists all changes up to 2037. Of a slim one, whose first
 * block is empty, it is the 64-bit block and the rule that closes the file; changes after 2037 do not count
 * there either.
 *
 * Only the half whose change comes first in the year carries its name. TimeZoneKeyName stays empty. A year
 * with one change leaves both dates and both biases 0. A damaged or truncated file counts as having no
 * further changes.
 *
 * @param lpTimeZoneInformation  receives the description; not null. Untouched when the operation fails.
 * @return  TIME_ZONE_ID_UNKNOWN when the year has no change (only Bias is set then); TIME_ZONE_ID_STANDARD or
 *          TIME_ZONE_ID_DAYLIGHT, which is in force now; or TIME_ZONE_ID_INVALID, also for a file that is no
 *          zone file, which sets no error number.
 * @error ENOENT  there is no /etc/localtime.
 * @error EISDIR  /etc/localtime is a directory.
 * @error EMFILE, ENFILE  no descriptor is left.
 * @error EOVERFLOW  the clock is past what the system's time_t or the calendar holds.
 * @error others  as open(2) and pread(2) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, but not while another one loads the zone (tzset(3), mktime(3),
 *          vllSetLocalTime(), vllSetTimeZoneInformation()).
 */
VLL_API LONG vllGetTimeZoneInformation(TIME_ZONE_INFORMATION *lpTimeZoneInformation);

/**
 * Sets the clock (settimeofday(2)), converted by the UTC rule; wMilliseconds counts. The kernel's time zone
 * and the hardware clock stay as they are.
 *
 * @param lpSystemTime  the time, in UTC, with 0 to 999 milliseconds; not null.
 * @return  TRUE, or FALSE, also for 1969-12-31 23:59:59.
 * @error EOVERFLOW  a FILETIME cannot hold the time.
 * @error EPERM  the caller is not privileged (CAP_SYS_TIME).
 * @error EINVAL  the clock refuses the time, such as one before 1970.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllSetSystemTime(const SYSTEMTIME *lpSystemTime);

/**
 * Sets the clock (settimeofday(2)) from a local wall-clock time; wMilliseconds counts.
 *
 * The zone's rule converts: mktime(3), which finds out whether daylight-saving time holds, so that
 * vllGetLocalTime() reads back what was set. mktime(3) also loads the zone as tzset(3) does. The kernel's
 * time zone and the hardware clock stay as they are.
 *
 * @param lpSystemTime  the local time, with 0 to 999 milliseconds; not null.
 * @return  TRUE, or FALSE, also for the local time of 1969-12-31 23:59:59 UTC.
 * @error EOVERFLOW  a FILETIME cannot hold the time.
 * @error EPERM  the caller is not privileged (CAP_SYS_TIME).
 * @error EINVAL  the clock refuses the time, such as one before 1970.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllSetLocalTime(const SYSTEMTIME *lpSystemTime);

/**
 * Switches the system to another zone.
 *
 * It links /etc/localtime to the zone file, with the root file system remounted writable for the while,
 * writes the clock to the hardware clock in local time (hwclock -wl) and reloads the process's zone with
 * tzset(3). Nothing is undone when a step fails.
 *
 * It runs /bin/mount, /bin/ln and /sbin/hwclock, without a shell, and blocks until each has ended. A command
 * that fails by its exit status leaves the last error unspecified. Where the status cannot be read, since
 * the process ignores SIGCHLD, a command counts as successful.
 *
 * @param lpTimeZoneInformation  TimeZoneKeyName alone counts: letters, digits and "/_-+"; not null.
 * @return  TRUE, or FALSE.
 * @error EINVAL  the name is empty, has no NUL in it, or has another character in it. Nothing was changed.
 * @error ENOENT  there is no such zone: nothing was changed. Or one of the programs does not exist.
 * @error EISDIR  the name is that of a directory of zones. Nothing was changed.
 * @error EAGAIN, ENOMEM  a process cannot be made.
 * @error others  as access(2), stat(2) and posix_spawn(3) give them.
 * @cancel  Not a cancellation point.
 * @thread  One thread or process at a time: all change the same files.
 */
VLL_API BOOL vllSetTimeZoneInformation(const TIME_ZONE_INFORMATION *lpTimeZoneInformation);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_DATETIME_H */
