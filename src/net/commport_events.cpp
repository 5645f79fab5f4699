// Serial ports: setting a record's event mask, which starts and stops its watchers, and waiting for events.
//
// A record is set up while it has any watcher or trigger, and its mutex lives exactly as long. A record without any is
// idle. A mask of 0 in a record that is set up marks a set-up that failed, which only a stop ends, or a stop that is
// under way; any other mask is in force.

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

constexpr DWORD kStopGraceMs = 100;
constexpr DWORD kStopExitCode = 0xFFFFFFFF;

bool isIdle(const OverlappedRecord *record) {
    return record->dataThread == 0 && record->modemThread == 0 && record->dataTrigger == 0 &&
           record->modemTrigger == 0;
}

bool hasFailedSetUp(const OverlappedRecord *record) {
    return record->mask == 0;
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
        record->dataThread = vlliStartDataWatcher(record);
        if (record->dataThread == 0) {
            return false;
        }
    }
    if ((mask & kModemEventMask) != 0) {
        record->modemThread = vlliStartModemWatcher(record);
        if (record->modemThread == 0) {
            return false;
        }
    }
    return vlliBeginWatch(record);
}

// Cancels the watchers and waits until they have ended. False with errno when one could not be cancelled: such a thread
// has ended, or is the parent's and not in this process.
bool endWatchers(const OverlappedRecord *record) {
    bool ended = true;
    for (const HANDLE thread : {record->dataThread, record->modemThread}) {
        if (thread != 0 && !vllTerminateThread(thread, kStopExitCode)) {
            ended = false;
        } else if (thread != 0) {
            vllWaitForSingleObject(thread, INFINITE);
        }
    }
    return ended;
}

// Gives back what the set-up made. The record is idle afterwards.
void tearDown(OverlappedRecord *record) {
    vlliEndWatch(record);
    pthread_mutex_destroy(&record->mutex);
    for (HANDLE *handle :
         {&record->dataThread, &record->modemThread, &record->dataTrigger, &record->modemTrigger}) {
        if (*handle != 0) {
            vllCloseHandle(*handle);
            *handle = 0;
        }
    }
}

// The mask is 0 already, so that nothing is reported any more.
BOOL stopWatchers(OverlappedRecord *record) {
    vllSleep(kStopGraceMs);
    const bool ended = endWatchers(record);
    const int error = errno;
    if (!ended) {
        vlliLogError(
            "VLL: SetCommMask: Failed to terminate WaitCommEvent background threads, data thread handle = "
            "%d, modem thread handle = %d\n",
            static_cast<int>(record->dataThread), static_cast<int>(record->modemThread));
    } else {
        vllEscapeCommFunction(record->fd, CLRDTR);
    }
    tearDown(record);
    return Fail(error, ended);
}

// Reports a set-up that failed, now or earlier. A stop gives back what it made.
void endFailedSetUp(OverlappedRecord *record, DWORD mask, MutexLock *lock) {
    const KeepErrno keep_errno;
    vlliLogError("VLL: SetCommMask: Failed to initialize receive and modem threads\n");
    lock->unlock();
    if (mask == 0) {
        endWatchers(record);
        tearDown(record);
    } else if (isIdle(record)) {
        pthread_mutex_destroy(&record->mutex);
    }
}

// Arms the watchers for one cycle. Under the record's mutex.
void arm(OverlappedRecord *record, Watch *watch, uint32_t *event_mask) {
    *event_mask = 0;
    record->eventMask = event_mask;
    if (record->modemThread != 0) {
        watch->counters = vlliReadModemCounters(record->fd);
    }
    vllSetEvent(record->dataTrigger);
    vllSetEvent(record->modemTrigger);
    vllResetEvent(record->event);
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
    if (dwEvtMask != 0) {
        return TRUE;
    }
    vllSetEvent(overlapped->event);
    lock.unlock();
    return stopWatchers(overlapped);
}

BOOL vllWaitCommEvent(int32_t, uint32_t *lpEvtMask, OverlappedRecord *overlapped) {
    if (lpEvtMask == nullptr || overlapped == nullptr) {
        return Fail(EINVAL);
    }
    const NoCancel no_cancel;
    const WatchUse watch(overlapped);
    if (!watch) {
        return Fail(EINVAL);
    }
    // The watchers report under the lock, so that no event is lost between the look and the arming.
    const MutexLock lock(&overlapped->mutex);
    const DWORD signalled = vllWaitForSingleObject(overlapped->event, 0);
    if (signalled == WAIT_OBJECT_0) {
        if (overlapped->eventMask == nullptr) {
            *lpEvtMask = 0;
        }
        return vllResetEvent(overlapped->event);
    }
    if (signalled != WAIT_TIMEOUT) {
        return FALSE;
    }
    if (overlapped->mask == 0) {
        return Fail(EINVAL);
    }
    arm(overlapped, watch.get(), lpEvtMask);
    return Fail(EINPROGRESS);
}
