/**
 * @file
 * The event log: the system's log files /var/log/vservices and, before it, /var/log/vservices.0, read as
 * Win32 event-log records. Programs write to it with syslog(3).
 *
 * Every line has a number, from 1 for the oldest. Lines of the sources "gateway" and "gatekeeper" become
 * records; all others, and those that contain "VLL:" or "VLLI:", keep their number but are passed over.
 * Numbers are not stable: they shift when the daemon rotates the files. A last line without a newline does
 * not count.
 *
 * Reads see the log as the last vllOpenEventLog(), vllGetNumberOfEventLogRecords() or vllClearEventLog() of
 * the process found it. While a handle is open the process holds a copy of both files, so that a log that is
 * cut or replaced at any moment disturbs no reader.
 *
 * None of the operations is a cancellation point. A handle may be used by several threads; they share its
 * position.
 *
 * Example: show the messages of all records, oldest first.
 *
 * @code{.c}
 * #include <stdio.h>
 *
 * void showLog(void) {
 *     EVENTLOGRECORD buffer[64]; // for records back to back, each of its own length
 *     DWORD flags = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ;
 *     DWORD size;
 *     void *log = vllOpenEventLog(NULL, NULL);
 *     while (log != NULL && vllReadEventLog(log, flags, 0, buffer, sizeof buffer, &size, NULL)) {
 *         const char *at = (const char *)buffer;
 *         const char *end = at + size;
 *         for (; at < end; at += ((const EVENTLOGRECORD *)at)->Length) {
 *             puts(at + ((const EVENTLOGRECORD *)at)->StringOffset);
 *         }
 *     }
 *     vllCloseEventLog(log);
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_EVENTLOG_H
#define VWINCOMPAT_EVENTLOG_H

#include <pthread.h>

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The lock of the process's view of the log, a plain mutex. Exported for diagnosis; a program that holds it
 * stops every operation on the log but vllGetOldestEventLogRecord().
 *
 * @thread  Locked with pthread_mutex_lock(3) and released by the same thread, which calls no operation on the
 *          log meanwhile.
 */
extern VLL_API pthread_mutex_t syslogMutex;

/** Read flags: exactly one of the first two and exactly one of the last two. */
#define EVENTLOG_SEQUENTIAL_READ 1
#define EVENTLOG_SEEK_READ 2
#define EVENTLOG_FORWARDS_READ 4
#define EVENTLOG_BACKWARDS_READ 8

/** Values of EventType. */
#define EVENTLOG_SUCCESS 0
#define EVENTLOG_ERROR_TYPE 1
#define EVENTLOG_WARNING_TYPE 2
#define EVENTLOG_INFORMATION_TYPE 4

/**
 * The head of a record. Behind it follow SourceName and Computername, then at StringOffset the message, all
 * with a NUL, then zero bytes up to a multiple of 4 and Length once more.
 */
typedef struct EVENTLOGRECORD {
    DWORD Length;   /**< of the whole record */
    DWORD Reserved; /**< 0x654C664C, "LfLe" */
    DWORD RecordNumber;
    FILETIME TimeGenerated; /**< seconds of the local wall clock: a local file time */
    FILETIME TimeWritten;   /**< the same */
    DWORD EventID;          /**< 0 */
    WORD EventType;
    WORD NumStrings;    /**< 1 */
    WORD EventCategory; /**< 0 */
    WORD ReservedFlags;
    DWORD ClosingRecordNumber;
    DWORD StringOffset;
    DWORD UserSidLength; /**< 0 */
    DWORD UserSidOffset; /**< 0 */
    DWORD DataLength;    /**< 0 */
    DWORD DataOffset;    /**< 0 */
    BYTE Reserved2[8];   /**< 0 */
} EVENTLOGRECORD;

/**
 * Opens the log. The handle is no handle of the object table: vllCloseEventLog() closes it, nothing else
 * does.
 *
 * A file that is missing is empty. Blocks while the files are read.
 *
 * @param lpUNCServerName  ignored. May be null.
 * @param lpSourceName     ignored. May be null.
 * @return  the handle, or null.
 * @error ENOMEM  there is no memory for the handle or for the copies of the files.
 * @error EACCES  a file may not be read.
 * @error EISDIR  a file is no regular file.
 * @error EFBIG  a file has 2 GiB or more.
 * @error EMFILE, ENFILE  no descriptor is left.
 * @error others  as open(2), read(2) and mmap(2) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API void *vllOpenEventLog(LPCSTR lpUNCServerName, LPCSTR lpSourceName);

/**
 * Closes a handle. The last one of the process gives the log's memory back.
 *
 * @param hEventLog  the handle.
 * @return  TRUE, or FALSE.
 * @error EINVAL  hEventLog is no open handle.
 * @error others  as munmap(2) gives them; the handle is closed all the same.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllCloseEventLog(void *hEventLog);

/**
 * Empties the log: cuts the current file, deletes the older one, and refreshes what the process's handles
 * see. It needs the right to write to the files; failures are not reported.
 *
 * @param hEventLog         ignored. May be null.
 * @param lpBackupFileName  ignored, as no backup is written. May be null.
 * @return  TRUE.
 * @error none  the operation reports no failure; the last error is unspecified.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllClearEventLog(void *hEventLog, LPCSTR lpBackupFileName);

/**
 * Stores the number of the oldest record, 1, also for an empty log.
 *
 * @param hEventLog     ignored. May be null.
 * @param OldestRecord  receives the number. May be null.
 * @return  TRUE.
 * @error none  the operation cannot fail and leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllGetOldestEventLogRecord(void *hEventLog, LPDWORD OldestRecord);

/**
 * Looks at the files again and counts their lines. Blocks while files that have changed are read.
 *
 * @param hEventLog        ignored. May be null. While the process has no handle open, nothing is kept.
 * @param NumberOfRecords  receives the number of lines, records and others. May be null. Untouched when the
 *                         operation fails.
 * @return  TRUE, or FALSE.
 * @error ENOMEM  there is no memory for the copies of the files.
 * @error EACCES  a file may not be read.
 * @error EISDIR  a file is no regular file.
 * @error EFBIG  a file has 2 GiB or more.
 * @error EMFILE, ENFILE  no descriptor is left.
 * @error others  as open(2), read(2) and mmap(2) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllGetNumberOfEventLogRecords(void *hEventLog, LPDWORD NumberOfRecords);

/**
 * Reads as many whole records as fit, back to back.
 *
 * A sequential read goes on where the last read of this handle stopped; until a read has stored something, it
 * starts at the oldest record (forwards) or the newest (backwards). A seek read starts at a number, and goes
 * on from there as well. A record that does not fit comes first in the next sequential read.
 *
 * @param hEventLog                 the handle.
 * @param dwReadFlags               one of EVENTLOG_SEQUENTIAL_READ and EVENTLOG_SEEK_READ, and one of
 *                                  EVENTLOG_FORWARDS_READ and EVENTLOG_BACKWARDS_READ.
 * @param dwRecordOffset            the number to start at, for a seek read.
 * @param lpBuffer                  receives the records, which start at multiples of 4 bytes from it. May be
 *                                  null when nNumberOfBytesToRead is 0.
 * @param nNumberOfBytesToRead      the buffer's size in bytes.
 * @param pnBytesRead               receives the number of bytes stored, also 0; untouched with EINVAL. May be
 *                                  null.
 * @param pnMinNumberOfBytesNeeded  receives the size of the next record in bytes, with ENOBUFS only. May be
 *                                  null.
 * @return  TRUE when a record was stored, or FALSE.
 * @error EINVAL  the flags are not one of each pair, the buffer is null although its size is not 0, or
 *                hEventLog is no open handle.
 * @error ENOBUFS  the next record does not fit the buffer.
 * @error ERANGE  there are no more records in this direction.
 * @error ENOMSG  there is no line with the number of a seek read.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllReadEventLog(void *hEventLog, DWORD dwReadFlags, DWORD dwRecordOffset, LPVOID lpBuffer,
                             DWORD nNumberOfBytesToRead, DWORD *pnBytesRead, DWORD *pnMinNumberOfBytesNeeded);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_EVENTLOG_H */
