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

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_FILEOPS_H */
