// Serial ports: setting a record's event mask, which starts and stops its watchers, and waiting for events.
//
// A record is set up while it has any watcher or trigger, and its mutex lives exactly as long. A record without any is
// idle. A mask of 0 in a record that is set up marks a set-up that failed, which only a stop ends; any other mask is in
// force.

#include <pthread.h>
#include <initializer_list>

#include "base/failure.h"
#include "base/guards.h"
#include "base/log.h"
#include "net/commport.h"
#include "vwincompat/event.h"
#include "vwincompat/handle.h"
#include "vwincompat/process.h"
#include "vwincompat/thread.h"
#include "vwincompat/wait.h"

namespace {

constexpr DWORD kWatcherStack = 24576;
constexpr DWORD kStopGraceMs = 100;
constexpr DWORD kStopExitCode = 0xFFFFFFFF;

bool isIdle(const OverlappedRecord *record) {
    return record->dataThread == 0 && record->modemThread == 0 && record->dataTrigger == 0 &&
           record->modemTrigger == 0;
}

bool hasFailedSetUp(const OverlappedRecord *record) {
    return record->mask == 0;
}

HANDLE startWatcher(LPTHREAD_START_ROUTINE routine, OverlappedRecord *record) {
    return vllCreateThread(kWatcherStack, routine, record, nullptr, 0);
}

// Makes the triggers and the watchers that the first mask needs. False with errno when one cannot be made.
bool setUp(int32_t port, DWORD mask, OverlappedRecord *record) {
    record->mask = 0;
    record->eventMask = nullptr;
    record->fd = port;
    record->dataTrigger = vllCreateEvent(FALSE, FALSE, nullptr);
    if (record->dataTrigger == 0) {
        return false;
    }
    record->modemTrigger = vllCreateEvent(FALSE, FALSE, nullptr);
    if (record->modemTrigger == 0) {
        return false;
    }
    if ((mask & EV_RXCHAR) != 0) {
        record->dataThread = startWatcher(vlliWaitForData, record);
        if (record->dataThread == 0) {
            return false;
        }
    }
    if ((mask & kModemEventMask) != 0) {
        vlliKeepModemCounters(record);
        record->modemThread = startWatcher(vlliWaitForModem, record);
        if (record->modemThread == 0) {
            return false;
        }
    }
    return true;
}

// Cancels a watcher. True also when there is none; false with errno.
bool terminateWatcher(HANDLE thread) {
    return thread == 0 || vllTerminateThread(thread, kStopExitCode);
}

// Waits until the watchers have ended, then gives back what the set-up made. The record is idle afterwards.
void tearDown(OverlappedRecord *record) {
    for (HANDLE *thread : {&record->dataThread, &record->modemThread}) {
        if (*thread != 0) {
            vllWaitForSingleObject(*thread, INFINITE);
        }
    }
    vlliDropModemCounters(record);
    pthread_mutex_destroy(&record->mutex);
    for (HANDLE *handle :
         {&record->dataThread, &record->modemThread, &record->dataTrigger, &record->modemTrigger}) {
        if (*handle != 0) {
            vllCloseHandle(*handle);
            *handle = 0;
        }
    }
}

BOOL stopWatchers(OverlappedRecord *record, MutexLock *lock) {
    vllSetEvent(record->event);
    vllSleep(kStopGraceMs);
    const bool data_ended = terminateWatcher(record->dataThread);
    const bool modem_ended = terminateWatcher(record->modemThread);
    const int error = errno;
    if (!data_ended || !modem_ended) {
        vlliLogError(
            "VLL: SetCommMask: Failed to terminate WaitCommEvent background threads, data thread handle = "
            "%d, modem "
            "thread handle = %d\n",
            static_cast<int>(record->dataThread), static_cast<int>(record->modemThread));
    } else {
        vllEscapeCommFunction(record->fd, CLRDTR);
    }
    lock->unlock();
    tearDown(record);
    return Fail(error, data_ended && modem_ended);
}

// Reports a set-up that failed, now or earlier. A stop gives back what it made.
void endFailedSetUp(OverlappedRecord *record, DWORD mask, MutexLock *lock) {
    const KeepErrno keep_errno;
    vlliLogError("VLL: SetCommMask: Failed to initialize receive and modem threads\n");
    if (mask == 0) {
        terminateWatcher(record->dataThread);
        terminateWatcher(record->modemThread);
    }
    lock->unlock();
    if (mask == 0) {
        tearDown(record);
    } else if (isIdle(record)) {
        pthread_mutex_destroy(&record->mutex);
    }
}

// Arms the watchers for one cycle. Under the record's mutex.
void arm(OverlappedRecord *record, uint32_t *event_mask) {
    *event_mask = 0;
    record->eventMask = event_mask;
    vlliNoteModemCounters(record);
    vllSetEvent(record->dataTrigger);
    vllSetEvent(record->modemTrigger);
    vllResetEvent(record->event);
    errno = EINPROGRESS;
}

}  // namespace

BOOL vllSetCommMask(int32_t hFile, DWORD dwEvtMask, OverlappedRecord *overlapped) {
    if (overlapped == nullptr) {
        return Fail(EINVAL);
    }
    const NoCancel no_cancel;
    const bool idle = isIdle(overlapped);
    if (idle) {
        pthread_mutex_init(&overlapped->mutex, nullptr);
    }
    MutexLock lock(&overlapped->mutex);
    if (idle ? !setUp(hFile, dwEvtMask, overlapped) : hasFailedSetUp(overlapped)) {
        endFailedSetUp(overlapped, dwEvtMask, &lock);
        return FALSE;
    }
    overlapped->mask = dwEvtMask;
    return dwEvtMask != 0 || stopWatchers(overlapped, &lock);
}

BOOL vllWaitCommEvent(int32_t, uint32_t *lpEvtMask, OverlappedRecord *overlapped) {
    if (lpEvtMask == nullptr || overlapped == nullptr || isIdle(overlapped) || hasFailedSetUp(overlapped)) {
        return Fail(EINVAL);
    }
    const NoCancel no_cancel;
    DWORD signalled = vllWaitForSingleObject(overlapped->event, 0);
    if (signalled == WAIT_TIMEOUT) {
        const MutexLock lock(&overlapped->mutex);
        // What a watcher has reported meanwhile must not be forgotten with the last cycle's events.
        signalled = vllWaitForSingleObject(overlapped->event, 0);
        if (signalled == WAIT_TIMEOUT) {
            arm(overlapped, lpEvtMask);
            return FALSE;
        }
    }
    return signalled == WAIT_OBJECT_0 && vllResetEvent(overlapped->event);
}
