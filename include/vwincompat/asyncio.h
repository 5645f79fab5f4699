/**
 * @file
 * The service that carries out background transfers (file.h).
 *
 * The library never starts it. The application runs it in a thread of its own before the first background
 * transfer, and waits until it is ready, that is, until `epoll_fd` is no longer -1. There is one service in a
 * process; a forked child begins without one.
 *
 * Example: start the service.
 *
 * @code{.c}
 * BOOL startService(void) {
 *     HANDLE thread = vllCreateThread(0, vlliAsyncIo, NULL, NULL, 0);
 *     if (thread == 0) {
 *         return FALSE;
 *     }
 *     async_io_thread_handle = (int32_t)thread;
 *     while (__atomic_load_n(&epoll_fd, __ATOMIC_ACQUIRE) == -1) {
 *         if (vllWaitForSingleObject(thread, 1) == WAIT_OBJECT_0) {
 *             vllCloseHandle(thread); // the service could not be started
 *             return FALSE;
 *         }
 *     }
 *     return TRUE;
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_ASYNCIO_H
#define VWINCOMPAT_ASYNCIO_H

#include <pthread.h>
#include <sys/epoll.h>

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The epoll(7) set of the registered descriptors, or -1 while no service runs.
 *
 * @thread  Written by the service's thread only, atomically. Other threads read it as the example does.
 */
extern VLL_API int32_t epoll_fd;

/**
 * The events that the service takes out of its set at one wake-up.
 *
 * @thread  Used by the service's thread only.
 */
extern VLL_API struct epoll_event async_events[64];

/**
 * The lock that the library holds while a descriptor is registered or its transfer is cancelled, and while
 * the service starts and ends.
 *
 * @thread  A thread that holds it must not call vllReadFile(), vllWriteFile() or vllCancelIo() with
 *          background transfers: it would wait for itself.
 */
extern VLL_API pthread_mutex_t async_mutex;

/**
 * A place where the application may keep the handle of the service's thread; -1 at first.
 *
 * @thread  The library never uses it: the application guards it.
 */
extern VLL_API int32_t async_io_thread_handle;

/**
 * The body of the service's thread, for vllCreateThread() or pthread_create(3). It serves all background
 * transfers of the process and does not return once it has started. SIGPIPE is blocked in its thread.
 *
 * @param lpArgument  not used; may be null.
 * @return  0, only when the service cannot be started.
 * @error EBUSY  the service runs already, in another thread.
 * @error EMFILE, ENFILE  no descriptor is left.
 * @error others  as epoll_create(2) gives them.
 * @cancel  A cancellation point while it waits for descriptors to become ready; this is how the service is
 *          ended. `epoll_fd` is then -1 again, the transfers that were registered are forgotten without a
 *          signal, and the service can be started anew.
 * @thread  Safe from any thread; one at a time becomes the service.
 */
VLL_API DWORD vlliAsyncIo(LPVOID lpArgument);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_ASYNCIO_H */
