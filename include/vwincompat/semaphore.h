/**
 * @file
 * Semaphores: unnamed, or shared by name among processes.
 *
 * vllWaitForSingleObject() takes one unit. There is no maximum count; a program that needs an upper bound
 * keeps it itself. A named semaphore exists while some process holds a handle of it; its name is one of
 * shm_open(3), shared with mutexes and file mappings (mapping.h).
 *
 * Example: let three threads at a time do something.
 *
 * @code{.c}
 * static HANDLE places;
 *
 * BOOL makePlaces(void) {
 *     places = vllCreateSemaphore(3, NULL);
 *     return places != 0;
 * }
 *
 * BOOL withPlace(void (*body)(void)) {
 *     if (vllWaitForSingleObject(places, INFINITE) != WAIT_OBJECT_0) {
 *         return FALSE;
 *     }
 *     body();
 *     return vllReleaseSemaphore(places);
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_SEMAPHORE_H
#define VWINCOMPAT_SEMAPHORE_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Makes a semaphore, or opens the named one that exists.
 *
 * A creation with a name may block for the moment in which another process initialises the same object, and
 * for about a second when others use an empty object of this name.
 *
 * @param lInitialCount  the number of units, 0 to SEM_VALUE_MAX. Ignored when the named one exists.
 * @param lpName         a name as shm_open(3) takes it: up to 255 bytes after any leading slashes, without
 *                       another slash. May be null or empty: the semaphore then has no name.
 * @return  a handle, or 0. With a name a success sets the last error: EEXIST when the object was in use
 *          already, else 0. Without a name a success does not leave it at EEXIST.
 * @error EINVAL  lInitialCount is negative.
 * @error ENOMEM  no record of the handle table is left; or 32 threads, unnamed mutexes and unnamed semaphores
 *                exist (without a name); or vllvwincompatMain() was not called.
 * @error EINVAL  lpName has a slash inside, or consists of slashes; or the object of this name is in use and
 *                too small to hold a semaphore.
 * @error ENAMETOOLONG, EINVAL  lpName is longer than 255 bytes.
 * @error EACCES  the object belongs to another user, who does not let the caller read and write it.
 * @error EMFILE, ENFILE  no descriptor is left (with a name).
 * @error ENOSPC  the file system of the shared memory is full (with a name).
 * @error others  as shm_open(3), fcntl(2), ftruncate(2) and mmap(2) give them (with a name).
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also with one name at once.
 */
VLL_API HANDLE vllCreateSemaphore(LONG lInitialCount, LPCSTR lpName);

/**
 * Adds one unit to a semaphore. Never blocks.
 *
 * @param hSemaphore  the semaphore.
 * @return  TRUE, or FALSE.
 * @error EINVAL  hSemaphore is no open handle of a semaphore.
 * @error EOVERFLOW  the semaphore has SEM_VALUE_MAX units.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllReleaseSemaphore(HANDLE hSemaphore);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_SEMAPHORE_H */
