/**
 * @file
 * Mutexes: recursive, abandoned when their owner dies, unnamed or shared by name among processes.
 *
 * vllWaitForSingleObject() acquires a mutex. A named mutex exists while some process holds a handle of it;
 * its name is one of shm_open(3), shared with semaphores and file mappings (mapping.h). A mutex whose last
 * handle (in this process, for a named one) is closed by its owner is released first. A named mutex whose last
 * handle is closed while another thread of the process owns it stays that thread's, until the thread releases
 * it through a new handle, or ends.
 *
 * Example: let one process at a time use a device.
 *
 * @code{.c}
 * BOOL withDevice(void (*use)(BOOL after_a_crash)) {
 *     DWORD result;
 *     HANDLE mutex = vllCreateMutex(FALSE, "/acme-device");
 *     if (mutex == 0) {
 *         return FALSE;
 *     }
 *     result = vllWaitForSingleObject(mutex, 5000);
 *     if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) {
 *         use(result == WAIT_ABANDONED);
 *         vllReleaseMutex(mutex);
 *     }
 *     vllCloseHandle(mutex);
 *     return result == WAIT_OBJECT_0 || result == WAIT_ABANDONED;
 * }
 * @endcode
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
 * A creation with a name may block for the moment in which another process initialises the same object, and
 * for about a second when others use an empty object of this name.
 *
 * @param bInitialOwner  not 0: the caller owns the new mutex. Ignored when the named one exists.
 * @param lpName         a name as shm_open(3) takes it: up to 255 bytes after any leading slashes, without
 *                       another slash. May be null or empty: the mutex then has no name.
 * @return  a handle, or 0. With a name a success sets the last error: EEXIST when the object was in use
 *          already, else 0. Without a name a success does not leave it at EEXIST.
 * @error ENOMEM  no record of the handle table is left; or 32 threads, unnamed mutexes and unnamed semaphores
 *                exist (without a name); or vllvwincompatMain() was not called.
 * @error EINVAL  lpName has a slash inside, or consists of slashes; or the object of this name is in use and
 *                too small to hold a mutex.
 * @error ENAMETOOLONG, EINVAL  lpName is longer than 255 bytes.
 * @error EACCES  the object belongs to another user, who does not let the caller read and write it.
 * @error EMFILE, ENFILE  no descriptor is left (with a name).
 * @error ENOSPC  the file system of the shared memory is full (with a name).
 * @error others  as shm_open(3), fcntl(2), ftruncate(2) and mmap(2) give them (with a name).
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also with one name at once.
 */
VLL_API HANDLE vllCreateMutex(BOOL bInitialOwner, LPCSTR lpName);

/**
 * Opens a named mutex that exists. One that does not exist is created for a moment: a process that creates
 * the mutex in that moment gets EEXIST. It may block as vllCreateMutex() does.
 *
 * @param lpName  the name, as in vllCreateMutex(); not null or empty.
 * @return  a handle, with the last error at EEXIST; or 0.
 * @error EINVAL  lpName is null or empty.
 * @error ENOENT  there is no mutex of this name in use.
 * @error others  as vllCreateMutex() gives them with a name.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also with one name at once.
 */
VLL_API HANDLE vllOpenMutex(LPCSTR lpName);

/**
 * Releases a mutex once; it is free after as many releases as it was acquired. Never blocks.
 *
 * @param hMutex  the mutex.
 * @return  TRUE, or FALSE.
 * @error EPERM  the calling thread does not own the mutex.
 * @error EINVAL  hMutex is no open handle of a mutex.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once. No thread may close the handle before the
 *          operation has returned.
 */
VLL_API BOOL vllReleaseMutex(HANDLE hMutex);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_MUTEX_H */
