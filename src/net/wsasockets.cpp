// Socket network events. The socket stands in the epoll set of its event, with the caller's selection record as
// the event data; a wait that finds the set ready hands the readiness to vlliWsaProcessNetworkEvents().

#include "net/wsasockets.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <cinttypes>

#include "base/blocking.h"
#include "base/descriptor.h"
#include "base/failure.h"
#include "base/guards.h"
#include "base/log.h"
#include "core/ref.h"
#include "sync/event.h"

static_assert(sizeof(WSASockData) == 40 && offsetof(WSASockData, hEventObject) == 12 &&
              offsetof(WSASockData, iErrorCode) == 20);
static_assert(sizeof(WSANETWORKEVENTS) == 24);
static_assert(sizeof(WSABUF) == sizeof(iovec) && offsetof(WSABUF, buf) == offsetof(iovec, iov_base) &&
              offsetof(WSABUF, len) == offsetof(iovec, iov_len));

namespace {

constexpr int32_t kAllEvents = FD_READ | FD_WRITE | FD_ACCEPT | FD_CONNECT | FD_CLOSE;

int changeSet(const ObjectRecord *event, int operation, int socket, uint32_t readiness, WSASockData *record) {
    epoll_event change = {};
    change.events = readiness;
    change.data.ptr = record;
    return epoll_ctl(event->efd, operation, socket, &change);
}

uint32_t readReadiness(const WSASockData *record) {
    return (record->lNetworkEvents & (FD_READ | FD_ACCEPT)) != 0 ? EPOLLIN : 0U;
}

// Takes a socket out of a set. True also when it had left before.
bool removeFromSet(const ObjectRecord *event, int socket) {
    return epoll_ctl(event->efd, EPOLL_CTL_DEL, socket, nullptr) == 0 || errno == ENOENT;
}

// What became of a record's earlier selection.
struct EarlierSelection {
    const ObjectRecord *event;  // the event it was in, for the log
    bool removed;               // false: the socket could not leave the event's set
    int error;
};

// Another socket takes the record over: the old one leaves its event's set, if both still exist, without a word.
// A closed one has left it before, and its number may by now stand there for a socket of another record.
void abandonSelection(WSASockData *record) {
    if (record->lNetworkEvents != 0 && record->state != SOCK_STATE_CLOSED) {
        const Ref<OBJ_EVENT> event(record->hEventObject, Refusal::kSilent);
        if (event) {
            removeFromSet(event.get(), record->socket);
        }
    }
    *record = {};
}

// The record's earlier selection ends. What is pending stays only when the same socket is selected again.
EarlierSelection endEarlierSelection(WSASockData *record, SOCKET socket) {
    EarlierSelection earlier = {nullptr, true, 0};
    if (record->lNetworkEvents == 0 || record->socket != socket) {
        abandonSelection(record);
        return earlier;
    }
    const Ref<OBJ_EVENT> event(record->hEventObject, Refusal::kUnchanged);
    if (!event) {
        *record = {};
        return earlier;
    }
    earlier.event = event.get();
    if (!removeFromSet(event.get(), socket)) {
        earlier.removed = false;
        earlier.error = errno;
        vlliLogError(
            "VLLI: WSAEventSelect: epoll_ctl( event->efd = %d, EPOLL_CTL_DEL, sock = %d, NULL ) = %d, "
            "errno = %d\n",
            event->efd, socket, -1, errno);
    }
    record->state = SOCK_STATE_NONE;
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
    uint32_t readiness = readReadiness(record);
    if ((mask & (FD_WRITE | FD_CONNECT)) != 0) {
        readiness |= EPOLLOUT;
    }
    vlliSetSocketActivityHandler(vlliWsaProcessNetworkEvents);
    if (changeSet(event, EPOLL_CTL_ADD, socket, readiness, record) == -1) {
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

int socketError(int socket) {
    int error = 0;
    socklen_t length = sizeof error;
    return getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) == -1 ? errno : error;
}

bool isStream(int socket) {
    int type = SOCK_STREAM;
    socklen_t length = sizeof type;
    getsockopt(socket, SOL_SOCKET, SO_TYPE, &type, &length);
    return type == SOCK_STREAM || type == SOCK_SEQPACKET;
}

// Makes events pending that are selected.
void flag(WSASockData *record, int32_t events) {
    record->lPendingEvents |= record->lNetworkEvents & events;
}

// The socket leaves the set for good: it would keep waking the event.
void leaveSet(const WSASockData *record, const ObjectRecord *event) {
    if (!removeFromSet(event, record->socket)) {
        vlliLogError(
            "VLLI: WsaProcessNetworkEvents: epoll_ctl( vevent->efd = %d, EPOLL_CTL_DEL, "
            "pWsaSockData->socket = %d, NULL ) = %d, errno = %d\n",
            event->efd, record->socket, -1, errno);
    }
}

void closeConnection(WSASockData *record, const ObjectRecord *event) {
    record->state = SOCK_STATE_CLOSED;
    record->lPendingEvents &= ~FD_WRITE;
    flag(record, FD_CLOSE);
    leaveSet(record, event);
}

// A reset is a way to close, not an error of one operation.
void processError(WSASockData *record) {
    const int error = socketError(record->socket);
    record->lPendingEvents |= record->lNetworkEvents;
    if (error == ECONNRESET) {
        return;
    }
    for (int bit = 0; bit < FD_MAX_EVENTS; ++bit) {
        if ((record->lNetworkEvents & (1 << bit)) != 0) {
            record->iErrorCode[bit] = error;
        }
    }
}

void processReadable(WSASockData *record, const ObjectRecord *event) {
    char byte;
    const ssize_t peeked = recv(record->socket, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT);
    if (peeked > 0 || (peeked == 0 && !isStream(record->socket))) {
        if (record->state != SOCK_STATE_CONNECTED && record->state != SOCK_STATE_CLOSED) {
            record->state = SOCK_STATE_CONNECTED;
            flag(record, FD_CONNECT);
        }
        flag(record, FD_READ);
    } else if (peeked == 0) {
        closeConnection(record, event);
    } else if (errno == ENOTCONN) {
        if (record->state != SOCK_STATE_CLOSED) {
            record->state = SOCK_STATE_NOT_CONNECTED;
        }
        record->lPendingEvents &= ~(FD_READ | FD_WRITE);
        flag(record, FD_ACCEPT);
    } else if ((record->lNetworkEvents & FD_READ) != 0) {
        flag(record, FD_READ);
        record->iErrorCode[FD_READ_BIT] = errno;
    }
}

void processFailedConnect(WSASockData *record, const ObjectRecord *event, int error) {
    record->state = SOCK_STATE_CLOSED;
    record->lPendingEvents &= ~(FD_READ | FD_WRITE);
    flag(record, FD_CONNECT | FD_CLOSE);
    record->iErrorCode[FD_CONNECT_BIT] = error;
    leaveSet(record, event);
}

void processWritable(WSASockData *record, const ObjectRecord *event) {
    if (record->state != SOCK_STATE_CONNECTED) {
        const int error = socketError(record->socket);
        if (error != 0) {
            processFailedConnect(record, event, error);
            return;
        }
        record->state = SOCK_STATE_CONNECTED;
        flag(record, FD_CONNECT);
    }
    flag(record, FD_WRITE);
    // Room to write is reported once.
    if (changeSet(event, EPOLL_CTL_MOD, record->socket, readReadiness(record), record) == -1) {
        vlliLogError(
            "VLLI: WsaProcessNetworkEvents: epoll_ctl( vevent->efd = %d, EPOLL_CTL_MOD, "
            "pWsaSockData->socket = %d, EPOLLIN ) = %d, errno = %d\n",
            event->efd, record->socket, -1, errno);
    }
}

}  // namespace

void vlliWsaProcessNetworkEvents(void *data, ObjectRecord *event, uint32_t readiness) {
    auto *record = static_cast<WSASockData *>(data);
    const NoCancel no_cancel;
    const KeepErrno keep_errno;
    if ((readiness & EPOLLERR) != 0) {
        processError(record);
    }
    if ((readiness & EPOLLHUP) != 0 && record->state != SOCK_STATE_CLOSED) {
        closeConnection(record, event);
    }
    if ((readiness & EPOLLERR) != 0) {
        return;
    }
    if ((readiness & (EPOLLIN | EPOLLPRI)) != 0) {
        processReadable(record, event);
    }
    if ((readiness & EPOLLOUT) != 0 && record->state != SOCK_STATE_CLOSED) {
        processWritable(record, event);
    }
}

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
    uint32_t readiness = readReadiness(record);
    const int32_t write_events = record->state == SOCK_STATE_CONNECTED ? FD_WRITE : FD_WRITE | FD_CONNECT;
    if ((record->lNetworkEvents & write_events) != 0) {
        readiness |= EPOLLOUT;
    }
    if (changeSet(event.get(), EPOLL_CTL_MOD, record->socket, readiness, record) == -1) {
        vlliLogError(
            "VLLI: WSAEnableWriteEvent: epoll_ctl( event->efd = %d, EPOLL_CTL_MOD, WSASockData->socket = "
            "%d, &eevent ) = %d, errno = %d\n",
            event->efd, record->socket, -1, errno);
    }
}

void vllWSAReactivate(WSASockData *) {}

namespace {

// The buffers go to the system as they are: WSABUF has the layout of iovec.
msghdr makeMessage(const WSABUF *buffers, DWORD count, const sockaddr *address, socklen_t address_length) {
    msghdr message = {};
    message.msg_iov = reinterpret_cast<iovec *>(const_cast<WSABUF *>(buffers));
    message.msg_iovlen = count;
    message.msg_name = const_cast<sockaddr *>(address);
    message.msg_namelen = address_length;
    return message;
}

int32_t storeCount(ssize_t transferred, LPDWORD count) {
    if (transferred == -1) {
        return SOCKET_ERROR;
    }
    if (count != nullptr) {
        *count = static_cast<DWORD>(transferred);
    }
    return 0;
}

}  // namespace

int32_t vllWSASend(SOCKET socket, const WSABUF *lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesSent) {
    return vllWSASendTo(socket, lpBuffers, dwBufferCount, lpNumberOfBytesSent, nullptr, 0);
}

int32_t vllWSASendTo(SOCKET socket, const WSABUF *lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesSent,
                     const struct sockaddr *lpTo, int32_t iTolen) {
    const msghdr message = makeMessage(lpBuffers, dwBufferCount, lpTo, static_cast<socklen_t>(iTolen));
    return storeCount(vlliBlockInSendmsg(socket, &message, 0), lpNumberOfBytesSent);
}

int32_t vllWSARecvFrom(SOCKET socket, const WSABUF *lpBuffers, DWORD dwBufferCount,
                       LPDWORD lpNumberOfBytesRecvd, struct sockaddr *lpFrom, int32_t *lpFromlen) {
    const bool with_address = lpFrom != nullptr && lpFromlen != nullptr;
    msghdr message = makeMessage(lpBuffers, dwBufferCount, with_address ? lpFrom : nullptr,
                                 with_address ? static_cast<socklen_t>(*lpFromlen) : 0);
    const ssize_t received = vlliBlockInRecvmsg(socket, &message, 0);
    if (received != -1 && lpFromlen != nullptr) {
        *lpFromlen = static_cast<int32_t>(message.msg_namelen);
    }
    return storeCount(received, lpNumberOfBytesRecvd);
}
