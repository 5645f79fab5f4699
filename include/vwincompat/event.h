/**
 * @file
 * Events: unnamed, manual-reset or auto-reset.
 *
 * An event is an eventfd(2) whose counter is the signal, and an epoll(7) set into which sockets are
 * selected (socket.h). Each handle of an event holds two descriptors of the process's 256.
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
 * @param bManualReset   not 0: it stays signalled until it is reset; 0: the wait that reports it resets it,
 *                       and one signal releases one waiter.
 * @param bInitialState  not 0: it starts signalled.
 * @param lpName         must be null: events have no names, and even an empty one is refused.
 * @return a handle, or 0: ENOMEM (no free record), EMFILE or another error of the system calls. The last
 *         error is unchanged when a name was given.
 */
VLL_API HANDLE vllCreateEvent(BOOL bManualReset, BOOL bInitialState, LPCSTR lpName);

/** Events have no names: logs that, and returns 0 with the last error unchanged. */
VLL_API HANDLE vllOpenEvent(LPCSTR lpName);

/**
 * Signals an event; one that is signalled stays so. One write(2), never blocks.
 *
 * @return TRUE, or FALSE: EINVAL for a handle that is not open; for a handle of another type nothing is
 *         done and the last error is unchanged.
 */
VLL_API BOOL vllSetEvent(HANDLE hEvent);

/**
 * Ends an event's signal; one that is not signalled stays so. One read(2), never blocks.
 *
 * @return TRUE, or FALSE as vllSetEvent() does.
 */
VLL_API BOOL vllResetEvent(HANDLE hEvent);

/**
 * Returns the event's descriptor, which poll(2) reports readable exactly while the event is signalled by
 * vllSetEvent() (socket activity becomes visible there only through a wait). It belongs to the event: the
 * caller must not close it, and it is valid while the handle is open.
 *
 * @return the descriptor, or -1: EINVAL for a handle that is not open; for a handle of another type the last
 *         error is unchanged.
 */
VLL_API int32_t vllGetEventFd(HANDLE hEvent);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_EVENT_H */
