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

#include "base/blocking.h"
#include "base/failure.h"
#include "base/guards.h"
#include "base/log.h"
#include "net/commport.h"

#include <linux/serial.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <atomic>
#include <optional>

#include "process/thread.h"
#include "sync/event.h"
#include "vwincompat/process.h"
#include "vwincompat/wait.h"

namespace {

constexpr DWORD kWatcherStack = 24576;
constexpr DWORD kStopGraceMs = 100;
constexpr DWORD kStopExitCode = 0xFFFFFFFF;
constexpr int kLooks = 50;
constexpr int kLookMs = 10;

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

// Counters that cannot be read count as unchanged.
using Counters = std::optional<serial_icounter_struct>;

Counters readCounters(int port) {
    serial_icounter_struct counters = {};
    if (ioctl(port, TIOCGICOUNT, &counters) == -1) {
        return std::nullopt;
    }
    return counters;
}

// The counters of a record's port as they were when it was armed, or when a change was last reported. A record with a
// modem watcher has one; it stands here, as the record itself has no room. Guarded by the record's mutex.
struct KnownCounters {
    std::atomic<const OverlappedRecord *> record;
    Counters counters;
};

// Such a record takes three objects.
KnownCounters known_counters[kObjectCount / 3];

// Null for a record without a modem watcher.
KnownCounters *findKnown(const OverlappedRecord *record) {
    for (KnownCounters &known : known_counters) {
        if (known.record.load(std::memory_order_acquire) == record) {
            return &known;
        }
    }
    return nullptr;
}

void claimKnown(const OverlappedRecord *record) {
    for (KnownCounters &known : known_counters) {
        const OverlappedRecord *nobody = nullptr;
        if (known.record.compare_exchange_strong(nobody, record)) {
            return;
        }
    }
}

void releaseKnown(const OverlappedRecord *record) {
    if (KnownCounters *known = findKnown(record)) {
        known->counters.reset();
        known->record.store(nullptr, std::memory_order_release);
    }
}

void noteCounters(const OverlappedRecord *record, const Counters &counters) {
    if (KnownCounters *known = findKnown(record)) {
        known->counters = counters;
    }
}

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
        claimKnown(record);
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
    releaseKnown(record);
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

// The events of the mask whose counters changed.
uint32_t changedEvents(uint32_t mask, const Counters &before, const Counters &after) {
    uint32_t events = 0;
    for (const ModemEvent &modem : kModemEvents) {
        if (before && after && (mask & modem.event) != 0 &&
            (*before).*modem.counter != (*after).*modem.counter) {
            events |= modem.event;
        }
    }
    return events;
}

int watchedLines(uint32_t mask) {
    int lines = 0;
    for (const ModemEvent &modem : kModemEvents) {
        lines |= (mask & modem.event) != 0 ? modem.line : 0;
    }
    return lines;
}

// Sets events in the caller's variable and signals the caller's event. Under the record's mutex.
void report(OverlappedRecord *record, uint32_t events) {
    if (record->eventMask != nullptr) {
        *record->eventMask |= events;
        vllSetEvent(record->event);
    }
}

// Reports the modem events since then: false when there is none. They are old news to the next cycle.
bool reportChangesSince(const Counters &before, OverlappedRecord *record) {
    const MutexLock lock(&record->mutex);
    const Counters now = readCounters(record->fd);
    const uint32_t events = changedEvents(record->mask, before, now);
    if (events == 0) {
        return false;
    }
    noteCounters(record, now);
    report(record, events);
    return true;
}

// The mask in force, read as the application thread may change it meanwhile.
uint32_t maskInForce(OverlappedRecord *record) {
    const MutexLock lock(&record->mutex);
    return record->mask;
}

// Under the record's mutex.
void arm(OverlappedRecord *record, uint32_t *event_mask) {
    *event_mask = 0;
    record->eventMask = event_mask;
    if (record->modemThread != 0) {
        noteCounters(record, readCounters(record->fd));
    }
    vllSetEvent(record->dataTrigger);
    vllSetEvent(record->modemTrigger);
    vllResetEvent(record->event);
    errno = EINPROGRESS;
}

// One armed cycle of the modem watcher: until a watched counter has changed since then, or the port fails.
//
// TIOCMIWAIT tells of what happens while it blocks, with some drivers also of a transition from before arming, which
// is used up here. What happens between arming and blocking shows in the counters alone, and what happens while a
// driver puts the thread to sleep wakes nobody. As lines mostly change in answer to what the armed application does
// next, the watcher looks at the counters itself for half a second before it blocks.
void watchModem(OverlappedRecord *record) {
    Counters before;
    {
        const MutexLock lock(&record->mutex);
        const KnownCounters *known = findKnown(record);
        before = known != nullptr ? known->counters : readCounters(record->fd);
    }
    for (int look = 0; before && look < kLooks; ++look) {
        if (reportChangesSince(before, record)) {
            return;
        }
        vlliBlockInPoll(nullptr, 0, kLookMs);
    }
    while (!reportChangesSince(before, record)) {
        const int result = vlliBlockInModemWait(record->fd, watchedLines(maskInForce(record)));
        if ((result == -1 && errno != EINTR) || (result != -1 && !before)) {
            reportChangesSince(before, record);
            return;
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
            const MutexLock lock(&record->mutex);
            report(record, EV_RXCHAR);
        }
    }
    return 0;
}

uint32_t vlliWaitForModem(LPVOID overlapped) {
    auto *record = static_cast<OverlappedRecord *>(overlapped);
    while (vllWaitForSingleObject(record->modemTrigger, INFINITE) == WAIT_OBJECT_0) {
        watchModem(record);
    }
    return 0;
}

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
