// Setting the clock and the system's zone. The zone's steps run programs of the system, without a shell.
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>

#include "base/failure.h"
#include "base/guards.h"
#include "base/program.h"
#include "time/time_convert.h"
#include "vwincompat/datetime.h"

namespace {

constexpr char kZoneFile[] = "/etc/localtime";

// Sets the clock alone: together with the kernel's zone it would be refused (glibc 2.31 and later), and alone it
// leaves that zone as it was.
BOOL setClock(time_t seconds, WORD milliseconds) {
    FILETIME file_time;
    if (!vlliSecondsToFileTime(seconds, &file_time)) {
        return FALSE;
    }
    timeval clock = {};
    clock.tv_sec = seconds;
    clock.tv_usec = suseconds_t{milliseconds} * 1000;
    return settimeofday(&clock, nullptr) == 0;
}

// Runs a program and waits for its end: TRUE when its exit status is 0.
BOOL run(std::initializer_list<const char *> arguments) {
    int status;
    return vlliRunProgram(arguments, &status) && status == 0;
}

BOOL remountRoot(const char *option) {
    return run({"/bin/mount", option, "/"});
}

// Refused are a name without a NUL in its field, which would be read beyond its end, and other characters than those of
// the system's zones, which could lead out of their directory.
bool isZoneName(const char (&name)[64]) {
    const size_t length = strnlen(name, sizeof name);
    constexpr char kAllowed[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/_-+";
    return length != 0 && length < sizeof name && strspn(name, kAllowed) == length;
}

}  // namespace

BOOL vllSetSystemTime(const SYSTEMTIME *lpSystemTime) {
    tm utc = vlliSystemTimeToTm(*lpSystemTime);
    return setClock(timegm(&utc), lpSystemTime->wMilliseconds);
}

BOOL vllSetLocalTime(const SYSTEMTIME *lpSystemTime) {
    tm local = vlliSystemTimeToTm(*lpSystemTime);
    local.tm_isdst = -1;
    return setClock(mktime(&local), lpSystemTime->wMilliseconds);
}

BOOL vllSetTimeZoneInformation(const TIME_ZONE_INFORMATION *lpTimeZoneInformation) {
    if (!isZoneName(lpTimeZoneInformation->TimeZoneKeyName)) {
        return Fail(EINVAL);
    }
    char path[128];
    snprintf(path, sizeof path, "/usr/share/zoneinfo/%s", lpTimeZoneInformation->TimeZoneKeyName);
    struct stat status;
    if (access(path, F_OK) != 0 || stat(path, &status) != 0) {
        return FALSE;
    }
    if (S_ISDIR(status.st_mode)) {
        return Fail(EISDIR);
    }
    // A thread cancelled half-way would leave the root file system writable.
    const NoCancel no_cancel;
    if (!remountRoot("-oremount,rw")) {
        return FALSE;
    }
    remove(kZoneFile);
    if (!run({"/bin/ln", "-s", path, kZoneFile}) || !remountRoot("-oremount,ro") ||
        !run({"/sbin/hwclock", "-wl"})) {
        return FALSE;
    }
    tzset();
    return TRUE;
}
