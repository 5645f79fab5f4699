/**
 * @file
 * The service that carries out background transfers (file.h).
 *
 * The application runs it in a thread of its own, and waits until it is ready, that is, until `epoll_fd` is no
 * longer -1:
 *
 *     async_io_thread_handle = (int32_t)vllCreateThread(0, vlliAsyncIo, NULL, NULL, 0);
 *     while (__atomic_load_n(&epoll_fd, __ATOMIC_ACQUIRE) == -1) {
 *         vllSleep(1);
 *     }
 */
#ifndef VWINCOMPAT_ASYNCIO_H
#define VWINCOMPAT_ASYNCIO_H

#include <pthread.h>
#include <sys/epoll.h>

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The epoll(7) set of the registered descriptors; -1 while no service runs. Written by the service only. */
extern VLL_API int32_t epoll_fd;

/** What the service takes out of its set at one wake-up. */
extern VLL_API struct epoll_event async_events[64];

/** Held while a descriptor is registered or cancelled. */
extern VLL_API pthread_mutex_t async_mutex;

/** For the application, to keep the handle of the service's thread in; -1 at first. Not used by the library. */
extern VLL_API int32_t async_io_thread_handle;

/**
 * The body of the service's thread, for vllCreateThread() or pthread_create(3): it serves all background
 * transfers of the process and does not return. Cancelling its thread ends the service: `epoll_fd` is -1 again,
 * the transfers that were registered are forgotten without a signal, and the service can be started anew. A
 * forked child begins without a service.
 *
 * SIGPIPE is blocked in its thread.
 *
 * @param lpArgument  not used.
 * @return 0, only when the service cannot be started: an error of epoll_create(2), or EBUSY (it runs already).
 */
VLL_API DWORD vlliAsyncIo(LPVOID lpArgument);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_ASYNCIO_H */
