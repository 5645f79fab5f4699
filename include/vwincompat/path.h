/**
 * @file
 * Path strings, free space and random bytes.
 *
 * The string operations touch no file system. They know '/' as the only separator and no drive letters, and
 * work in the caller's buffers, which must be large enough for the result. They accept a null path: the
 * result is then null, FALSE, or empty strings.
 *
 * Example: the path of a file beside another one, "/etc/app/main.ini" for "/etc/app/site.conf".
 *
 * @code{.c}
 * #include <string.h>
 *
 * // The path is absolute, and the buffer holds 8 bytes more than the path takes.
 * BOOL makeSiblingPath(char *buffer, const char *path) {
 *     strcpy(buffer, path);
 *     if (!vllPathRemoveFileSpec(buffer)) {
 *         return FALSE;
 *     }
 *     vllPathAppend(buffer, "main.ini");
 *     return TRUE;
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_PATH_H
#define VWINCOMPAT_PATH_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Finds the file name in a path.
 *
 * @param pszPath  the path. May be null.
 * @return  the address just after the last '/'; or pszPath itself when it ends with '/', or begins with none
 *          of '/', "./" and "../": it is then a file name as a whole. Null for a null path.
 * @error none  the operation cannot fail and leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Async-signal-safe.
 */
VLL_API LPSTR vllPathFindFileName(LPCSTR pszPath);

/**
 * Finds the extension in a path: from the last '.' of its last component, if that is not the component's
 * first character.
 *
 * @param pszPath  the path. May be null.
 * @return  the address of the extension's dot, or of the path's terminator when there is no extension. Null
 *          for a null path.
 * @error none  the operation cannot fail and leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Async-signal-safe.
 */
VLL_API LPSTR vllPathFindExtension(LPCSTR pszPath);

/**
 * Appends to a path, with one '/' between the two.
 *
 * A "./" at the start of pszMore is skipped. An empty path becomes pszMore, so that a relative name stays
 * relative.
 *
 * @param pszPath  the path, in a buffer for both strings, a '/' and the terminator. May be null.
 * @param pszMore  what is appended; it must not lie within pszPath. May be null: nothing is then appended.
 * @return  pszPath.
 * @error none  the operation cannot fail and leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. A buffer is used by one thread at a time. Async-signal-safe.
 */
VLL_API LPSTR vllPathAppend(LPSTR pszPath, LPCSTR pszMore);

/**
 * Removes the file name from a path, keeping the '/' before it ("/a/b/c.txt" becomes "/a/b/"); from a path
 * that ends with '/' it removes that ("/a/b/" becomes "/a/b", and "/" becomes "").
 *
 * @param pszPath  the path, which is cut in its buffer. May be null.
 * @return  TRUE, or FALSE for a null or empty path, and for one that does not end with '/' and that
 *          vllPathFindFileName() takes for a file name as a whole; it is left alone.
 * @error none  the last error is left alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. A buffer is used by one thread at a time. Async-signal-safe.
 */
VLL_API BOOL vllPathRemoveFileSpec(LPSTR pszPath);

/**
 * Splits a path. No output may overlap the path.
 *
 * @param path   the path. May be null: the outputs are then empty strings.
 * @param drive  receives the empty string, as there are no drives. May be null.
 * @param dir    receives everything before the file name, with the final '/'. May be null.
 * @param fname  receives the file name without its extension. May be null.
 * @param ext    receives the extension with its dot, or the empty string. May be null.
 * @error none  the operation cannot fail and leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Async-signal-safe.
 */
VLL_API void vll_splitpath(LPCSTR path, LPSTR drive, LPSTR dir, LPSTR fname, LPSTR ext);

/**
 * Reads the sizes of the file system that holds a path with statfs(2). The outputs are untouched when the
 * operation fails.
 *
 * @param lpDirectoryName  any path in the file system; not null.
 * @param lpFree           receives all free space, in bytes. May be null.
 * @param lpTotal          receives the size of the file system, in bytes. May be null.
 * @param lpAvailable      receives the space that unprivileged users may take, in bytes. May be null.
 * @return  TRUE, or FALSE.
 * @error EINVAL  the path is null.
 * @error ENOENT  the path does not exist.
 * @error others  as statfs(2) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllGetDiskFreeSpaceEx(LPCSTR lpDirectoryName, uint64_t *lpFree, uint64_t *lpTotal,
                                   uint64_t *lpAvailable);

/**
 * Fills a buffer with random bytes of /dev/urandom (random(4)), fit for keys. Opens the device anew at each
 * call.
 *
 * @param dwLen     the number of bytes; not 0.
 * @param pbBuffer  receives the bytes; not null.
 * @return  TRUE when the whole buffer is filled, or FALSE: what is in the buffer is then undefined.
 * @error EINVAL  the length is 0, or the buffer is null.
 * @error EMFILE, ENFILE  no descriptor is left.
 * @error others  as open(2) and read(2) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllCryptGenRandom(DWORD dwLen, BYTE *pbBuffer);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_PATH_H */
