/**
 * @file
 * Whole files and directories: copy, link, move, delete, attributes, search, current directory.
 *
 * Paths are Linux paths, passed to the system unchanged: only vllCreateFile() (file.h) understands Windows
 * paths. A null path is refused with EINVAL. Attribute values, move flags and progress results are the
 * library's own, not those of Win32.
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

/* What a progress routine answers; any other value continues. */
#define PROGRESS_CONTINUE 0
#define PROGRESS_STOP 1   /**< end the copy and keep what was copied */
#define PROGRESS_CANCEL 2 /**< end the copy and delete the target */
#define PROGRESS_QUIET 3  /**< continue without calling the routine again */

/**
 * Hears of a copy's progress, after every 16th chunk.
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
 * Copies a file. The target is a new file with the source's permission bits, less the umask; an existing
 * one is unlinked first, so that its other links and open descriptors keep their content. The target is
 * flushed to disk (fsync(2)) before the operation returns.
 *
 * A source that is no regular file is read to its end; a directory is refused. A file copied to its own name
 * is left as it is. Blocks. A thread cancelled inside leaves no target behind.
 *
 * @param lpProgressRoutine  called in the calling thread; may be null.
 * @param lpData             handed to the routine.
 * @param pbCancel           not used; may be null.
 * @param dwCopyFlags        COPY_FILE_FAIL_IF_EXISTS or 0.
 * @return TRUE, or FALSE: EEXIST, EISDIR, EINTR (the routine answered PROGRESS_STOP or PROGRESS_CANCEL),
 *         ENOSPC, or another error of stat(2), open(2), read(2), write(2), fsync(2). After a failure the
 *         target is deleted, save with PROGRESS_STOP.
 */
VLL_API BOOL vllCopyFileEx(LPCSTR lpExistingFileName, LPCSTR lpNewFileName,
                           LPPROGRESS_ROUTINE lpProgressRoutine, LPVOID lpData, BOOL *pbCancel,
                           DWORD dwCopyFlags);

/** As vllCopyFileEx() without a routine; an existing target is an error when @p bFailIfExists is not 0. */
VLL_API BOOL vllCopyFile(LPCSTR lpExistingFileName, LPCSTR lpNewFileName, BOOL bFailIfExists);

/**
 * Makes the target a hard link to the source; across file systems, a copy (vllCopyFile()).
 *
 * An existing target is unlinked first when @p bFailIfExists is 0; one that is the source's own link already, or what
 * the source leads to as a symbolic link, is left as it is.
 *
 * @return TRUE, or FALSE: EEXIST, EPERM (a directory), or another error of link(2), unlink(2) or the copy.
 */
VLL_API BOOL vllLinkOrCopyFile(LPCSTR lpExistingFileName, LPCSTR lpNewFileName, BOOL bFailIfExists);

/**
 * Moves a file within its file system; an existing target is an error. Done with link(2) and unlink(2), so a
 * directory is refused (EPERM).
 *
 * @return TRUE, or FALSE: EEXIST, EXDEV (another file system), EPERM, or another error of the two.
 */
VLL_API BOOL vllMoveFile(LPCSTR lpExistingFileName, LPCSTR lpNewFileName);

/**
 * Moves a file, or records the move for the next start of the system.
 *
 * With MOVE_REPLACE_EXISTING by rename(2), which moves directories too, else by link(2) and unlink(2). With
 * MOVE_COPY_ALLOWED, when that fails, by vllCopyFile() and vllDeleteFile(). Where the new name already is the file,
 * as another hard link to it or because the old name is a symbolic link to it, only the old name is removed; a file
 * moved to its own name stays. With MOVE_DELAY_UNTIL_REBOOT
 * nothing is moved: a line is appended to /etc/moved.conf, "old new replace_existing" with
 * MOVE_REPLACE_EXISTING, else "old  NULL" (whatever the new name), for a start-up program of the system.
 *
 * @param lpNewFileName  may be null with MOVE_DELAY_UNTIL_REBOOT alone.
 * @return TRUE, or FALSE: EINVAL (MOVE_COPY_ALLOWED with MOVE_DELAY_UNTIL_REBOOT; no new name where one is
 *         needed; a name with a line end in a deferred move; a move that cannot be done when copying is not
 *         allowed), or an error of the copy, of remove(3), or of writing /etc/moved.conf.
 */
VLL_API BOOL vllMoveFileEx(LPCSTR lpExistingFileName, LPCSTR lpNewFileName, DWORD dwFlags);

/** Deletes a file or an empty directory. See remove(3). @return TRUE, or FALSE with its error. */
VLL_API BOOL vllDeleteFile(LPCSTR lpFileName);

/**
 * Returns what a path names: ATTR_REGULAR, ATTR_DIRECTORY or ATTR_OTHER, and ATTR_READONLY (see access(2): never
 * for root, whom everything admits), or INVALID_FILE_ATTRIBUTES with an error of stat(2).
 */
VLL_API DWORD vllGetFileAttributes(LPCSTR lpFileName);

/** What a search tells of an entry. Times are seconds since 1970-01-01 00:00 UTC; -1 if they do not fit. */
typedef struct FindDataRecord {
    DWORD attributes;
    FILETIME creationTime;   /**< the inode's change time */
    FILETIME lastAccessTime; /**< of reading */
    FILETIME lastWriteTime;  /**< of writing */
    DWORD size;              /**< 0xFFFFFFFF stands for 4 GiB - 1 or more */
    char name[4096];         /**< without its directory; no terminator when it has 4096 bytes or more */
} FindDataRecord;

/** A search under way. Used by one thread at a time. */
typedef struct SearchRecord SearchRecord;

/** What a search that cannot begin returns. */
#define INVALID_FIND_HANDLE ((SearchRecord *)(intptr_t)-1)

/**
 * Begins a search and tells its first entry.
 *
 * Patterns are those of glob(7), in every component: wildcards match names that begin with '.', too ("." and
 * ".." included); a '~' at the start is the home directory; a final '/' stands for all entries of that directory.
 * Entries come in the order of the directory. Symbolic links are followed.
 *
 * @param lpFileName  the pattern, at most 4095 bytes (4094 with a final '/').
 * @return a search, closed with vllFindClose(), or INVALID_FIND_HANDLE: EINVAL (a null argument), ENAMETOOLONG,
 *         ENOMEM, EACCES (a directory before a wildcard that is missing or cannot be read), ENOENT (no match), or an
 *         error of stat(2) of the first entry, for instance one that vanished meanwhile.
 */
VLL_API SearchRecord *vllFindFirstFile(LPCSTR lpFileName, FindDataRecord *lpFindFileData);

/**
 * Tells the next entry.
 *
 * @return TRUE, or FALSE: ENOENT (no more entries), EINVAL (null or invalid handle, null record), or an error of
 *         stat(2) of that entry, which is passed over: the next call goes on behind it.
 */
VLL_API BOOL vllFindNextFile(SearchRecord *hFindFile, FindDataRecord *lpFindFileData);

/** Ends a search and frees it. @return TRUE, or FALSE: EINVAL (null or INVALID_FIND_HANDLE). */
VLL_API BOOL vllFindClose(SearchRecord *hFindFile);

/** Makes a directory with permissions 0770, less the umask. @return TRUE, or FALSE with an error of mkdir(2). */
VLL_API BOOL vllCreateDirectory(LPCSTR lpPathName);

/** Removes an empty directory. @return TRUE, or FALSE with an error of rmdir(2). */
VLL_API BOOL vllRemoveDirectory(LPCSTR lpPathName);

/** Changes the process's current directory. @return TRUE, or FALSE with an error of chdir(2). */
VLL_API BOOL vllSetCurrentDirectory(LPCSTR lpPathName);

/**
 * Copies the path of the current directory into a buffer.
 *
 * @return its length without the terminator; or, when the buffer is too small (it is then untouched), the size
 *         that is needed, terminator included; or 0 with an error of getcwd(3).
 */
VLL_API DWORD vllGetCurrentDirectory(DWORD nBufferLength, LPSTR lpBuffer);

/**
 * Puts the current directory before a name, unchanged: no separator is inserted, so the name brings its own.
 *
 * @param nBufferLength  size of the buffer, all of which is cleared.
 * @param lpBuffer       receives the path when it fits, else it is untouched.
 * @param lpFilePart     receives the address of the name in the buffer when the path fits. May be null.
 * @return the size needed, terminator included, whether it fits or not; or 0: EINVAL (null name), or an error of
 *         getcwd(3).
 */
VLL_API DWORD vllGetFullPathName(LPCSTR lpFileName, DWORD nBufferLength, LPSTR lpBuffer, LPSTR *lpFilePart);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_FILEOPS_H */
