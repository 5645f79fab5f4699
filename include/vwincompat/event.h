/**
 * @file
 * Events: unnamed, manual-reset or auto-reset.
 *
 * An event is an eventfd(2) whose counter is the signal, and an epoll(7) set into which sockets are selected
 * (socket.h). Each handle of an event holds two descriptors of the process's 256.
 *
 * Example: wait for a signal and for the application's own descriptor in one poll(2).
 *
 * @code{.c}
 * #include <poll.h>
 *
 * // 1: the event is signalled; 0: the descriptor is readable; -1: failure.
 * int waitForEither(HANDLE event, int descriptor) {
 *     struct pollfd both[2] = {{vllGetEventFd(event), POLLIN, 0}, {descriptor, POLLIN, 0}};
 *     if (both[0].fd == -1 || poll(both, 2, -1) == -1) {
 *         return -1;
 *     }
 *     if ((both[0].revents & POLLIN) != 0) {
 *         return vllResetEvent(event) ? 1 : -1;
 *     }
 *     return 0;
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_EVENT_H
#define VWINCOMPAT_EVENT_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Makes an event.
 *
 * @param bManualReset   not 0: the event stays signalled until it is reset. 0: the wait that reports it
 *                       resets it, and one signal releases one waiter.
 * @param bInitialState  not 0: the event starts signalled.
 * @param lpName         must be null: events have no names, and even an empty one is refused.
 * @return  a handle, or 0. When a name was given, that is logged and the last error is unchanged.
 * @error ENOMEM  no record of the handle table is left, or vllvwincompatMain() was not called.
 * @error EMFILE, ENFILE  no descriptor is left.
 * @error others  as eventfd(2) and epoll_create(2) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API HANDLE vllCreateEvent(BOOL bManualReset, BOOL bInitialState, LPCSTR lpName);

/**
 * Refuses to open an event by name, since events have no names; that is logged.
 *
 * @param lpName  not used; may be null.
 * @return  0.
 * @error none  the operation leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API HANDLE vllOpenEvent(LPCSTR lpName);

/**
 * Signals an event; one that is signalled stays so. It makes one call of write(2), which never blocks.
 *
 * @param hEvent  the event.
 * @return  TRUE, or FALSE. For an open handle of another type nothing is done and the last error is
 *          unchanged.
 * @error EINVAL  hEvent is not open.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllSetEvent(HANDLE hEvent);

/**
 * Ends an event's signal; one that is not signalled stays so. It makes one call of read(2), which never
 * blocks.
 *
 * @param hEvent  the event.
 * @return  TRUE, or FALSE. For an open handle of another type nothing is done and the last error is
 *          unchanged.
 * @error EINVAL  hEvent is not open.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllResetEvent(HANDLE hEvent);

/**
 * Returns the event's descriptor, which poll(2) reports as readable exactly while the event is signalled.
 * Socket activity does not make it readable before a wait has reported that, and then only with a
 * manual-reset event. The descriptor belongs to the event: the caller must not close it, and it is valid
 * while the handle is open.
 *
 * @param hEvent  the event.
 * @return  the descriptor, or -1. For a handle of another type the last error is unchanged.
 * @error EINVAL  hEvent has the type of an event and is not open.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API int32_t vllGetEventFd(HANDLE hEvent);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_EVENT_H */
