/**
 * @file
 * Waitable timers: unnamed, one-shot, relative, on CLOCK_MONOTONIC.
 *
 * Every timer is a synchronisation timer: the wait that reports its expiry consumes it. Changes of the
 * system clock do not move it.
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
 * @param lpTimerName  must be null: timers have no names.
 * @return a handle, or 0: ENOMEM (no free record) or an error of timerfd_create(2). The last error is
 *         unchanged when a name was given.
 */
VLL_API HANDLE vllCreateWaitableTimer(LPCSTR lpTimerName);

/**
 * Arms a timer; what it was armed with before, and an expiry not yet waited for, are gone.
 *
 * @param dueTime  the delay from now in units of 100 ns. Only the magnitude counts: 10,000,000 and
 *                 -10,000,000 are both one second. 0 disarms.
 * @return TRUE, or FALSE: EINVAL for a handle that is not open or that timerfd_settime(2) refuses because
 *         it is no timer, or for a delay whose seconds the system's time_t cannot hold.
 */
VLL_API BOOL vllSetWaitableTimer(HANDLE hTimer, int64_t dueTime);

/**
 * Disarms a timer and ends its signal.
 *
 * @return TRUE, or FALSE as vllSetWaitableTimer() does.
 */
VLL_API BOOL vllCancelWaitableTimer(HANDLE hTimer);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_TIMER_H */
