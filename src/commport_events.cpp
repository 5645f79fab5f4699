// Serial ports: waiting for events.
//
// A record is set up while it has any watcher or trigger: its mutex lives exactly as long. Words of the record
// that tell its state: no trigger, no watcher is idle; a mask of 0 beside them is a set-up that failed, which only
// a stop ends; any other mask is in force.
//
// The watchers are cancelled by whoever stops them. They block in the room of internal_blocking.c, where
// nothing is owned: in poll(2), which acts on a cancellation, and in TIOCMIWAIT, which does so only while the
// thread is asynchronously cancellable, so it is that for just this call. Locks are taken with deferred
// cancellation, and no call under them acts on it.

#include "commport.h"

#include <linux/serial.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <atomic>
#include <optional>

#include "event.h"
#include "internal_blocking.h"
#include "thread.h"
#include "vwincompat/process.h"
#include "vwincompat/wait.h"

namespace {

constexpr DWORD kWatcherStack = 24576;
constexpr DWORD kStopGraceMs = 100;
constexpr DWORD kStopExitCode = 0xFFFFFFFF;

struct ModemEvent {
    uint32_t event;
    int line;
    int serial_icounter_struct::*counter;
};

constexpr ModemEvent kModemEvents[] = {
    {EV_CTS, TIOCM_CTS, &serial_icounter_struct::cts},
    {EV_DSR, TIOCM_DSR, &serial_icounter_struct::dsr},
    {EV_RING, TIOCM_RNG, &serial_icounter_struct::rng},
    {EV_RLSD, TIOCM_CAR, &serial_icounter_struct::dcd},
};
constexpr uint32_t kModemMask = EV_CTS | EV_DSR | EV_RING | EV_RLSD;

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

// Makes the triggers and the watchers that the first mask asks for. False with errno when one is missing.
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
    if ((mask & kModemMask) != 0) {
        record->modemThread = startWatcher(vlliWaitForModem, record);
        if (record->modemThread == 0) {
            return false;
        }
    }
    return true;
}

// Asks a watcher to end. True also when there is none.
bool terminateWatcher(HANDLE thread) {
    return thread == 0 || vllTerminateThread(thread, kStopExitCode);
}

// Waits until the watchers are gone, then gives everything back. The record is idle afterwards.
void tearDown(OverlappedRecord *record) {
    for (HANDLE *thread : {&record->dataThread, &record->modemThread}) {
        if (*thread != 0) {
            vllWaitForSingleObject(*thread, INFINITE);
        }
    }
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
    errno = error;
    return data_ended && modem_ended;
}

// A set-up that failed, now or earlier: a stop still gives back what it made.
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

// Sets events in the caller's variable and signals the caller's event, under the record's mutex.
void reportEvents(OverlappedRecord *record, uint32_t events) {
    const MutexLock lock(&record->mutex);
    if (record->eventMask == nullptr) {
        return;
    }
    *record->eventMask |= events;
    if (events == EV_RXCHAR || (*record->eventMask & kModemMask) != 0) {
        vllSetEvent(record->event);
    }
}

// The mask in force, read as the application thread may change it meanwhile.
uint32_t maskInForce(OverlappedRecord *record) {
    const MutexLock lock(&record->mutex);
    return record->mask;
}

int watchedLines(uint32_t mask) {
    int lines = 0;
    for (const ModemEvent &modem : kModemEvents) {
        lines |= (mask & modem.event) != 0 ? modem.line : 0;
    }
    return lines;
}

// Counters that cannot be read count as unchanged.
std::optional<serial_icounter_struct> readCounters(int port) {
    serial_icounter_struct counters = {};
    if (ioctl(port, TIOCGICOUNT, &counters) == -1) {
        return std::nullopt;
    }
    return counters;
}

// The events of the mask whose counters changed.
uint32_t changedEvents(uint32_t mask, const std::optional<serial_icounter_struct> &before,
                       const std::optional<serial_icounter_struct> &after) {
    uint32_t events = 0;
    for (const ModemEvent &modem : kModemEvents) {
        if (before && after && (mask & modem.event) != 0 &&
            (*before).*modem.counter != (*after).*modem.counter) {
            events |= modem.event;
        }
    }
    return events;
}

// One armed cycle of the modem watcher: until a watched counter has changed or the port fails. TIOCMIWAIT may
// return for a transition from before, which is used up here.
uint32_t waitForModemEvents(OverlappedRecord *record) {
    const std::optional<serial_icounter_struct> before = readCounters(record->fd);
    for (;;) {
        const uint32_t mask = maskInForce(record);
        const int result = vlliBlockInModemWait(record->fd, watchedLines(mask));
        if (result == -1 && errno == EINTR) {
            continue;
        }
        const uint32_t events = changedEvents(mask, before, readCounters(record->fd));
        if (events != 0 || result == -1 || !before) {
            return events;
        }
    }
}

}  // namespace

uint32_t vlliWaitForData(LPVOID overlapped) {
    auto *record = static_cast<OverlappedRecord *>(overlapped);
    while (vllWaitForSingleObject(record->dataTrigger, INFINITE) == WAIT_OBJECT_0) {
        pollfd port = {record->fd, POLLIN, 0};
        int ready;
        do {
            ready = vlliBlockInPoll(&port, 1, -1);
        } while (ready == -1 && errno == EINTR);
        if (ready == 1) {
            reportEvents(record, EV_RXCHAR);
        }
    }
    return 0;
}

uint32_t vlliWaitForModem(LPVOID overlapped) {
    auto *record = static_cast<OverlappedRecord *>(overlapped);
    while (vllWaitForSingleObject(record->modemTrigger, INFINITE) == WAIT_OBJECT_0) {
        const uint32_t events = waitForModemEvents(record);
        if (events != 0) {
            reportEvents(record, events);
        }
    }
    return 0;
}

BOOL vllSetCommMask(int32_t hFile, DWORD dwEvtMask, OverlappedRecord *overlapped) {
    if (overlapped == nullptr) {
        errno = EINVAL;
        return FALSE;
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
        errno = EINVAL;
        return FALSE;
    }
    const NoCancel no_cancel;
    const DWORD signalled = vllWaitForSingleObject(overlapped->event, 0);
    if (signalled == WAIT_OBJECT_0) {
        return vllResetEvent(overlapped->event);
    }
    if (signalled == WAIT_FAILED) {
        return FALSE;
    }
    const MutexLock lock(&overlapped->mutex);
    *lpEvtMask = 0;
    overlapped->eventMask = lpEvtMask;
    vllSetEvent(overlapped->dataTrigger);
    vllSetEvent(overlapped->modemTrigger);
    vllResetEvent(overlapped->event);
    errno = EINPROGRESS;
    return FALSE;
}
