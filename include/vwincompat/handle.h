/**
 * @file
 * Handles: closing and duplicating.
 *
 * A handle is a type code in the bits above the low 16 and the index of a record in the low 16. A process has
 * 128 records; 32 of them at most are threads, unnamed mutexes and unnamed semaphores together. A thread
 * holds a record of its own while it runs, beside those of its handles, and a mapped view holds one. A value
 * without bits above the low 16 is a plain descriptor: files, sockets and serial ports are handed out so. A
 * freed record is used again as late as possible.
 *
 * Example: give a worker a handle of its own, which it closes when it likes.
 *
 * @code{.c}
 * uint32_t worker(LPVOID parameter) {
 *     HANDLE ready = (HANDLE)(uintptr_t)parameter;
 *     vllSetEvent(ready);
 *     vllCloseHandle(ready);
 *     return 0;
 * }
 *
 * HANDLE startWorker(HANDLE ready) {
 *     HANDLE copy = vllDuplicateHandle(ready);
 *     HANDLE thread = copy == 0 ? 0 : vllCreateThread(0, worker, (LPVOID)(uintptr_t)copy, NULL, 0);
 *     if (thread == 0 && copy != 0) {
 *         vllCloseHandle(copy);
 *     }
 *     return thread;
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_HANDLE_H
#define VWINCOMPAT_HANDLE_H

#include <pthread.h>

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The type codes of handles. */
enum {
    OBJ_EVENT = 0x10000,
    OBJ_WAITABLE_TIMER = 0x20000,
    OBJ_CONSOLE = 0x30000,
    OBJ_THREAD = 0x40000,
    OBJ_MUTEX = 0x100000,
    OBJ_SEMAPHORE = 0x200000,
    OBJ_SHMEM = 0x1000000,
    OBJ_NAMED_MUTEX = 0x1100000,
    OBJ_NAMED_SEMAPHORE = 0x1200000
};

/**
 * The lock of the handle table, error-checking and innermost. The library holds it for a few stores at a
 * time. It is exported for diagnosis.
 *
 * @thread  A thread that holds it stops every operation on handles in the other threads. Its own operations
 *          on handles may fail meanwhile, with EDEADLK or with the error that they give for a handle that is
 *          not open. No other lock may be taken while it is held.
 */
extern VLL_API pthread_mutex_t objMemMutex;

/**
 * Closes a handle or a plain descriptor.
 *
 * The object lives on while other handles name it, or while an operation (such as a wait) uses it; the handle
 * itself is gone at once. It blocks for a descriptor only, as close(2) does.
 *
 * @param handle  a handle of any type, or a descriptor, which is closed with close(2). 0 is accepted and
 *                ignored.
 * @return  TRUE, or FALSE. A descriptor is closed in either case, unless the last error is EBADF.
 * @error EINVAL  the handle is not open; or it is the one that vllGetCurrentThread() returns, which belongs
 *                to the thread.
 * @error EBADF  the descriptor is not open.
 * @error EDEADLK  the calling thread holds objMemMutex.
 * @error others  as close(2) gives them for a descriptor.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once. Of several threads that close one handle, one
 *          succeeds.
 */
VLL_API BOOL vllCloseHandle(HANDLE handle);

/**
 * Makes another handle to the same object, to be closed on its own.
 *
 * @param handle  a handle of any type; not a plain descriptor.
 * @return  the new handle, or 0.
 * @error EINVAL  the handle is not open, or it is a plain descriptor.
 * @error ENOMEM  no record of the handle table is left.
 * @error EMFILE  no descriptor is left for the duplicate. A mutex or a semaphore without a name needs none,
 *                an event needs two, any other object needs one.
 * @error EDEADLK  the calling thread holds objMemMutex.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API HANDLE vllDuplicateHandle(HANDLE handle);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_HANDLE_H */
