// Events. The counter of an eventfd is the signal. Beside it every event has an epoll set, which holds the sockets
// whose activity signals it.

#include "sync/event.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <atomic>
#include <cstring>

#include "base/counter.h"
#include "base/descriptor.h"
#include "base/failure.h"
#include "base/log.h"
#include "core/ref.h"

namespace {

// The size hint of an event's set of sockets.
constexpr int kSocketSetHint = 2;

std::atomic<SocketActivityHandler> socket_activity_handler{nullptr};

// The sets of the events, by record index: 0 for a record that is no event. They stand here, since the layout of the
// records is fixed.
std::atomic<uint32_t> socket_sets[kObjectCount];
std::atomic<uint32_t> last_socket_set{0};

std::atomic<uint32_t> &socketSetOf(const ObjectRecord *event) {
    return socket_sets[event - objects];
}

uint32_t newSocketSet() {
    uint32_t set;
    do {
        set = ++last_socket_set;
    } while (set == 0 || vlliFindEventOfSocketSet(set) != 0);
    return set;
}

BOOL makeDescriptors(ObjectRecord *event, bool signalled) {
    event->fd = eventfd(signalled ? 1 : 0, 0);
    if (event->fd == -1 || vlliSetNonBlocking(event->fd) == -1) {
        return FALSE;
    }
    event->efd = epoll_create(kSocketSetHint);
    socketSetOf(event) = newSocketSet();
    return event->efd != -1;
}

}  // namespace

HANDLE vllCreateEvent(BOOL bManualReset, BOOL bInitialState, LPCSTR lpName) {
    if (lpName != nullptr) {
        vlliLogError("VLL: CreateEvent: Named events not supported\n");
        return 0;
    }
    NewHandle handle(vlliCreateObject(OBJ_EVENT));
    if (!handle) {
        return 0;
    }
    ObjectRecord *event = handle.record();
    event->fd = -1;
    event->efd = -1;
    event->flags = bManualReset == 0 ? OBJF_AUTO_RESET : 0;
    if (!makeDescriptors(event, bInitialState != 0)) {
        vlliLogError("VLL: CreateEvent: ERROR: event->fd = %d, event->efd =%d, errno = %d[%s]\n", event->fd,
                     event->efd, errno, strerror(errno));
        return 0;
    }
    return handle.release();
}

HANDLE vllOpenEvent(LPCSTR) {
    vlliLogError("VLL: OpenEvent: Named events not supported\n");
    return 0;
}

BOOL vllSetEvent(HANDLE hEvent) {
    const Ref<OBJ_EVENT> event(hEvent, Refusal::kUnchanged);
    return event && vlliRaiseCounter(event->fd);
}

BOOL vllResetEvent(HANDLE hEvent) {
    const Ref<OBJ_EVENT> event(hEvent, Refusal::kUnchanged);
    if (!event) {
        return FALSE;
    }
    const int last_error = errno;
    if (vlliTakeCounter(event->fd) == sizeof(uint64_t)) {
        return TRUE;
    }
    return errno == EAGAIN ? Fail(last_error, TRUE) : FALSE;  // EAGAIN: it was not signalled
}

int32_t vllGetEventFd(HANDLE hEvent) {
    const Ref<OBJ_EVENT> event(hEvent, Refusal::kUnopened);
    return event ? event->fd : -1;
}

BOOL vlliCloseEvent(ObjectRecord *record) {
    socketSetOf(record) = 0;
    Fd fd(record->fd);
    Fd efd(record->efd);
    return TRUE;
}

BOOL vlliDuplicateEvent(ObjectRecord *record, const ObjectRecord *source) {
    record->efd = -1;
    record->flags = source->flags;
    record->fd = dup(source->fd);
    if (record->fd != -1) {
        record->efd = dup(source->efd);
    }
    if (record->efd == -1) {
        vlliLogError("VLLI: DuplicateEvent: new->fd = %d, new->efd\n", record->fd);
        return FALSE;
    }
    socketSetOf(record) = vlliSocketSetOf(source);
    return TRUE;
}

void vlliSetSocketActivityHandler(SocketActivityHandler handler) {
    socket_activity_handler.store(handler, std::memory_order_release);
}

SocketActivityHandler vlliSocketActivityHandler() {
    return socket_activity_handler.load(std::memory_order_acquire);
}

uint32_t vlliSocketSetOf(const ObjectRecord *event) {
    return socketSetOf(event);
}

HANDLE vlliFindEventOfSocketSet(uint32_t set) {
    for (uint32_t i = 0; i < kObjectCount; ++i) {
        if (socket_sets[i].load(std::memory_order_relaxed) == set) {
            return OBJ_EVENT | i;
        }
    }
    return 0;
}
