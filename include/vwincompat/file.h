/**
 * @file
 * File handles and transfers.
 *
 * A file handle is the Linux descriptor itself: it can be given to any system call, and a descriptor from
 * elsewhere (a pipe, a socket) can be given to the operations here. vllCloseHandle() closes it.
 *
 * A transfer with an OverlappedRecord goes on in the background. It needs the service of asyncio.h, and a
 * descriptor that can be polled: pipes, sockets, terminals, but no regular files (EPERM).
 */
#ifndef VWINCOMPAT_FILE_H
#define VWINCOMPAT_FILE_H

#include "vwincompat/overlapped.h"
#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Creation dispositions, and the open(2) flags that they add. */
#define CREATE_NEW 1        /**< O_CREAT, O_EXCL */
#define CREATE_ALWAYS 2     /**< O_CREAT, O_TRUNC */
#define OPEN_EXISTING 3     /**< none */
#define OPEN_ALWAYS 4       /**< O_CREAT */
#define TRUNCATE_EXISTING 5 /**< O_TRUNC */

/* Origins of vllSetFilePointer(). */
#define FILE_BEGIN 0
#define FILE_CURRENT 1
#define FILE_END 2

/** What vllGetFileInformationByHandle() tells. Times are seconds since 1970-01-01 00:00 UTC. */
typedef struct FileInfoRecord {
    DWORD attributes;        /**< not written */
    FILETIME creationTime;   /**< the inode's change time */
    FILETIME lastAccessTime; /**< of reading */
    FILETIME lastWriteTime;  /**< of writing */
} FileInfoRecord;

/**
 * Opens or creates a file.
 *
 * A path whose second character is ':' or that contains a '\' is a Windows path. "D:\Tolvane\" stands for
 * /Ulmex, "E:\" for /var/ulmex, "X:\" for /var/tmp (in any case, and with backslashes); a path without such a
 * prefix begins at the root. Where a component does not exist as spelled, the first entry of its directory that
 * differs only in the case of ASCII letters takes its place; only the last may be missing. What was opened is
 * then logged at LOG_INFO. Any other path is used unchanged.
 *
 * @param lpFileName             the path.
 * @param dwFlags                open(2) flags: the access mode and any others.
 * @param dwMode                 permissions of a file that is created, less the umask.
 * @param dwCreationDisposition  CREATE_NEW to TRUNCATE_EXISTING.
 * @return the descriptor, or INVALID_HANDLE_VALUE: EINVAL (null path, unknown disposition), EACCES (a Windows
 *         path that cannot be converted), ENOMEM, or an error of open(2). May block and be cancelled as open(2).
 */
VLL_API HANDLE vllCreateFile(LPCSTR lpFileName, DWORD dwFlags, DWORD dwMode, DWORD dwCreationDisposition);

/**
 * Reads from a descriptor, at once or in the background.
 *
 * Without a record: one read(2), which may block, be cancelled, and be interrupted by a signal (EINTR).
 *
 * With a record: returns at once, and the service reads until nNumberOfBytesToRead bytes are there; then it
 * signals the record's event. The transfer also ends at the end of the file, at a failing read and at a
 * hang-up: vllGetOverlappedResult() then tells 0, or fails with EIO. The event is not reset here. The buffer
 * and the record are the service's until then; meanwhile nobody else may read from the descriptor, and it must
 * be cancelled (vllCancelIo()) before it is closed.
 *
 * @param hFile                 the descriptor. It can carry one background transfer at a time.
 * @param lpBuffer              where the bytes go.
 * @param nNumberOfBytesToRead  how many.
 * @param lpNumberOfBytesRead   receives the result of read(2), -1 after a failure; not written with a record.
 *                              May be null.
 * @param lpOverlapped          null, or the record.
 * @return TRUE (also at the end of the file, with a count of 0), or FALSE: an error of read(2); with a record
 *         EBADF (bad descriptor, or no service), EEXIST (a transfer is registered for the descriptor), EPERM (a
 *         regular file), or an error of vllCreateEvent().
 */
VLL_API BOOL vllReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
                         LPDWORD lpNumberOfBytesRead, LPOVERLAPPED lpOverlapped);

/**
 * Writes to a descriptor, at once or in the background: as vllReadFile(), with write(2).
 *
 * A write to a pipe or socket that nobody reads fails with EPIPE; at once it also raises SIGPIPE, as write(2)
 * does, in the background it does not.
 *
 * A transfer never blocks the service. To that end a background write goes through an open file of its own on a pipe
 * or terminal that is open for blocking. Any other such device (no socket) is made non-blocking for the moment of a
 * read or write, for all who share the open file.
 */
VLL_API BOOL vllWriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
                          LPDWORD lpNumberOfBytesWritten, LPOVERLAPPED lpOverlapped);

/**
 * Asks for the result of background work.
 *
 * @param lpOverlapped                the record.
 * @param lpNumberOfBytesTransferred  receives the result of the last read(2) or write(2): the length asked for
 *                                    when one call was enough (all the bytes of a transfer in several calls are
 *                                    in the record's `transferred`); -1 while the work goes on. May be null.
 * @param bWait                       not 0: waits for the end of the work. Blocks and may be cancelled.
 * @return TRUE when a count, or with bWait a serial event mask, is there; or FALSE: EINPROGRESS (the work goes
 *         on), EIO (the last read(2) or write(2) failed), EINVAL (null record, or its event is not open).
 */
VLL_API BOOL vllGetOverlappedResult(LPOVERLAPPED lpOverlapped, LPDWORD lpNumberOfBytesTransferred,
                                    BOOL bWait);

/**
 * Cancels the background transfer of a descriptor, whichever thread began it. Its event is not signalled. Once
 * this returns the record and the buffer are the caller's again; what was transferred stays in the record.
 *
 * @return TRUE, or FALSE: ENOENT (nothing registered, or just completed), EBADF (bad descriptor, or no
 *         service), EPERM (a regular file).
 */
VLL_API BOOL vllCancelIo(HANDLE hFile);

/**
 * Moves the file pointer. See lseek(2).
 *
 * @param lDistanceToMove  bytes, signed.
 * @param dwMoveMethod     FILE_BEGIN, FILE_CURRENT or FILE_END.
 * @return the new position from the start, or 0xFFFFFFFF: an error of lseek(2), or EOVERFLOW (the position
 *         does not fit 32 bits; the pointer stays where it was).
 */
VLL_API DWORD vllSetFilePointer(HANDLE hFile, LONG lDistanceToMove, DWORD dwMoveMethod);

/** Flushes a file to its disk. Blocks. @return TRUE, or FALSE with an error of fsync(2). */
VLL_API BOOL vllFlushFileBuffers(HANDLE hFile);

/**
 * Returns the size of a regular file in bytes, or 0xFFFFFFFF: EISDIR (not a regular file), EOVERFLOW (4 GiB - 1
 * or more), or an error of fstat(2).
 */
VLL_API DWORD vllGetFileSize(HANDLE hFile);

/**
 * Asks for the times of an open file.
 *
 * @return lpFileInformation, or null: EINVAL (null record), EOVERFLOW (a time that does not fit 32 bits; the
 *         record is untouched), or an error of fstat(2).
 */
VLL_API FileInfoRecord *vllGetFileInformationByHandle(HANDLE hFile, FileInfoRecord *lpFileInformation);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_FILE_H */
