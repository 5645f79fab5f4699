/**
 * @file
 * File mappings: shared memory by name, anonymous shared memory, and files in memory.
 *
 * A named object (mapping, mutex or semaphore) is the shm_open(3) object of its name; the three share one name
 * space, so that a mutex and a mapping of one name are the same bytes. It exists exactly while some handle,
 * duplicate or view of it is open in some process: whoever opens it then gets it as it is and EEXIST; whoever
 * opens it otherwise gets a new one, all zeros. A child of fork(2) holds what its parent held, and after
 * exec(3) nothing is held. The name itself stays in the file system, empty, when nobody uses it.
 *
 * A shared variable and a mapping, mutex or semaphore of the same name must not be used in one process.
 */
#ifndef VWINCOMPAT_MAPPING_H
#define VWINCOMPAT_MAPPING_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Makes a file mapping, or opens the named one that exists.
 *
 * A named creation may block for the moment in which another process initialises the same object; it is no
 * cancellation point.
 *
 * @param hFile     a descriptor of an open file, of which the mapping keeps a duplicate, or
 *                  INVALID_HANDLE_VALUE for memory without a file. The file keeps its size; as with any
 *                  duplicate, closing the mapping drops fcntl(2) locks that the process holds on the file.
 * @param dwAccess  O_RDONLY, O_WRONLY or O_RDWR: how to open an object without a file. Only O_RDWR can create
 *                  one: O_RDONLY finds what is there (an empty object, when nobody uses it), and O_WRONLY fails
 *                  with EBADF, since users hold a read lock. Ignored with a file.
 * @param dwSize    size in bytes of a new object without a file; one that exists keeps its size. An object of
 *                  size 0 cannot be viewed.
 * @param lpName    as in vllCreateMutex(); ignored with a file. Null or empty: anonymous, not shared by name.
 * @return a handle, with the last error at EEXIST when the named object was in use already, else at 0. Or 0:
 *         EINVAL (other access flags), EBADF (no such file), EEXIST (anonymous, and an object of another user
 *         stands in the way), and the errors of vllCreateMutex().
 */
VLL_API HANDLE vllCreateFileMapping(HANDLE hFile, DWORD dwAccess, DWORD dwSize, LPCSTR lpName);

/**
 * Maps a view of a file mapping. The view keeps the object in use after the mapping handle is closed, and takes
 * one handle of the process's 128. Access past the end of the object faults (SIGBUS), as with mmap(2).
 *
 * @param hMapping      a handle of vllCreateFileMapping().
 * @param dwProtection  PROT_READ, PROT_WRITE, ... of mmap(2).
 * @param dwOffset      where the view starts, a multiple of the page size.
 * @param length        its length in bytes, not 0: there is no "whole object".
 * @return the address, or null: EINVAL (a handle of another type, an unaligned offset, length 0), ENOMEM,
 *         EMFILE, EACCES (protection beyond the mapping's access), or another error of mmap(2).
 */
VLL_API LPVOID vllMapViewOfFile(HANDLE hMapping, DWORD dwProtection, DWORD dwOffset, SIZE_T length);

/**
 * Unmaps a view.
 *
 * @param lpBaseAddress  exactly what vllMapViewOfFile() returned.
 * @return TRUE, or FALSE: EINVAL for an address at which no view starts; nothing is changed.
 */
VLL_API BOOL vllUnmapViewOfFile(LPCVOID lpBaseAddress);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_MAPPING_H */
