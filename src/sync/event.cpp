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

BOOL makeDescriptors(ObjectRecord *event, bool signalled) {
    event->fd = eventfd(signalled ? 1 : 0, 0);
    if (event->fd == -1 || vlliSetNonBlocking(event->fd) == -1) {
        return FALSE;
    }
    event->efd = epoll_create(kSocketSetHint);
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
    return TRUE;
}

void vlliSetSocketActivityHandler(SocketActivityHandler handler) {
    socket_activity_handler.store(handler, std::memory_order_release);
}

SocketActivityHandler vlliSocketActivityHandler() {
    return socket_activity_handler.load(std::memory_order_acquire);
}
