/**
 * @file
 * The event log: the system's log files /var/log/vservices and, before it, /var/log/vservices.0, read as Win32
 * event-log records. Programs write to it with syslog(3).
 *
 * Every line has a number, from 1 for the oldest. Lines of the sources "gateway" and "gatekeeper" become records;
 * all others, and those that contain "VLL:" or "VLLI:", keep their number but are passed over. Numbers are not
 * stable: they shift when the daemon rotates the files. A last line without a newline does not count.
 *
 * Reads see the log as the last vllOpenEventLog(), vllGetNumberOfEventLogRecords() or vllClearEventLog() of the
 * process found it. While a handle is open the process holds a copy of both files, so that a log that is cut
 * or replaced at any moment disturbs no reader.
 *
 * None of the operations is a cancellation point. A handle may be used by several threads; they share its
 * position.
 */
#ifndef VWINCOMPAT_EVENTLOG_H
#define VWINCOMPAT_EVENTLOG_H

#include <pthread.h>

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The lock of the process's view of the log. Exported for diagnosis; a program that holds it stops every reader. */
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
 * The head of a record. Behind it follow SourceName and Computername, then at StringOffset the message, all with
 * a NUL, then zero bytes up to a multiple of 4 and Length once more.
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
 * Opens the log. The handle is no handle of the object table: vllCloseEventLog() closes it, nothing else does.
 *
 * @param lpUNCServerName, lpSourceName  ignored.
 * @return the handle, or null: ENOMEM, or why a file cannot be read. A missing file is an empty log.
 */
VLL_API void *vllOpenEventLog(LPCSTR lpUNCServerName, LPCSTR lpSourceName);

/**
 * Closes a handle. The last one of the process gives the log's memory back.
 *
 * @return TRUE, or FALSE: EINVAL for what is not an open handle, or an error of munmap(2) (the handle is closed
 *         all the same).
 */
VLL_API BOOL vllCloseEventLog(void *hEventLog);

/**
 * Empties the log: cuts the current file and deletes the older one, and refreshes what the process's handles see.
 * Needs the right to write to them; failures are not told.
 *
 * @param hEventLog, lpBackupFileName  ignored: no backup is written.
 * @return TRUE always.
 */
VLL_API BOOL vllClearEventLog(void *hEventLog, LPCSTR lpBackupFileName);

/**
 * Stores the number of the oldest record, 1, also for an empty log.
 *
 * @param hEventLog  ignored.
 * @return TRUE always.
 */
VLL_API BOOL vllGetOldestEventLogRecord(void *hEventLog, LPDWORD OldestRecord);

/**
 * Looks at the files again and counts their lines.
 *
 * @param hEventLog        ignored. With no handle open anywhere in the process nothing is kept.
 * @param NumberOfRecords  may be null.
 * @return TRUE, or FALSE with nothing stored and the reason why a file cannot be read.
 */
VLL_API BOOL vllGetNumberOfEventLogRecords(void *hEventLog, LPDWORD NumberOfRecords);

/**
 * Reads as many whole records as fit, back to back.
 *
 * A sequential read goes on where the last one of this handle stopped; the first starts at the oldest record
 * (forwards) or the newest (backwards). A seek read starts at a number, and goes on from there as well. A
 * record that does not fit comes first in the next sequential read.
 *
 * @param dwReadFlags                one of EVENTLOG_SEQUENTIAL_READ and EVENTLOG_SEEK_READ, and one of
 *                                   EVENTLOG_FORWARDS_READ and EVENTLOG_BACKWARDS_READ.
 * @param dwRecordOffset             the number to start at, for a seek read.
 * @param lpBuffer                   receives the records; may be null when nNumberOfBytesToRead is 0. Records start
 *                                   at multiples of 4 from it.
 * @param pnBytesRead                receives the bytes stored; may be null.
 * @param pnMinNumberOfBytesNeeded   receives the size of the next record with ENOBUFS, else nothing; may be null.
 * @return TRUE when something was stored, or FALSE: EINVAL (flags, buffer, or what is not an open handle), ENOBUFS
 *         (the next record does not fit), ERANGE (no more records in this direction), ENOMSG (a seek
 *         to a number outside the log).
 */
VLL_API BOOL vllReadEventLog(void *hEventLog, DWORD dwReadFlags, DWORD dwRecordOffset, LPVOID lpBuffer,
                             DWORD nNumberOfBytesToRead, DWORD *pnBytesRead, DWORD *pnMinNumberOfBytesNeeded);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_EVENTLOG_H */
