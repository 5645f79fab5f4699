/**
 * @file
 * Waitable timers: unnamed, one-shot, relative, on CLOCK_MONOTONIC.
 *
 * Every timer is a synchronisation timer: the wait that reports its expiry consumes it. Changes of the system
 * clock do not move it. All handles of a timer share it; it stays armed until the last one is closed.
 *
 * Example: do something every second until an event is signalled.
 *
 * @code{.c}
 * BOOL everySecond(HANDLE stop, void (*tick)(void)) {
 *     DWORD result = WAIT_FAILED;
 *     HANDLE both[2] = {stop, vllCreateWaitableTimer(NULL)};
 *     if (both[1] == 0) {
 *         return FALSE;
 *     }
 *     while (vllSetWaitableTimer(both[1], -10000000) &&
 *            (result = vllWaitForMultipleObjects(2, both, INFINITE)) == WAIT_OBJECT_0 + 1) {
 *         tick();
 *     }
 *     vllCloseHandle(both[1]);
 *     return result == WAIT_OBJECT_0;
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_TIMER_H
#define VWINCOMPAT_TIMER_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Makes a timer, not armed and not signalled.
 *
 * @param lpTimerName  must be null: timers have no names, and even an empty one is refused.
 * @return  a handle, or 0. When a name was given, that is logged and the last error is unchanged.
 * @error ENOMEM  no record of the handle table is left, or vllvwincompatMain() was not called.
 * @error EMFILE, ENFILE  no descriptor is left.
 * @error others  as timerfd_create(2) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API HANDLE vllCreateWaitableTimer(LPCSTR lpTimerName);

/**
 * Arms a timer for one expiry, with timerfd_settime(2). What it was armed with before is gone, and so is an
 * expiry that no wait has reported yet. Never blocks.
 *
 * @param hTimer   the timer.
 * @param dueTime  the delay from now in units of 100 ns. Only the magnitude counts: 10,000,000 and
 *                 -10,000,000 are both one second. 0 disarms.
 * @return  TRUE, or FALSE. For an open handle of an unnamed mutex or semaphore the last error is unchanged.
 * @error EINVAL  hTimer is not open, or it is a handle of another type; or the delay has more seconds than
 *                the system's time_t can hold.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllSetWaitableTimer(HANDLE hTimer, int64_t dueTime);

/**
 * Disarms a timer and ends its signal. Never blocks.
 *
 * @param hTimer  the timer.
 * @return  TRUE, or FALSE. For an open handle of an unnamed mutex or semaphore the last error is unchanged.
 * @error EINVAL  hTimer is not open, or it is a handle of another type.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllCancelWaitableTimer(HANDLE hTimer);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_TIMER_H */
