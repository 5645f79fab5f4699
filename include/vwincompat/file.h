/**
 * @file
 * File handles and transfers.
 *
 * A file handle is the Linux descriptor itself: it can be given to any system call, and a descriptor from
 * elsewhere (a pipe, a socket) can be given to the operations here. vllCloseHandle() closes it.
 *
 * A transfer with an OverlappedRecord goes on in the background. It needs the service of asyncio.h, and a
 * descriptor that can be polled: pipes, sockets, terminals, but no regular files (EPERM).
 *
 * Example: append a line to a file, which is created when it does not exist.
 *
 * @code{.c}
 * #include <fcntl.h>
 *
 * BOOL appendLine(LPCSTR line, DWORD length) {
 *     DWORD written = 0;
 *     BOOL done;
 *     HANDLE file = vllCreateFile("E:\\logs\\calls.log", O_WRONLY | O_APPEND, 0644, OPEN_ALWAYS);
 *     if (file == INVALID_HANDLE_VALUE) {
 *         return FALSE; // vllGetLastError() has the reason
 *     }
 *     done = vllWriteFile(file, line, length, &written, NULL) && written == length;
 *     vllCloseHandle(file);
 *     return done;
 * }
 * @endcode
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

/** What vllGetFileInformationByHandle() reports. Times are seconds since 1970-01-01 00:00 UTC. */
typedef struct FileInfoRecord {
    DWORD attributes;        /**< not written */
    FILETIME creationTime;   /**< the inode's change time */
    FILETIME lastAccessTime; /**< of reading */
    FILETIME lastWriteTime;  /**< of writing */
} FileInfoRecord;

/**
 * Opens or creates a file with open(2).
 *
 * A path whose second character is ':' or that contains a '\' is a Windows path. `D:\Tolvane\` stands for
 * /Ulmex, `E:\` for /var/ulmex, `X:\` for /var/tmp (in any case, and with backslashes); a path without such a
 * prefix begins at the root. Where a component does not exist as spelled, the first entry of its directory
 * that differs only in the case of ASCII letters takes its place; only the last component may be missing. The
 * given and the converted path are then logged at LOG_INFO. Any other path is used unchanged.
 *
 * @param lpFileName             the path; not null.
 * @param dwFlags                flags of open(2): the access mode and any others. O_CLOEXEC is not added.
 * @param dwMode                 permissions of a file that is created, less the umask.
 * @param dwCreationDisposition  CREATE_NEW to TRUNCATE_EXISTING.
 * @return  the descriptor, or INVALID_HANDLE_VALUE.
 * @error EINVAL  the path is null, or the disposition is none of the five.
 * @error EACCES  a Windows path cannot be converted: a component before the last is missing, or a directory
 *                that has to be searched for one cannot be read. Also as open(2) gives it.
 * @error ENOMEM  there is no memory for the converted path.
 * @error EEXIST  the file exists, and the disposition is CREATE_NEW.
 * @error ENOENT  the file does not exist, and the disposition is OPEN_EXISTING or TRUNCATE_EXISTING; or a
 *                directory of a path that is used unchanged does not exist.
 * @error others  as open(2) gives them.
 * @cancel  A cancellation point while it blocks in open(2): the library keeps nothing, but the file may have
 *          been created or truncated.
 * @thread  Safe from any thread.
 */
VLL_API HANDLE vllCreateFile(LPCSTR lpFileName, DWORD dwFlags, DWORD dwMode, DWORD dwCreationDisposition);

/**
 * Reads from a descriptor, at once or in the background.
 *
 * Without a record it makes one call of read(2), which may block, and which may bring fewer bytes than asked
 * for.
 *
 * With a record it returns at once, and the service reads until nNumberOfBytesToRead bytes are there; then it
 * signals the record's event. The transfer also ends at the end of the file, at a failing read and at a
 * hang-up: vllGetOverlappedResult() then reports a count of 0, or fails with EIO. The event is not reset
 * here. The buffer and the record belong to the service until the event is signalled. Nobody else may read
 * from the descriptor meanwhile, and the transfer must be cancelled (vllCancelIo()) before the descriptor is
 * closed.
 *
 * @param hFile                 the descriptor. It can carry one background transfer at a time.
 * @param lpBuffer              receives the bytes.
 * @param nNumberOfBytesToRead  the number of bytes to read.
 * @param lpNumberOfBytesRead   receives the result of read(2), -1 after a failure; not written with a record.
 *                              May be null.
 * @param lpOverlapped          null, or the record. A record whose event is 0 gets a manual-reset event,
 *                              which the caller closes.
 * @return  TRUE (also at the end of the file, with a count of 0), or FALSE.
 * @error EBADF  hFile is no open descriptor, or one that cannot be read; with a record also: the service does
 *               not run.
 * @error EINTR  a signal interrupted the read before a byte was there (without a record).
 * @error EEXIST  a transfer of the descriptor is registered already (with a record).
 * @error EPERM  the descriptor is a regular file or a directory, which cannot be polled (with a record).
 * @error ENOMEM, EMFILE, ENFILE  the record's event cannot be made: no record of the handle table, or no
 *                descriptor, is left (with a record).
 * @error others  as read(2) gives them; with a record, as epoll_ctl(2) gives them.
 * @cancel  A cancellation point while it blocks in read(2), without a record: the library keeps nothing, and
 *          lpNumberOfBytesRead is not written. With a record it is not a cancellation point.
 * @thread  Safe from any thread, also on one object at once. A record is used by one thread at a time.
 */
VLL_API BOOL vllReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
                         LPDWORD lpNumberOfBytesRead, LPOVERLAPPED lpOverlapped);

/**
 * Writes to a descriptor, at once or in the background.
 *
 * Without a record it makes one call of write(2), which may block, and which may take fewer bytes than given.
 * With a record it returns at once, and the service writes until all bytes are written, as vllReadFile()
 * reads.
 *
 * A write to a pipe or socket that nobody reads fails with EPIPE; without a record it also raises SIGPIPE, as
 * write(2) does, in the background it does not.
 *
 * A transfer never blocks the service. To that end a background write to a pipe or terminal that is open for
 * blocking goes through another open file on it. Any other such device (no socket) is made non-blocking for
 * the duration of a read or write, for all who share the open file.
 *
 * @param hFile                   the descriptor. It can carry one background transfer at a time.
 * @param lpBuffer                the bytes. With a record they must stay unchanged until the event is
 *                                signalled.
 * @param nNumberOfBytesToWrite   the number of bytes to write.
 * @param lpNumberOfBytesWritten  receives the result of write(2), -1 after a failure; not written with a
 *                                record. May be null.
 * @param lpOverlapped            null, or the record. A record whose event is 0 gets a manual-reset event,
 *                                which the caller closes.
 * @return  TRUE (also when fewer bytes were written), or FALSE.
 * @error EBADF  hFile is no open descriptor, or one that cannot be written; with a record also: the service
 *               does not run.
 * @error EINTR  a signal interrupted the write before a byte was written (without a record).
 * @error EPIPE  nobody reads from the pipe or socket any more (without a record).
 * @error EEXIST  a transfer of the descriptor is registered already (with a record).
 * @error EPERM  the descriptor is a regular file or a directory, which cannot be polled (with a record).
 * @error ENOMEM, EMFILE, ENFILE  the record's event cannot be made: no record of the handle table, or no
 *                descriptor, is left (with a record).
 * @error others  as write(2) gives them; with a record, as epoll_ctl(2) gives them.
 * @cancel  A cancellation point while it blocks in write(2), without a record: the library keeps nothing,
 *          lpNumberOfBytesWritten is not written, and how much was written is unknown. With a record it is
 *          not a cancellation point.
 * @thread  Safe from any thread, also on one object at once. A record is used by one thread at a time.
 */
VLL_API BOOL vllWriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
                          LPDWORD lpNumberOfBytesWritten, LPOVERLAPPED lpOverlapped);

/**
 * Reports the result of background work: a transfer, or a wait for serial events (serial.h).
 *
 * @param lpOverlapped                the record; not null.
 * @param lpNumberOfBytesTransferred  receives the result of the last read(2) or write(2): the length asked
 *                                    for when one call was enough (all the bytes of a transfer in several
 *                                    calls are in the record's `transferred`); -1 while the work goes on and
 *                                    when the record cannot be waited for. May be null.
 * @param bWait                       0 returns at once; any other value waits, without a time limit, for the
 *                                    end of the work.
 * @return  TRUE when a count, or with bWait a serial event mask, is there; or FALSE.
 * @error EINPROGRESS  the work goes on (bWait is 0).
 * @error EIO  the last read(2) or write(2) of the transfer failed; its own error number is not kept.
 * @error EINVAL  the record is null, or its event is not open.
 * @error others  as vllWaitForSingleObject() gives them.
 * @cancel  A cancellation point, also when bWait is 0: the record keeps its state, and the work goes on.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllGetOverlappedResult(LPOVERLAPPED lpOverlapped, LPDWORD lpNumberOfBytesTransferred,
                                    BOOL bWait);

/**
 * Cancels the background transfer of a descriptor, whichever thread began it.
 *
 * The record's event is not signalled. Once the operation returns, the record and the buffer are the caller's
 * again; what was transferred stays in the record. The operation waits while the service deals with ready
 * descriptors, which does not block.
 *
 * @param hFile  the descriptor.
 * @return  TRUE, or FALSE.
 * @error ENOENT  no transfer of the descriptor is registered, or it has just completed.
 * @error EBADF  hFile is no open descriptor, or the service does not run.
 * @error EPERM  the descriptor is a regular file or a directory, which cannot be polled.
 * @error others  as epoll_ctl(2) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllCancelIo(HANDLE hFile);

/**
 * Moves the file pointer with lseek(2).
 *
 * @param hFile            the descriptor.
 * @param lDistanceToMove  bytes, signed.
 * @param dwMoveMethod     FILE_BEGIN, FILE_CURRENT or FILE_END.
 * @return  the new position in bytes from the start, or 0xFFFFFFFF.
 * @error EBADF  hFile is no open descriptor.
 * @error EINVAL  there is no such origin, or the position would lie before the start.
 * @error EOVERFLOW  the position would be 4 GiB - 1 or more; the pointer is moved back to where it was.
 * @error ESPIPE  the descriptor is a pipe or a socket.
 * @error others  as lseek(2) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. All who share the open file share its pointer: they take turns.
 */
VLL_API DWORD vllSetFilePointer(HANDLE hFile, LONG lDistanceToMove, DWORD dwMoveMethod);

/**
 * Flushes a file to its disk with fsync(2). Blocks until the disk has everything.
 *
 * @param hFile  the descriptor.
 * @return  TRUE, or FALSE.
 * @error EBADF  hFile is no open descriptor.
 * @error EINVAL  the descriptor is of a kind that cannot be flushed, such as a pipe or a socket.
 * @error EIO  the disk failed.
 * @error others  as fsync(2) gives them.
 * @cancel  A cancellation point while it blocks: the library keeps nothing, and how much is on the disk is
 *          unknown.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllFlushFileBuffers(HANDLE hFile);

/**
 * Returns the size of a regular file.
 *
 * @param hFile  the descriptor.
 * @return  the size in bytes, or 0xFFFFFFFF.
 * @error EBADF  hFile is no open descriptor.
 * @error EISDIR  the descriptor is no regular file.
 * @error EOVERFLOW  the file has 4 GiB - 1 bytes or more.
 * @error others  as fstat(2) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API DWORD vllGetFileSize(HANDLE hFile);

/**
 * Reads the times of an open file with fstat(2).
 *
 * @param hFile              the descriptor.
 * @param lpFileInformation  receives the times; not null. Untouched when the operation fails.
 * @return  lpFileInformation, or null.
 * @error EBADF  hFile is no open descriptor.
 * @error EINVAL  lpFileInformation is null.
 * @error EOVERFLOW  one of the times does not fit 32 bits.
 * @error others  as fstat(2) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API FileInfoRecord *vllGetFileInformationByHandle(HANDLE hFile, FileInfoRecord *lpFileInformation);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_FILE_H */
