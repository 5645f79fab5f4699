/**
 * @file
 * File mappings: shared memory by name, anonymous shared memory, and files in memory.
 *
 * A named object (mapping, mutex or semaphore) is the shm_open(3) object of its name; the three share one
 * name space, so that a mutex and a mapping of one name are the same bytes. It exists exactly while some
 * handle, duplicate or view of it is open in some process: whoever opens it then gets it as it is and EEXIST;
 * whoever opens it otherwise gets a new one, all zeros. A child of fork(2) holds what its parent held, and
 * after exec(3) nothing is held. The name itself stays in the file system, empty, when nobody uses it.
 *
 * Programs that do not use the library take part if they follow its record locks (fcntl(2), on the whole
 * object): the exclusive lock, tried without waiting, to initialise an object or to empty it, else the shared
 * lock while it is used. An object of length 0 has not been initialised: who finds one with the shared lock
 * drops the lock, waits a little and tries the exclusive lock again.
 *
 * A shared variable (sharing.h) and a mapping, mutex or semaphore of the same name must not be used in one
 * process: their locks undo one another.
 *
 * Example: share a block with the other processes that ask for it by name.
 *
 * @code{.c}
 * #include <errno.h>
 * #include <fcntl.h>
 * #include <sys/mman.h>
 *
 * // The block, which starts with zeros; *first says whether this process is its first user.
 * void *shareBlock(LPCSTR name, DWORD size, BOOL *first) {
 *     void *block;
 *     HANDLE mapping = vllCreateFileMapping(INVALID_HANDLE_VALUE, O_RDWR, size, name);
 *     if (mapping == 0) {
 *         return NULL;
 *     }
 *     *first = vllGetLastError() != EEXIST;
 *     block = vllMapViewOfFile(mapping, PROT_READ | PROT_WRITE, 0, size);
 *     vllCloseHandle(mapping); // the view keeps the object in use
 *     return block;
 * }
 * @endcode
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
 * A creation with a name may block for the moment in which another process initialises the same object, and
 * for about a second when others use an empty object of this name (a mapping of size 0, or a read-only one
 * that nobody created); it then joins them, and finds no content. The memory of an object without a file is
 * taken at the first access to each page; when the file system of the shared memory is full then, the access
 * faults (SIGBUS).
 *
 * @param hFile     a descriptor of an open file, of which the mapping keeps a duplicate, or
 *                  INVALID_HANDLE_VALUE for memory without a file. The file keeps its size; as with any
 *                  duplicate, closing the mapping drops fcntl(2) locks that the process holds on the file.
 * @param dwAccess  O_RDONLY, O_WRONLY or O_RDWR: how to open an object without a file. Only O_RDWR can create
 *                  one: O_RDONLY finds what is there (an empty object, when nobody uses it), and O_WRONLY
 *                  fails with EBADF, since users hold a read lock. Ignored with a file.
 * @param dwSize    the size in bytes of a new object without a file; one that exists keeps its size. An
 *                  object of size 0 cannot be viewed. Ignored with a file.
 * @param lpName    a name as shm_open(3) takes it: up to 255 bytes after any leading slashes, without another
 *                  slash. May be null or empty: the mapping then has no name. Ignored with a file.
 * @return  a handle, or 0. A success sets the last error: EEXIST when the named object was in use already,
 *          else 0.
 * @error ENOMEM  no record of the handle table is left, or vllvwincompatMain() was not called.
 * @error EINVAL  dwAccess is none of the three; or lpName has a slash inside, or consists of slashes.
 * @error ENAMETOOLONG, EINVAL  lpName is longer than 255 bytes.
 * @error EBADF  hFile is no open descriptor; or dwAccess is O_WRONLY, for an object without a file.
 * @error EACCES  the object belongs to another user, who does not let the caller use it in this way.
 * @error EEXIST  the mapping has neither file nor name, and an object of another user that cannot be removed
 *                has the name that the library chose.
 * @error EMFILE, ENFILE  no descriptor is left.
 * @error ENOSPC  the file system of the shared memory is full.
 * @error others  as dup(2), shm_open(3), fcntl(2) and ftruncate(2) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also with one name at once.
 */
VLL_API HANDLE vllCreateFileMapping(HANDLE hFile, DWORD dwAccess, DWORD dwSize, LPCSTR lpName);

/**
 * Maps a view of a file mapping with mmap(2), shared. The view keeps the object in use after the mapping
 * handle is closed, and takes one record of the handle table and one descriptor. Access past the end of the
 * object faults (SIGBUS).
 *
 * @param hMapping      the file mapping.
 * @param dwProtection  PROT_READ, PROT_WRITE, ... of mmap(2).
 * @param dwOffset      where the view starts, in bytes: a multiple of the page size.
 * @param length        the length of the view in bytes; not 0, which does not stand for the whole object.
 * @return  the address, or null.
 * @error EINVAL  hMapping is no open handle of a file mapping; or dwOffset is not aligned, or length is 0.
 * @error EACCES  the protection asks for more than the mapping was opened for.
 * @error ENOMEM  no record of the handle table, or no address space, is left.
 * @error EMFILE  no descriptor is left.
 * @error ENODEV  the descriptor of the mapping is no file that can be mapped.
 * @error others  as mmap(2) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API LPVOID vllMapViewOfFile(HANDLE hMapping, DWORD dwProtection, DWORD dwOffset, SIZE_T length);

/**
 * Unmaps a view with munmap(2).
 *
 * @param lpBaseAddress  exactly what vllMapViewOfFile() returned.
 * @return  TRUE, or FALSE.
 * @error EINVAL  no view starts at this address; nothing is changed.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread; no other thread may use the view meanwhile.
 */
VLL_API BOOL vllUnmapViewOfFile(LPCVOID lpBaseAddress);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_MAPPING_H */
