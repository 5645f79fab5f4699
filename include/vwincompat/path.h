/**
 * @file
 * Path strings, free space and random bytes.
 *
 * The string operations touch no file system. They know '/' as the only separator and no drive letters, and
 * work in the caller's buffers, which must hold the result. A null path is left alone: the result is null, FALSE, or
 * empty strings.
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
 * @return just after the last '/'; @p pszPath itself when it ends with '/', or begins with none of '/', "./"
 *         and "../": it is then a file name as a whole.
 */
VLL_API LPSTR vllPathFindFileName(LPCSTR pszPath);

/**
 * Finds the extension in a path: from the last '.' of its last component, if that is not the component's first
 * character.
 *
 * @return the extension's dot, or the path's terminator when there is none.
 */
VLL_API LPSTR vllPathFindExtension(LPCSTR pszPath);

/**
 * Appends to a path, with one '/' between the two. A "./" at the start of @p pszMore is skipped. An empty path
 * becomes @p pszMore, so that a relative name stays relative.
 *
 * @param pszPath  room for both strings, a '/' and the terminator.
 * @param pszMore  not within @p pszPath.
 * @return pszPath.
 */
VLL_API LPSTR vllPathAppend(LPSTR pszPath, LPCSTR pszMore);

/**
 * Removes the file name from a path, keeping the '/' before it ("/a/b/c.txt" becomes "/a/b/"); from a path that
 * ends with '/' removes that ("/a/b/" becomes "/a/b", and "/" becomes "").
 *
 * @return TRUE, or FALSE for a bare file name or an empty path, which is left alone.
 */
VLL_API BOOL vllPathRemoveFileSpec(LPSTR pszPath);

/**
 * Splits a path. Each output may be null; none may overlap the path.
 *
 * @param drive  receives the empty string: there are no drives.
 * @param dir    receives everything before the file name, with the final '/'.
 * @param fname  receives the file name without its extension.
 * @param ext    receives the extension with its dot, or the empty string.
 */
VLL_API void vll_splitpath(LPCSTR path, LPSTR drive, LPSTR dir, LPSTR fname, LPSTR ext);

/**
 * Asks for the space of the file system that holds a path. See statfs(2). All outputs are bytes; each may be
 * null.
 *
 * @param lpFree       all free space.
 * @param lpTotal      the file system's size.
 * @param lpAvailable  the space available to unprivileged users.
 * @return TRUE, or FALSE: EINVAL (null path), ENOENT or another error of statfs(2).
 */
VLL_API BOOL vllGetDiskFreeSpaceEx(LPCSTR lpDirectoryName, uint64_t *lpFree, uint64_t *lpTotal,
                                   uint64_t *lpAvailable);

/**
 * Fills a buffer with random bytes of /dev/urandom, fit for keys.
 *
 * @param dwLen     how many bytes; not 0.
 * @param pbBuffer  where they go.
 * @return TRUE when the whole buffer is filled, or FALSE: EINVAL (length 0), or an error of open(2) or read(2).
 */
VLL_API BOOL vllCryptGenRandom(DWORD dwLen, BYTE *pbBuffer);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_PATH_H */
