// Network events of sockets: selecting, enumerating, and asking for write readiness again.

#include "net/wsasockets.h"

#include <sys/epoll.h>
#include <cinttypes>

#include "base/descriptor.h"
#include "base/failure.h"
#include "base/log.h"
#include "core/ref.h"
#include "sync/event.h"

static_assert(sizeof(WSASockData) == 40 && offsetof(WSASockData, hEventObject) == 12 &&
              offsetof(WSASockData, iErrorCode) == 20);
static_assert(sizeof(WSANETWORKEVENTS) == 24);

namespace {

constexpr int32_t kAllEvents = FD_READ | FD_WRITE | FD_ACCEPT | FD_CONNECT | FD_CLOSE;

// What became of a record's earlier selection.
struct EarlierSelection {
    const ObjectRecord *event;  // the event that it was in, for the log
    bool removed;               // false: the socket could not leave the event's set
    int error;
};

// Ends the record's earlier selection. Another socket leaves its event's set without a log line. Pending events stay
// only when the same socket is selected again and the event's handle is still open.
EarlierSelection endEarlierSelection(WSASockData *record, SOCKET socket) {
    EarlierSelection earlier = {nullptr, true, 0};
    if (record->lNetworkEvents == 0 || record->socket != socket) {
        const KeepErrno keep_errno;
        vlliLeaveSocketSet(record);
        *record = {};
        return earlier;
    }
    const Ref<OBJ_EVENT> event(record->hEventObject, Refusal::kUnchanged);
    earlier.event = event.get();
    earlier.removed = vlliLeaveSocketSet(record);
    if (!earlier.removed) {
        earlier.error = errno;
        vlliLogError(
            "VLLI: WSAEventSelect: epoll_ctl( event->efd = %d, EPOLL_CTL_DEL, sock = %d, NULL ) = %d, "
            "errno = %d\n",
            event ? event->efd : -1, socket, -1, errno);
    }
    if (event) {
        record->state = SOCK_STATE_NONE;
    } else {
        *record = {};
    }
    return earlier;
}

int32_t enterSelection(SOCKET socket, HANDLE handle, const ObjectRecord *event, int32_t mask,
                       WSASockData *record) {
    if (vlliSetNonBlocking(socket) == -1) {
        vlliLogError("VLLI: WSAEventSelect: fcntl (sock, F_SETFL, O_NONBLOCK) == -1, errno = %d\n", errno);
        return SOCKET_ERROR;
    }
    record->socket = socket;
    record->hEventObject = handle;
    record->lNetworkEvents = mask;
    vlliSetSocketActivityHandler(vlliTakeSocketActivity);
    if (vlliEnterSocketSet(event, record, vlliInitialReadiness(record)) == -1) {
        record->socket = 0;
        record->hEventObject = 0;
        record->lPendingEvents = 0;
        vlliLogError(
            "VLLI: WSAEventSelect: epoll_ctl( event->efd = %d, EPOLL_CTL_ADD, sock = %d, &eevent ) = %d, "
            "errno = %d\n",
            event->efd, socket, -1, errno);
        return SOCKET_ERROR;
    }
    return 0;
}

}  // namespace

int32_t vllWSAEventSelect(SOCKET socket, HANDLE hEventObject, int32_t lNetworkEvent, WSASockData *record) {
    if ((lNetworkEvent & ~kAllEvents) != 0) {
        vlliLogError("VLLI: WSAEventSelect: lNetworkEvent = 0x%08X\n", static_cast<unsigned>(lNetworkEvent));
        return Fail(EINVAL, SOCKET_ERROR);
    }
    if (record == nullptr) {
        return Fail(EINVAL, SOCKET_ERROR);
    }
    const EarlierSelection earlier = endEarlierSelection(record, socket);
    const Ref<OBJ_EVENT> event(hEventObject, Refusal::kUnopened);
    if (!event) {
        vlliLogError("VLLI: WSAEventSelect: hEventObject = 0x%08X, event = 0x%08" PRIXPTR "\n", hEventObject,
                     reinterpret_cast<uintptr_t>(earlier.event));
        return Fail(EINVAL, SOCKET_ERROR);
    }
    if (lNetworkEvent == 0) {
        errno = earlier.removed ? errno : earlier.error;
        return earlier.removed ? 0 : SOCKET_ERROR;
    }
    return enterSelection(socket, hEventObject, event.get(), lNetworkEvent, record);
}

int32_t vllWSAEnumNetworkEvents(WSASockData *record, HANDLE hEventObject, WSANETWORKEVENTS *events) {
    if (record == nullptr || events == nullptr) {
        return Fail(EINVAL, SOCKET_ERROR);
    }
    *events = {};
    const bool is_event = Ref<OBJ_EVENT>::names(hEventObject);
    if (is_event) {
        const Ref<OBJ_EVENT> event(hEventObject);
        if (!event || record->hEventObject != hEventObject) {
            return Fail(EINVAL, SOCKET_ERROR);
        }
    }
    const int32_t reported = record->lNetworkEvents & record->lPendingEvents;
    for (int bit = 0; bit < FD_MAX_EVENTS; ++bit) {
        if ((reported & (1 << bit)) != 0) {
            events->iErrorCode[bit] = record->iErrorCode[bit];
            record->iErrorCode[bit] = 0;
        }
    }
    events->lNetworkEvents = reported;
    record->lPendingEvents &= ~reported;
    return !is_event || vllResetEvent(hEventObject) ? 0 : SOCKET_ERROR;
}

void vllWSAEnableWriteEvent(WSASockData *record) {
    if (record == nullptr) {
        vlliLogError("VLLI: WSAEnableWriteEvent: WSASockData == NULL\n");
        return;
    }
    const Ref<OBJ_EVENT> event(record->hEventObject, Refusal::kUnchanged);
    if (!event) {
        vlliLogError("VLLI: WSAEnableWriteEvent: S%d unable to open E%08X\n", record->socket,
                     record->hEventObject);
        return;
    }
    uint32_t readiness = vlliReadReadiness(record);
    const int32_t write_events = record->state == SOCK_STATE_CONNECTED ? FD_WRITE : FD_WRITE | FD_CONNECT;
    if ((record->lNetworkEvents & write_events) != 0) {
        readiness |= EPOLLOUT;
    }
    if (vlliChangeSocketReadiness(event.get(), record, readiness) == -1) {
        vlliLogError(
            "VLLI: WSAEnableWriteEvent: epoll_ctl( event->efd = %d, EPOLL_CTL_MOD, WSASockData->socket = "
            "%d, &eevent ) = %d, errno = %d\n",
            event->efd, record->socket, -1, errno);
    }
}

void vllWSAReactivate(WSASockData *) {}
