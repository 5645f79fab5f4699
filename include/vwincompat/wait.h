/**
 * @file
 * Waiting on one object and on several.
 *
 * All time-outs are in milliseconds: 0 asks without blocking, INFINITE waits without limit.
 */
#ifndef VWINCOMPAT_WAIT_H
#define VWINCOMPAT_WAIT_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The most handles that one wait takes. */
#define MAXIMUM_WAIT_OBJECTS 64
#define INFINITE 0xFFFFFFFFU

/** Wait results. The values are the library's own. */
#define WAIT_OBJECT_0 0U
#define WAIT_TIMEOUT 64U
#define WAIT_ABANDONED 128U
#define WAIT_FAILED 0xFFFFFFFFU

/**
 * Waits until any one of several objects is signalled: events, timers, consoles, threads and processes.
 *
 * An auto-reset event and a timer are consumed by the wait that reports them; a signal that another waiter
 * took first is not reported, and the wait goes on for the rest of its time. Only one object is reported, and
 * the lowest index is not preferred. Socket activity on a manual-reset event leaves it signalled.
 * A signal handler that runs during the wait makes it start its full time-out again. Blocking, and a
 * cancellation point that consumes nothing and gives back everything. Closing a handle in another thread does
 * not end a wait on it.
 *
 * @param nCount          the number of handles, 1 to MAXIMUM_WAIT_OBJECTS.
 * @param lpHandles       that many handles; copied, so the array may change during the wait. One listed twice
 *                        is reported at its first index.
 * @param dwMilliseconds  the time-out; values of 0x80000000 and more wait without limit.
 * @return WAIT_OBJECT_0 + index, WAIT_TIMEOUT, or WAIT_FAILED: EINVAL (a count out of range, a null array, a
 *         handle that is not open or of a type that cannot be waited on here), ENOMEM, EMFILE (no descriptor
 *         for the wait), EPERM (a console on a regular file).
 */
VLL_API DWORD vllWaitForMultipleObjects(int32_t nCount, const HANDLE *lpHandles, DWORD dwMilliseconds);

/** The same as vllWaitForMultipleObjects(): there is no message queue. */
VLL_API DWORD vllMsgWaitForMultipleObjectsEx(int32_t nCount, const HANDLE *lpHandles, DWORD dwMilliseconds);

/**
 * Waits until one object is signalled. Blocking, and a cancellation point except for mutexes: a thread that is
 * cancelled while it waits for a mutex ends after it has acquired it, or after the time-out.
 *
 * - Events, timers, consoles, threads and processes: vllWaitForMultipleObjects() with one handle.
 * - Mutexes: the caller becomes the owner, once more if it is the owner already. WAIT_ABANDONED says that the
 *   former owner died and that what the mutex protects may be half changed; the caller owns it.
 * - Semaphores: takes one unit.
 *
 * The time-out of mutexes and semaphores follows the system's real-time clock, signals or not.
 *
 * @return WAIT_OBJECT_0, WAIT_ABANDONED, WAIT_TIMEOUT, or WAIT_FAILED: EINVAL (a handle that is not open or whose
 *         type cannot be waited on), and the errors of vllWaitForMultipleObjects(). With time-out 0, EBUSY for a
 *         mutex that another thread owns and EAGAIN for a semaphore without units, not WAIT_TIMEOUT. EAGAIN for
 *         a mutex acquired too often.
 */
VLL_API DWORD vllWaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_WAIT_H */
