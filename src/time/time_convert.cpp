// The clock, and the conversions between broken-down times and file times. All times are in whole seconds but for the
// milliseconds of a clock reading.
#include "time/time_convert.h"

#include <sys/time.h>
#include <cerrno>
#include <cstddef>

#include "vwincompat/datetime.h"

static_assert(sizeof(SYSTEMTIME) == 16 && offsetof(SYSTEMTIME, wMilliseconds) == 14, "record layout");
static_assert(sizeof(FILETIME) == 4, "record layout");

void vlliTmToSystemTime(const tm &broken_down, SYSTEMTIME *system_time) {
    system_time->wYear = static_cast<WORD>(broken_down.tm_year + 1900);
    system_time->wMonth = static_cast<WORD>(broken_down.tm_mon + 1);
    system_time->wDayOfWeek = static_cast<WORD>(broken_down.tm_wday);
    system_time->wDay = static_cast<WORD>(broken_down.tm_mday);
    system_time->wHour = static_cast<WORD>(broken_down.tm_hour);
    system_time->wMinute = static_cast<WORD>(broken_down.tm_min);
    system_time->wSecond = static_cast<WORD>(broken_down.tm_sec);
}

tm vlliSystemTimeToTm(const SYSTEMTIME &system_time) {
    tm broken_down = {};
    broken_down.tm_year = system_time.wYear - 1900;
    broken_down.tm_mon = system_time.wMonth - 1;
    broken_down.tm_wday = system_time.wDayOfWeek;
    broken_down.tm_mday = system_time.wDay;
    broken_down.tm_hour = system_time.wHour;
    broken_down.tm_min = system_time.wMinute;
    broken_down.tm_sec = system_time.wSecond;
    return broken_down;
}

BOOL vlliSecondsToFileTime(time_t seconds, FILETIME *file_time) {
    *file_time = static_cast<FILETIME>(seconds);
    if (*file_time != seconds) {
        *file_time = -1;
        errno = EOVERFLOW;
    }
    return *file_time != -1;
}

namespace {

BOOL readClock(tm *(*break_down)(const time_t *, tm *), SYSTEMTIME *system_time) {
    const time_t now = time(nullptr);
    tm broken_down;
    if (now == -1 || break_down(&now, &broken_down) == nullptr) {
        return FALSE;
    }
    timeval parts = {};
    gettimeofday(&parts, nullptr);
    vlliTmToSystemTime(broken_down, system_time);
    system_time->wMilliseconds = static_cast<WORD>(parts.tv_usec / 1000);
    return TRUE;
}

}  // namespace

BOOL vllGetSystemTime(SYSTEMTIME *lpSystemTime) {
    return readClock(gmtime_r, lpSystemTime);
}

BOOL vllGetLocalTime(SYSTEMTIME *lpLocalTime) {
    return readClock(localtime_r, lpLocalTime);
}

BOOL vllSystemTimeToFileTime(const SYSTEMTIME *lpSystemTime, FILETIME *lpFileTime) {
    tm utc = vlliSystemTimeToTm(*lpSystemTime);
    return vlliSecondsToFileTime(timegm(&utc), lpFileTime);
}

BOOL vllFileTimeToSystemTime(const FILETIME *lpFileTime, SYSTEMTIME *lpSystemTime) {
    const time_t seconds = *lpFileTime;
    tm utc;
    if (gmtime_r(&seconds, &utc) == nullptr) {
        return FALSE;
    }
    vlliTmToSystemTime(utc, lpSystemTime);
    lpSystemTime->wMilliseconds = 0;
    return TRUE;
}

BOOL vllFileTimeToLocalFileTime(const FILETIME *lpFileTime, FILETIME *lpLocalFileTime) {
    const time_t seconds = *lpFileTime;
    tm local;
    if (localtime_r(&seconds, &local) == nullptr) {
        return FALSE;
    }
    return vlliSecondsToFileTime(timegm(&local), lpLocalFileTime);
}

BOOL vllSystemTimeToTzSpecificLocalTime(const SYSTEMTIME *lpUniversalTime, SYSTEMTIME *lpLocalTime) {
    FILETIME file_time;
    if (!vllSystemTimeToFileTime(lpUniversalTime, &file_time)) {
        return FALSE;
    }
    const time_t seconds = file_time;
    tm local;
    if (localtime_r(&seconds, &local) == nullptr) {
        return FALSE;
    }
    vlliTmToSystemTime(local, lpLocalTime);
    return TRUE;
}

LONG vllCompareFileTime(const FILETIME *lpFileTime1, const FILETIME *lpFileTime2) {
    return (*lpFileTime1 > *lpFileTime2) - (*lpFileTime1 < *lpFileTime2);
}

BOOL vllGetSystemTimeAsFileTime(FILETIME *lpSystemTimeAsFileTime) {
    return vlliSecondsToFileTime(time(nullptr), lpSystemTimeAsFileTime);
}
