/**
 * @file
 * Whole files and directories: copy, link, move, delete, attributes, search, current directory.
 *
 * Paths are Linux paths, passed to the system unchanged: only vllCreateFile() (file.h) understands Windows
 * paths. Attribute values, move flags and progress results are the library's own, not those of Win32.
 *
 * Example: count the files of a directory.
 *
 * @code{.c}
 * DWORD countLogs(void) {
 *     FindDataRecord entry;
 *     DWORD count = 0;
 *     BOOL found;
 *     SearchRecord *search = vllFindFirstFile("/var/ulmex/logs/", &entry);
 *     if (search == INVALID_FIND_HANDLE) {
 *         return 0; // vllGetLastError() has the reason
 *     }
 *     for (found = TRUE; found; found = vllFindNextFile(search, &entry)) {
 *         count += (entry.attributes & ATTR_REGULAR) != 0;
 *     }
 *     vllFindClose(search);
 *     return count;
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_FILEOPS_H
#define VWINCOMPAT_FILEOPS_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* File attributes. Symbolic links are followed. */
#define ATTR_REGULAR 1   /**< a regular file */
#define ATTR_DIRECTORY 2 /**< a directory */
#define ATTR_OTHER 4     /**< a device, pipe or socket */
#define ATTR_READONLY 8  /**< the caller may read it, but neither write nor execute it */
#define ATTR_HIDDEN 16   /**< never set: only an object with no other attribute would have it */
#define INVALID_FILE_ATTRIBUTES 0xFFFFFFFFU

/** Flag of vllCopyFileEx(): an existing target is an error. */
#define COPY_FILE_FAIL_IF_EXISTS 1

/* Flags of vllMoveFileEx(). */
#define MOVE_COPY_ALLOWED 1       /**< copy and delete when neither rename nor link can do it */
#define MOVE_DELAY_UNTIL_REBOOT 2 /**< only record the move in /etc/moved.conf */
#define MOVE_REPLACE_EXISTING 4   /**< an existing target is replaced */

/* What a progress routine returns; any other value continues. */
#define PROGRESS_CONTINUE 0
#define PROGRESS_STOP 1   /**< end the copy and keep what was copied */
#define PROGRESS_CANCEL 2 /**< end the copy and delete the target */
#define PROGRESS_QUIET 3  /**< continue without calling the routine again */

/**
 * The caller's routine that vllCopyFileEx() calls after every 16th chunk.
 *
 * @param TotalFileSize          the source's size when the copy began; -1 when it is no regular file.
 * @param TotalBytesTransferred  bytes copied so far.
 * @param ChunkSize              4096.
 * @param ChunkBytes             bytes of the last chunk.
 * @param dwChunkNumber          number of the last chunk; the first is 1.
 * @param dwCallbackReason       always 0.
 * @param hSourceFile            descriptor of the source, which stays the copy's own.
 * @param hDestinationFile       descriptor of the target, which stays the copy's own.
 * @param lpData                 the routine data given to vllCopyFileEx().
 */
typedef DWORD (*LPPROGRESS_ROUTINE)(LARGE_INTEGER TotalFileSize, LARGE_INTEGER TotalBytesTransferred,
                                    LARGE_INTEGER ChunkSize, LARGE_INTEGER ChunkBytes, DWORD dwChunkNumber,
                                    DWORD dwCallbackReason, HANDLE hSourceFile, HANDLE hDestinationFile,
                                    LPVOID lpData);

/**
 * Copies a file.
 *
 * The target is a new file with the source's permission bits, less the umask; an existing one is unlinked
 * first, so that its other links and open descriptors keep their content. The target is flushed to disk
 * (fsync(2)) before the operation returns. Blocks meanwhile.
 *
 * A source that is no regular file is read to its end; a directory is refused. A file that is copied to its
 * own name is left as it is. After a failure the target is deleted, but for a copy that the routine stopped
 * with PROGRESS_STOP; a file that the target replaced is lost.
 *
 * @param lpExistingFileName  the source; not null.
 * @param lpNewFileName       the target; not null.
 * @param lpProgressRoutine   called in the calling thread after every 16th chunk of 4096 bytes. May be null.
 * @param lpData              handed to the routine. May be null.
 * @param pbCancel            not used. May be null.
 * @param dwCopyFlags         COPY_FILE_FAIL_IF_EXISTS or 0.
 * @return  TRUE, or FALSE.
 * @error EINVAL  a path is null.
 * @error ENOENT  the source, or the directory of the target, does not exist.
 * @error EISDIR  the source is a directory.
 * @error EEXIST  the target exists, and COPY_FILE_FAIL_IF_EXISTS is given or it cannot be unlinked.
 * @error EINTR  the routine returned PROGRESS_STOP or PROGRESS_CANCEL.
 * @error ENOSPC  the file system is full, or took only a part of a chunk.
 * @error others  as stat(2), open(2), read(2), write(2) and fsync(2) give them.
 * @cancel  A cancellation point while it blocks, and in the routine: both files are closed and the target is
 *          deleted.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllCopyFileEx(LPCSTR lpExistingFileName, LPCSTR lpNewFileName,
                           LPPROGRESS_ROUTINE lpProgressRoutine, LPVOID lpData, BOOL *pbCancel,
                           DWORD dwCopyFlags);

/**
 * Copies a file, as vllCopyFileEx() does without a routine.
 *
 * @param lpExistingFileName  the source; not null.
 * @param lpNewFileName       the target; not null.
 * @param bFailIfExists       0 replaces an existing target; any other value makes it an error.
 * @return  TRUE, or FALSE.
 * @error EINVAL  a path is null.
 * @error ENOENT  the source, or the directory of the target, does not exist.
 * @error EISDIR  the source is a directory.
 * @error EEXIST  the target exists, and bFailIfExists is not 0 or it cannot be unlinked.
 * @error ENOSPC  the file system is full, or took only a part of a chunk.
 * @error others  as stat(2), open(2), read(2), write(2) and fsync(2) give them.
 * @cancel  A cancellation point while it blocks: both files are closed and the target is deleted.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllCopyFile(LPCSTR lpExistingFileName, LPCSTR lpNewFileName, BOOL bFailIfExists);

/**
 * Makes the target a hard link to the source with link(2); across file systems it copies (vllCopyFile()).
 *
 * An existing target is unlinked first when bFailIfExists is 0. One that is the source's own link already, or
 * what the source leads to as a symbolic link, is left as it is.
 *
 * @param lpExistingFileName  the source; not null.
 * @param lpNewFileName       the target; not null.
 * @param bFailIfExists       0 replaces an existing target; any other value makes it an error.
 * @return  TRUE, or FALSE.
 * @error EINVAL  a path is null.
 * @error ENOENT  the source, or the directory of the target, does not exist.
 * @error EEXIST  the target exists, and bFailIfExists is not 0.
 * @error EPERM  the source is a directory, or the file system has no hard links.
 * @error others  as link(2) and unlink(2) give them; across file systems, as vllCopyFile() gives them.
 * @cancel  A cancellation point while it copies, as vllCopyFile(). Otherwise it is not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllLinkOrCopyFile(LPCSTR lpExistingFileName, LPCSTR lpNewFileName, BOOL bFailIfExists);

/**
 * Moves a file within its file system.
 *
 * It calls link(2) and then unlink(2), so that an existing target is never replaced and a directory is
 * refused. When the old name cannot be unlinked, the new one is unlinked again.
 *
 * @param lpExistingFileName  the old name; not null.
 * @param lpNewFileName       the new name; not null.
 * @return  TRUE, or FALSE.
 * @error EINVAL  a path is null.
 * @error ENOENT  the old name, or the directory of the new one, does not exist.
 * @error EEXIST  the new name exists.
 * @error EXDEV  the new name lies on another file system.
 * @error EPERM  the old name is a directory, or the file system has no hard links.
 * @error others  as link(2) and unlink(2) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllMoveFile(LPCSTR lpExistingFileName, LPCSTR lpNewFileName);

/**
 * Moves a file, or records the move for the next start of the system.
 *
 * With MOVE_REPLACE_EXISTING it calls rename(2), which moves directories too, else link(2) and unlink(2).
 * When that fails and MOVE_COPY_ALLOWED is given, it calls vllCopyFile() and vllDeleteFile(). With
 * MOVE_REPLACE_EXISTING, where the new name already is the file, as another hard link to it or because the
 * old name is a symbolic link to it, only the old name is removed; a file that is moved to its own name
 * stays.
 *
 * With MOVE_DELAY_UNTIL_REBOOT nothing is moved. A line is appended to /etc/moved.conf, for a start-up
 * program of the system: "old new replace_existing" with MOVE_REPLACE_EXISTING, else "old  NULL", whatever
 * the new name.
 *
 * @param lpExistingFileName  the old name; not null.
 * @param lpNewFileName       the new name. May be null with MOVE_DELAY_UNTIL_REBOOT alone.
 * @param dwFlags             MOVE_... values, or 0.
 * @return  TRUE, or FALSE.
 * @error EINVAL  MOVE_COPY_ALLOWED is given with MOVE_DELAY_UNTIL_REBOOT; a name is null that is needed; a
 *                name of a deferred move has a newline in it; or the file cannot be moved, for whatever
 *                reason, and MOVE_COPY_ALLOWED is not given.
 * @error EEXIST  the new name exists, and MOVE_COPY_ALLOWED is given without MOVE_REPLACE_EXISTING.
 * @error EISDIR  a directory would have to be copied.
 * @error ENOMEM  there is no memory for the line of a deferred move.
 * @error ENOSPC  the file system is full, or took only a part of the line of a deferred move.
 * @error others  as vllCopyFile() and vllDeleteFile() give them; for a deferred move, as open(2) and write(2)
 *                give them.
 * @cancel  A cancellation point while it copies, as vllCopyFile(). Otherwise it is not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllMoveFileEx(LPCSTR lpExistingFileName, LPCSTR lpNewFileName, DWORD dwFlags);

/**
 * Deletes a file or an empty directory with remove(3).
 *
 * @param lpFileName  the path; not null.
 * @return  TRUE, or FALSE.
 * @error EINVAL  the path is null.
 * @error ENOENT  the path does not exist.
 * @error ENOTEMPTY  the path is a directory with entries.
 * @error EACCES, EPERM  the caller may not remove entries from the directory of the path.
 * @error others  as remove(3) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllDeleteFile(LPCSTR lpFileName);

/**
 * Returns what a path names: ATTR_REGULAR, ATTR_DIRECTORY or ATTR_OTHER, and ATTR_READONLY where it holds.
 * ATTR_READONLY is found out with access(2): root, whom permission bits do not bind, sees it on a read-only
 * file system, for instance.
 *
 * @param lpFileName  the path; not null.
 * @return  ATTR_... values, or INVALID_FILE_ATTRIBUTES.
 * @error EINVAL  the path is null.
 * @error ENOENT  the path does not exist.
 * @error others  as stat(2) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API DWORD vllGetFileAttributes(LPCSTR lpFileName);

/** What a search reports of an entry. Times are seconds since 1970-01-01 00:00 UTC; -1 if they do not fit. */
typedef struct FindDataRecord {
    DWORD attributes;
    FILETIME creationTime;   /**< the inode's change time */
    FILETIME lastAccessTime; /**< of reading */
    FILETIME lastWriteTime;  /**< of writing */
    DWORD size;              /**< 0xFFFFFFFF stands for 4 GiB - 1 or more */
    char name[4096];         /**< without its directory; no terminator when it has 4096 bytes or more */
} FindDataRecord;

/** A search that has begun. Used by one thread at a time. */
typedef struct SearchRecord SearchRecord;

/**
 * What a search that cannot begin returns: a pointer. Where pointers have 64 bits INVALID_HANDLE_VALUE, which
 * has 32, does not equal it.
 */
#define INVALID_FIND_HANDLE ((SearchRecord *)(intptr_t)-1)

/**
 * Begins a search and reports its first entry.
 *
 * Patterns are those of glob(7), in every component: wildcards match names that begin with '.', too ("." and
 * ".." included); a '~' at the start is the home directory; a final '/' stands for all entries of that
 * directory. Entries come in the order of the directory. Symbolic links are followed.
 *
 * @param lpFileName      the pattern, of at most 4095 bytes (4094 with a final '/'); not null.
 * @param lpFindFileData  receives the first entry; not null. Untouched when the operation fails.
 * @return  a search, which vllFindClose() closes, or INVALID_FIND_HANDLE.
 * @error EINVAL  an argument is null.
 * @error ENAMETOOLONG  the pattern is too long.
 * @error ENOMEM  there is no memory for the search or for its entries.
 * @error EACCES  a directory before a wildcard is missing or cannot be read.
 * @error ENOENT  nothing matches; or the first entry has vanished meanwhile or is a dangling symbolic link:
 *                there is no search then, although other entries may match.
 * @error others  as stat(2) gives them for the first entry.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API SearchRecord *vllFindFirstFile(LPCSTR lpFileName, FindDataRecord *lpFindFileData);

/**
 * Reports the next entry of a search.
 *
 * An entry whose stat(2) fails makes this call fail, and the next call goes on behind it: there may be more
 * entries. After the last one every call fails with ENOENT.
 *
 * @param hFindFile       the search.
 * @param lpFindFileData  receives the entry; not null. Untouched when the operation fails.
 * @return  TRUE, or FALSE.
 * @error EINVAL  hFindFile is null or INVALID_FIND_HANDLE, or lpFindFileData is null.
 * @error ENOENT  there are no more entries; or this entry has vanished meanwhile or is a dangling symbolic
 *                link.
 * @error others  as stat(2) gives them for this entry.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. A search is used by one thread at a time.
 */
VLL_API BOOL vllFindNextFile(SearchRecord *hFindFile, FindDataRecord *lpFindFileData);

/**
 * Ends a search and frees it.
 *
 * @param hFindFile  the search, which is not valid afterwards.
 * @return  TRUE, or FALSE.
 * @error EINVAL  hFindFile is null or INVALID_FIND_HANDLE.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. A search is used by one thread at a time.
 */
VLL_API BOOL vllFindClose(SearchRecord *hFindFile);

/**
 * Makes a directory with mkdir(2) and the permissions 0770, less the umask.
 *
 * @param lpPathName  the path; not null.
 * @return  TRUE, or FALSE.
 * @error EINVAL  the path is null.
 * @error EEXIST  the path exists.
 * @error ENOENT  a directory of the path does not exist.
 * @error others  as mkdir(2) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllCreateDirectory(LPCSTR lpPathName);

/**
 * Removes an empty directory with rmdir(2).
 *
 * @param lpPathName  the path; not null.
 * @return  TRUE, or FALSE.
 * @error EINVAL  the path is null, or ends in ".".
 * @error ENOENT  the path does not exist.
 * @error ENOTDIR  the path is no directory.
 * @error ENOTEMPTY  the directory has entries.
 * @error others  as rmdir(2) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllRemoveDirectory(LPCSTR lpPathName);

/**
 * Changes the current directory of the process, which all its threads share, with chdir(2).
 *
 * @param lpPathName  the path; not null.
 * @return  TRUE, or FALSE.
 * @error EINVAL  the path is null.
 * @error ENOENT  the path does not exist.
 * @error ENOTDIR  the path is no directory.
 * @error others  as chdir(2) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllSetCurrentDirectory(LPCSTR lpPathName);

/**
 * Copies the path of the current directory into a buffer.
 *
 * @param nBufferLength  the buffer's size in bytes.
 * @param lpBuffer       receives the path with its terminator when it fits, else it is untouched. May be
 *                       null: nothing is then stored.
 * @return  the length without the terminator; or, when the buffer is too small or null, the size that is
 *          needed, terminator included; or 0 after a failure.
 * @error ENOENT  the current directory was removed.
 * @error ENOMEM  there is no memory for the path.
 * @error others  as getcwd(3) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API DWORD vllGetCurrentDirectory(DWORD nBufferLength, LPSTR lpBuffer);

/**
 * Puts the current directory before a name, unchanged: no separator is inserted, so the name brings its own.
 *
 * @param lpFileName     the name; not null.
 * @param nBufferLength  the buffer's size in bytes.
 * @param lpBuffer       receives the path when it fits, and zero bytes behind it; else it is untouched. May
 *                       be null: nothing is then stored.
 * @param lpFilePart     receives the address of the name in the buffer when the path was stored. May be null.
 * @return  the size that is needed, terminator included, whether the path fits or not; or 0 after a failure.
 * @error EINVAL  the name is null.
 * @error ENOENT  the current directory was removed.
 * @error ENOMEM  there is no memory for the path.
 * @error others  as getcwd(3) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API DWORD vllGetFullPathName(LPCSTR lpFileName, DWORD nBufferLength, LPSTR lpBuffer, LPSTR *lpFilePart);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_FILEOPS_H */
