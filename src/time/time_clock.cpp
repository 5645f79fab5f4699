// Tick counts, and the short date and time strings.
#include <sys/times.h>
#include <unistd.h>
#include <ctime>

#include "time/time_convert.h"
#include "vwincompat/datetime.h"

DWORD vlliTickCount(const timespec &time) {
    return static_cast<DWORD>(time.tv_sec) * 1000U + static_cast<DWORD>(time.tv_nsec / 1000000);
}

DWORD vllGetTickCount(void) {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return vlliTickCount(now);
}

LARGE_INTEGER vllKeQueryPerformanceCounter(LARGE_INTEGER *lpFrequency) {
    if (lpFrequency != nullptr) {
        *lpFrequency = static_cast<int32_t>(sysconf(_SC_CLK_TCK));
    }
    tms unused;
    return static_cast<int32_t>(times(&unused));
}

namespace {

// The size of either string, "11/16/26" or "16:21:16", with its NUL.
constexpr size_t kStampSize = 9;

char *formatNow(char *buffer, const char *format) {
    const time_t now = time(nullptr);
    tm local;
    if (now == -1 || localtime_r(&now, &local) == nullptr) {
        return nullptr;
    }
    strftime(buffer, kStampSize, format, &local);
    return buffer;
}

}  // namespace

char *vll_strdate(char *buffer) {
    return formatNow(buffer, "%D");
}

char *vll_strtime(char *buffer) {
    return formatNow(buffer, "%H:%M:%S");
}
