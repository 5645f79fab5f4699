// The locale's formats, and dates as text.

#include <langinfo.h>
#include <cerrno>
#include <clocale>
#include <cstring>
#include <ctime>

#include "base/failure.h"
#include "base/guards.h"
#include "vwincompat/system.h"

namespace {

// Overwrites the fields that the record has. The day of the year, the daylight-saving flag and the zone stay.
void overwriteDate(const SYSTEMTIME &record, struct tm *date) {
    date->tm_year = record.wYear - 1900;
    date->tm_mon = record.wMonth - 1;
    date->tm_wday = record.wDayOfWeek;
    date->tm_mday = record.wDay;
    date->tm_hour = record.wHour;
    date->tm_min = record.wMinute;
    date->tm_sec = record.wSecond;
}

}  // namespace

DWORD vllGetLocaleInfo(DWORD dwCode, LPSTR lpBuffer, DWORD dwSize) {
    if ((dwCode != VLL_LOCALE_DATE_FORMAT && dwCode != VLL_LOCALE_TIME_FORMAT) ||
        (lpBuffer == nullptr && dwSize != 0)) {
        return Fail(EINVAL);
    }
    const char *text = nl_langinfo(dwCode == VLL_LOCALE_DATE_FORMAT ? D_FMT : T_FMT);
    const auto length = static_cast<DWORD>(strlen(text));
    if (dwSize == 0) {
        return length + 1;
    }
    if (length + 1 > dwSize) {
        return Fail(ENOBUFS);
    }
    memcpy(lpBuffer, text, length + 1);
    return length;
}

DWORD vllGetDateFormat(LPSTR lpBuffer, DWORD dwSize, LPCSTR lpFormat, const SYSTEMTIME *lpDate) {
    if (lpBuffer == nullptr || lpFormat == nullptr) {
        return Fail(EINVAL);
    }
    const NoCancel no_cancel;  // localtime_r() may read the zone file
    const time_t now = time(nullptr);
    struct tm date;
    if (now == -1 || localtime_r(&now, &date) == nullptr) {
        return 0;
    }
    if (lpDate != nullptr) {
        overwriteDate(*lpDate, &date);
    }
    const size_t length = strftime(lpBuffer, dwSize, lpFormat, &date);
    if (length == 0) {
        errno = ENOBUFS;
    }
    return static_cast<DWORD>(length);
}

BOOL vllSetLocale(LPCSTR lpLocale) {
    const NoCancel no_cancel;
    if (lpLocale == nullptr || setlocale(LC_ALL, lpLocale) == nullptr) {
        return Fail(EINVAL);
    }
    return TRUE;
}
