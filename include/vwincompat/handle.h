/**
 * @file
 * Handles: closing and duplicating.
 *
 * A handle is a type code in the bits above the low 16 and the index of a record in the low 16. A process
 * has 128 records; 32 of them at most are threads, unnamed mutexes and unnamed semaphores together. A value
 * without bits above the low 16 is a plain descriptor: files, sockets and serial ports are handed out so.
 * A freed record is used again as late as possible.
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
 * time. It is exported for diagnosis; a program that holds it stops every operation on handles.
 */
extern VLL_API pthread_mutex_t objMemMutex;

/**
 * Closes a handle or a plain descriptor.
 *
 * The object lives on while other handles name it or an operation (a wait, say) still uses it; the handle
 * itself is gone at once. The handle that vllGetCurrentThread() gives is the thread's own and refused.
 *
 * @param handle  a handle of any type, or a descriptor (closed with close(2)); 0 is accepted and ignored.
 * @return TRUE, or FALSE: EINVAL for a handle that is not open, EBADF or another error of close(2) for a
 *         descriptor.
 */
VLL_API BOOL vllCloseHandle(HANDLE handle);

/**
 * Makes another handle to the same object, to be closed on its own.
 *
 * @param handle  a handle of any type; not a plain descriptor.
 * @return the new handle, or 0: EINVAL (not an open handle), ENOMEM (no free record), or the error with
 *         which a descriptor could not be duplicated (EMFILE).
 */
VLL_API HANDLE vllDuplicateHandle(HANDLE handle);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_HANDLE_H */
