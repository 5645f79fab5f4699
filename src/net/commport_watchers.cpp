// Serial ports: the watchers, two threads per record that turn data and modem-line changes into events.
//
// The watchers are cancelled by whoever stops them. They block where they own nothing: in poll(2), which acts on a
// cancellation, and in TIOCMIWAIT, which does so only while the thread is asynchronously cancellable, as it is for
// just this call. They take locks with deferred cancellation, and no call under a lock acts on one.

#include <linux/serial.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <atomic>
#include <optional>

#include "base/blocking.h"
#include "base/failure.h"
#include "base/guards.h"
#include "core/objmem.h"
#include "net/commport.h"
#include "vwincompat/event.h"
#include "vwincompat/wait.h"

namespace {

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

// The driver's counters of modem-line transitions. Those that cannot be read count as unchanged.
using Counters = std::optional<serial_icounter_struct>;

Counters readCounters(int port) {
    serial_icounter_struct counters = {};
    if (ioctl(port, TIOCGICOUNT, &counters) == -1) {
        return std::nullopt;
    }
    return counters;
}

// The counters of a record's port as they were when it was armed, or when a change was last reported. They stand here,
// since the layout of the record is fixed. Guarded by the record's mutex.
struct KnownCounters {
    std::atomic<const OverlappedRecord *> record{nullptr};
    Counters counters;
};

// A record with a modem watcher takes at least three objects.
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

// Reports the modem events since the given counters, which the next cycle does not report again. False when there are
// none.
bool reportChangesSince(const Counters &before, OverlappedRecord *record) {
    const MutexLock lock(&record->mutex);
    const Counters now = readCounters(record->fd);
    const uint32_t events = changedEvents(record->mask, before, now);
    if (events == 0) {
        return false;
    }
    if (KnownCounters *known = findKnown(record)) {
        known->counters = now;
    }
    report(record, events);
    return true;
}

// The mask in force, read under the lock since the application may change it meanwhile.
uint32_t maskInForce(OverlappedRecord *record) {
    const MutexLock lock(&record->mutex);
    return record->mask;
}

Counters countersAtArming(OverlappedRecord *record) {
    const MutexLock lock(&record->mutex);
    const KnownCounters *known = findKnown(record);
    return known != nullptr ? known->counters : std::nullopt;
}

// One armed cycle of the modem watcher: until a watched counter has changed since the arming, or the port fails.
//
// TIOCMIWAIT returns for transitions while it blocks, and with some drivers also for one from before the arming, after
// which the cycle goes on. A transition between arming and blocking shows in the counters alone, and one while the
// driver puts the thread to sleep wakes nobody. As lines mostly change in answer to what the application does right
// after arming, the watcher reads the counters itself for half a second before it blocks.
void watchModem(OverlappedRecord *record) {
    const Counters before = countersAtArming(record);
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

void vlliKeepModemCounters(const OverlappedRecord *record) {
    for (KnownCounters &known : known_counters) {
        const OverlappedRecord *nobody = nullptr;
        if (known.record.compare_exchange_strong(nobody, record)) {
            return;
        }
    }
}

void vlliNoteModemCounters(const OverlappedRecord *record) {
    if (KnownCounters *known = findKnown(record)) {
        known->counters = readCounters(record->fd);
    }
}

void vlliDropModemCounters(const OverlappedRecord *record) {
    if (KnownCounters *known = findKnown(record)) {
        known->counters.reset();
        known->record.store(nullptr, std::memory_order_release);
    }
}

uint32_t vlliWaitForData(LPVOID overlapped) {
    auto *record = static_cast<OverlappedRecord *>(overlapped);
    while (vllWaitForSingleObject(record->dataTrigger, INFINITE) == WAIT_OBJECT_0) {
        pollfd port = {record->fd, POLLIN, 0};
        if (vlliRetryOnEintr([&] { return vlliBlockInPoll(&port, 1, -1); }) == 1) {
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
