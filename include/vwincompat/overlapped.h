/**
 * @file
 * The record of background work on a descriptor: a file transfer (file.h), or waiting for serial events
 * (serial.h).
 *
 * Example: read from a pipe in the background, and do something else meanwhile.
 *
 * @code{.c}
 * BOOL readInBackground(HANDLE pipe, char *bytes, DWORD size, void (*doSomethingElse)(void)) {
 *     OVERLAPPED record = {0}; // the library makes the event
 *     DWORD count;
 *     BOOL done;
 *     if (!vllReadFile(pipe, bytes, size, NULL, &record)) {
 *         return FALSE;
 *     }
 *     doSomethingElse();
 *     done = vllGetOverlappedResult(&record, &count, TRUE) && record.transferred == size;
 *     vllCloseHandle(record.event);
 *     return done;
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_OVERLAPPED_H
#define VWINCOMPAT_OVERLAPPED_H

#include <pthread.h>

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Owned by the caller, who sets it to 0 (and, if he has one, `event`) before its first use. The library
 * writes it while the work goes on: until the event is signalled or the work is cancelled it must stay where
 * it is and must not be touched.
 */
typedef struct OverlappedRecord {
    int32_t fd;   /**< the descriptor */
    void *buffer; /**< of the transfer */
    HANDLE event; /**< signalled at completion; made by a transfer that finds it 0. The caller closes it. */
    uint32_t requested;    /**< bytes to be transferred */
    int32_t result;        /**< of the last read(2) or write(2) of the transfer */
    uint32_t transferred;  /**< bytes so far */
    uint32_t mask;         /**< serial events that are watched */
    uint32_t *eventMask;   /**< where serial events are reported; null for a transfer */
    pthread_mutex_t mutex; /**< guards the serial fields */
    HANDLE dataThread;     /**< watches for input */
    HANDLE modemThread;    /**< watches the modem lines */
    HANDLE dataTrigger;    /**< event that arms the data watcher */
    HANDLE modemTrigger;   /**< event that arms the modem watcher */
} OverlappedRecord;

typedef OverlappedRecord OVERLAPPED;
typedef OverlappedRecord *LPOVERLAPPED;

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_OVERLAPPED_H */
