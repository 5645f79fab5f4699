/**
 * @file
 * Waiting on one object and on several.
 *
 * All time-outs are in milliseconds: 0 asks without blocking, INFINITE waits without limit.
 *
 * Example: serve requests until the program is to stop.
 *
 * @code{.c}
 * BOOL serve(HANDLE stop, HANDLE request, void (*answer)(void), void (*idle)(void)) {
 *     HANDLE both[2] = {stop, request};
 *     for (;;) {
 *         switch (vllWaitForMultipleObjects(2, both, 1000)) {
 *         case WAIT_OBJECT_0:
 *             return TRUE;
 *         case WAIT_OBJECT_0 + 1:
 *             answer();
 *             break;
 *         case WAIT_TIMEOUT:
 *             idle();
 *             break;
 *         default:
 *             return FALSE; // vllGetLastError() has the reason
 *         }
 *     }
 * }
 * @endcode
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
 * An auto-reset event and a timer are consumed by the wait that reports them. A signal that another waiter
 * took first is not reported, and the wait goes on for the rest of its time. Only one object is reported, and
 * the lowest index is not preferred. Socket activity on a manual-reset event leaves it signalled. A signal
 * handler that runs during the wait makes it start its full time-out again.
 *
 * @param nCount          the number of handles, 1 to MAXIMUM_WAIT_OBJECTS.
 * @param lpHandles       that many handles; not null. They are copied, so the array may change during the
 *                        wait. A handle that is listed twice is reported at its first index.
 * @param dwMilliseconds  the time-out in milliseconds; values of 0x80000000 and more wait without limit.
 * @return  WAIT_OBJECT_0 + index, WAIT_TIMEOUT, or WAIT_FAILED. The last error is unchanged unless the wait
 *          failed.
 * @error EINVAL  nCount is out of range, or lpHandles is null; or a handle is not open, or is none of an
 *                event, a timer, a console, a thread or a process.
 * @error EPERM  a console's stream cannot be waited on, as with a regular file and /dev/null.
 * @error ENOMEM  no memory is left.
 * @error EMFILE, ENFILE  no descriptor is left for a wait that has to block; one that can be answered at once
 *                needs none, unless a console is among the objects.
 * @error others  as epoll_create(2) and epoll_ctl(2) give them.
 * @cancel  A cancellation point, also when an object is signalled already: nothing is consumed.
 * @thread  Safe from any thread, also on one object at once. Closing a handle in another thread does not end
 *          the wait on its object.
 */
VLL_API DWORD vllWaitForMultipleObjects(int32_t nCount, const HANDLE *lpHandles, DWORD dwMilliseconds);

/**
 * Does the same as vllWaitForMultipleObjects(): there is no message queue.
 *
 * @param nCount          the number of handles, 1 to MAXIMUM_WAIT_OBJECTS.
 * @param lpHandles       that many handles; not null. They are copied, so the array may change during the
 *                        wait. A handle that is listed twice is reported at its first index.
 * @param dwMilliseconds  the time-out in milliseconds; values of 0x80000000 and more wait without limit.
 * @return  WAIT_OBJECT_0 + index, WAIT_TIMEOUT, or WAIT_FAILED. The last error is unchanged unless the wait
 *          failed.
 * @error EINVAL  nCount is out of range, or lpHandles is null; or a handle is not open, or is none of an
 *                event, a timer, a console, a thread or a process.
 * @error EPERM  a console's stream cannot be waited on, as with a regular file and /dev/null.
 * @error ENOMEM  no memory is left.
 * @error EMFILE, ENFILE  no descriptor is left for a wait that has to block; one that can be answered at once
 *                needs none, unless a console is among the objects.
 * @error others  as epoll_create(2) and epoll_ctl(2) give them.
 * @cancel  A cancellation point, also when an object is signalled already: nothing is consumed.
 * @thread  Safe from any thread, also on one object at once. Closing a handle in another thread does not end
 *          the wait on its object.
 */
VLL_API DWORD vllMsgWaitForMultipleObjectsEx(int32_t nCount, const HANDLE *lpHandles, DWORD dwMilliseconds);

/**
 * Waits until one object is signalled.
 *
 * - Events, timers, consoles, threads and processes: the operation is vllWaitForMultipleObjects() with one
 *   handle.
 * - Mutexes: the caller becomes the owner, once more if it is the owner already. WAIT_ABANDONED says that the
 *   former owner died and that what the mutex protects may be half changed; the caller owns it.
 * - Semaphores: the caller takes one unit.
 *
 * The time-out of mutexes and semaphores ends at a time of the system's real-time clock: setting that clock
 * changes how long they wait. Signal handlers that run during the wait do not.
 *
 * @param hHandle         the object: of any type but a file mapping.
 * @param dwMilliseconds  the time-out in milliseconds. Other than for mutexes and semaphores, values of
 *                        0x80000000 and more wait without limit.
 * @return  WAIT_OBJECT_0, WAIT_ABANDONED (mutexes only), WAIT_TIMEOUT, or WAIT_FAILED.
 * @error EINVAL  hHandle is not open, or it is a file mapping.
 * @error EBUSY  another thread owns the mutex, and the time-out is 0: this is not WAIT_TIMEOUT.
 * @error EAGAIN  the semaphore has no unit, and the time-out is 0: this is not WAIT_TIMEOUT. Or the caller
 *                has acquired the mutex as often as can be counted.
 * @error EFAULT  the mutex or semaphore has a name, and the thread that makes the handle has not finished.
 * @error others  as pthread_mutex_timedlock(3) gives them for a mutex, and vllWaitForMultipleObjects() for
 *                any object that is neither a mutex nor a semaphore.
 * @cancel  A cancellation point, also when the object is signalled already: nothing is consumed. Two cases
 *          are not cancellation points: a semaphore with time-out 0, and a mutex. A thread that is cancelled
 *          while it waits for a mutex waits on, and ends at its next cancellation point.
 * @thread  Safe from any thread, also on one object at once. Closing the handle in another thread does not
 *          end the wait.
 */
VLL_API DWORD vllWaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_WAIT_H */
