/**
 * @file
 * Mutexes: recursive, abandoned when their owner dies, unnamed or shared by name among processes.
 *
 * vllWaitForSingleObject() acquires a mutex. A named mutex exists while some process holds a handle of it; its
 * name is one of shm_open(3), shared with semaphores and file mappings (mapping.h).
 */
#ifndef VWINCOMPAT_MUTEX_H
#define VWINCOMPAT_MUTEX_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Makes a mutex, or opens the named one that exists.
 *
 * A named creation may block for the moment in which another process initialises the same object; it is no
 * cancellation point.
 *
 * @param bInitialOwner  not 0: the caller owns the new mutex. Ignored when the named one exists.
 * @param lpName         a name of shm_open(3), taken as it is: up to 255 bytes, with or without a leading slash
 *                       and without another. Null or empty: unnamed.
 * @return a handle, with the last error at EEXIST when the named object was in use already, else at 0 (for an
 *         unnamed mutex: not at EEXIST). 0: ENOMEM (no free record), EINVAL (a name with an inner slash, or an
 *         existing object too small to hold a mutex), ENAMETOOLONG or EINVAL (name too long), EACCES, EMFILE,
 *         ENOSPC, or another error of shm_open(3), fcntl(2), mmap(2).
 */
VLL_API HANDLE vllCreateMutex(BOOL bInitialOwner, LPCSTR lpName);

/**
 * Opens a named mutex that exists. For a moment it creates one that does not: a process that creates the mutex
 * in that moment is told that it existed.
 *
 * @return a handle, or 0: EINVAL (null or empty name), ENOENT (no such mutex), and the errors of vllCreateMutex().
 */
VLL_API HANDLE vllOpenMutex(LPCSTR lpName);

/**
 * Releases a mutex once; it is free after as many releases as it was acquired. The handle must stay open
 * meanwhile. Never blocks.
 *
 * A mutex whose last handle (in this process, for a named one) is closed by its owner is released first.
 *
 * @return TRUE, or FALSE: EPERM (the calling thread does not own it), EINVAL (no open handle of a mutex).
 */
VLL_API BOOL vllReleaseMutex(HANDLE hMutex);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_MUTEX_H */
