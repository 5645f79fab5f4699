// Serial ports: the watchers, two threads per record that turn data and modem-line changes into events.
//
// The watchers are cancelled by whoever stops them. They block where they own nothing: in poll(2), which acts on a
// cancellation, and in TIOCMIWAIT, which does so only while the thread is asynchronously cancellable, as it is for
// just this call. They take locks with deferred cancellation, and no call under a lock acts on one.

#include <link.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <algorithm>

#include "base/blocking.h"
#include "base/failure.h"
#include "base/guards.h"
#include "base/program.h"
#include "net/commport.h"
#include "vwincompat/event.h"
#include "vwincompat/thread.h"
#include "vwincompat/wait.h"

namespace {

constexpr size_t kWatcherStack = 24576;
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

// Adds the size of one loaded object's thread-local data.
int addThreadLocalSize(dl_phdr_info *object, size_t, void *sum) {
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        const auto &header = object->dlpi_phdr[i];
        if (header.p_type == PT_TLS) {
            *static_cast<size_t *>(sum) += header.p_memsz + header.p_align;
        }
    }
    return 0;
}

// The C library places the thread-local data of program and libraries on every thread's stack.
DWORD watcherStackSize() {
    size_t thread_local_size = 0;
    dl_iterate_phdr(addThreadLocalSize, &thread_local_size);
    const long least = sysconf(_SC_THREAD_STACK_MIN);
    const size_t stack = std::max(kWatcherStack, least > 0 ? static_cast<size_t>(least) : 0);
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return static_cast<DWORD>((stack + thread_local_size + page - 1) / page * page);
}

// The stack is too small for the signal handlers of an application.
HANDLE startWatcher(LPTHREAD_START_ROUTINE routine, OverlappedRecord *record) {
    const BlockSignals blocked;
    return vllCreateThread(watcherStackSize(), routine, record, nullptr, 0);
}

// The events of the mask whose counters changed.
uint32_t changedEvents(uint32_t mask, const ModemCounters &before, const ModemCounters &after) {
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

// Sets events in the caller's variable and signals the caller's event, unless the record is being stopped. Under the
// record's mutex.
void report(OverlappedRecord *record, uint32_t events) {
    if (record->mask != 0 && record->eventMask != nullptr) {
        *record->eventMask |= events;
        vllSetEvent(record->event);
    }
}

// Reports the modem events since the given counters, which the next cycle does not report again. False when there are
// none.
bool reportChangesSince(const ModemCounters &before, OverlappedRecord *record) {
    const WatchUse watch(record);
    const MutexLock lock(&record->mutex);
    const ModemCounters now = vlliReadModemCounters(record->fd);
    const uint32_t events = changedEvents(record->mask, before, now);
    if (events == 0) {
        return false;
    }
    watch.get()->counters = now;
    report(record, events);
    return true;
}

// The mask in force, read under the lock since the application may change it meanwhile.
uint32_t maskInForce(OverlappedRecord *record) {
    const MutexLock lock(&record->mutex);
    return record->mask;
}

ModemCounters countersAtArming(OverlappedRecord *record) {
    const WatchUse watch(record);
    const MutexLock lock(&record->mutex);
    return watch.get()->counters;
}

// One armed cycle of the modem watcher: until a watched counter has changed since the arming, or the port fails.
//
// TIOCMIWAIT returns for transitions while it blocks, and with some drivers also for one from before the arming, after
// which the cycle goes on. A transition between arming and blocking shows in the counters alone, and one while the
// driver puts the thread to sleep wakes nobody. As lines mostly change in answer to what the application does right
// after arming, the watcher reads the counters itself for half a second before it blocks.
void watchModem(OverlappedRecord *record) {
    const ModemCounters before = countersAtArming(record);
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

HANDLE vlliStartDataWatcher(OverlappedRecord *record) {
    return startWatcher(vlliWaitForData, record);
}

HANDLE vlliStartModemWatcher(OverlappedRecord *record) {
    return startWatcher(vlliWaitForModem, record);
}

ModemCounters vlliReadModemCounters(int port) {
    serial_icounter_struct counters = {};
    if (ioctl(port, TIOCGICOUNT, &counters) == -1) {
        return std::nullopt;
    }
    return counters;
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
