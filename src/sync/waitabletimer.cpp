// Waitable timers. Each is a timerfd on the monotonic clock.

#include "sync/waitabletimer.h"

#include <sys/timerfd.h>
#include <unistd.h>
#include <cstring>

#include "base/descriptor.h"
#include "base/failure.h"
#include "base/log.h"
#include "core/ref.h"

namespace {

constexpr uint64_t kUnitsPerSecond = 10000000;  // a due time counts units of 100 ns
constexpr uint64_t kNanosecondsPerUnit = 100;

// Makes a relative setting without a period. FALSE with EINVAL when the seconds do not fit the system's time_t.
BOOL makeSetting(int64_t due_time, itimerspec *setting) {
    const uint64_t magnitude =
        due_time < 0 ? -static_cast<uint64_t>(due_time) : static_cast<uint64_t>(due_time);
    const auto seconds = static_cast<int64_t>(magnitude / kUnitsPerSecond);
    *setting = {};
    setting->it_value.tv_sec = static_cast<time_t>(seconds);
    setting->it_value.tv_nsec = static_cast<long>(magnitude % kUnitsPerSecond * kNanosecondsPerUnit);
    if (setting->it_value.tv_sec != seconds) {
        return Fail(EINVAL);
    }
    return TRUE;
}

// Arming and cancelling are one step, but each logs under its own name.
struct Messages {
    const char *not_open;
    const char *not_initialized;
    const char *not_set;
};

constexpr Messages kSetMessages = {
    "VLLI: SetWaitableTimer( timerHandle = 0 )\n",
    "VLLI: SetWaitableTimer( %d ) - timer not initialized\n",
    "VLLI: SetWaitableTimer( %d ) - unable to (re)set timer time, error = %d [%s]\n",
};
constexpr Messages kCancelMessages = {
    "VLLI: CancelWaitableTimer( timerHandle = 0 )\n",
    "VLLI: CancelWaitableTimer( %d ) - timer not initialized\n",
    "VLLI: CancelWaitableTimer( %d ) - unable to (re)set timer time, error = %d [%s]\n",
};

BOOL setTimer(HANDLE handle, int64_t due_time, const Messages &messages) {
    const ObjectRef timer(handle);
    if (!timer) {
        vlliLogError("%s", messages.not_open);
        return Fail(EINVAL);
    }
    if (timer->fd == -1) {
        vlliLogError(messages.not_initialized, static_cast<int>(handle));
        return FALSE;
    }
    itimerspec setting;
    if (!makeSetting(due_time, &setting) || timerfd_settime(timer->fd, 0, &setting, nullptr) == -1) {
        vlliLogError(messages.not_set, static_cast<int>(handle), errno, strerror(errno));
        return FALSE;
    }
    return TRUE;
}

}  // namespace

HANDLE vllCreateWaitableTimer(LPCSTR lpTimerName) {
    if (lpTimerName != nullptr) {
        vlliLogError("VLL: CreateWaitableTimer: Named timers not supported\n");
        return 0;
    }
    NewHandle handle(vlliCreateObject(OBJ_WAITABLE_TIMER));
    if (!handle) {
        return 0;
    }
    ObjectRecord *timer = handle.record();
    timer->flags = OBJF_AUTO_RESET;
    timer->fd = timerfd_create(CLOCK_MONOTONIC, 0);
    if (timer->fd == -1 || vlliSetNonBlocking(timer->fd) == -1) {
        return 0;
    }
    return handle.release();
}

BOOL vllSetWaitableTimer(HANDLE hTimer, int64_t dueTime) {
    return setTimer(hTimer, dueTime, kSetMessages);
}

BOOL vllCancelWaitableTimer(HANDLE hTimer) {
    return setTimer(hTimer, 0, kCancelMessages);
}

// The duplicates of the descriptor share one timer, which the kernel disarms when the last of them is closed.
BOOL vlliCloseWaitableTimer(ObjectRecord *record) {
    Fd fd(record->fd);
    return TRUE;
}

BOOL vlliDuplicateWaitableTimer(ObjectRecord *record, const ObjectRecord *source) {
    record->flags = source->flags;
    record->fd = dup(source->fd);
    return record->fd != -1;
}
