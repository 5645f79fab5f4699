// Network events of sockets: what a wait found an event's set of sockets ready for becomes pending in the records.

#include <poll.h>
#include <sys/epoll.h>

#include "base/failure.h"
#include "base/guards.h"
#include "base/log.h"
#include "net/wsasockets.h"

namespace {

// The pending error of a socket, which is thereby cleared; or the error number of the call that reads it.
int takeSocketError(int socket) {
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

// Reading from a listening socket fails with ENOTCONN or, in the AF_UNIX domain, with EINVAL. The error is kept.
bool isListening(int socket) {
    const KeepErrno keep_errno;
    int listening = 0;
    socklen_t length = sizeof listening;
    getsockopt(socket, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length);
    return listening != 0;
}

// What poll(2) reports for a socket, by the bits of epoll_ctl(2), which are the same.
uint32_t currentReadiness(int socket) {
    pollfd now = {socket, POLLIN | POLLOUT | POLLRDHUP, 0};
    poll(&now, 1, 0);
    return static_cast<uint32_t>(now.revents);
}

// A stream socket that is neither connected nor listening is hung up and writable. The end of a connection makes it
// readable as well.
constexpr uint32_t kUnconnected = EPOLLOUT | EPOLLHUP;

// Makes those of the events pending that are selected.
void flag(WSASockData *record, int32_t events) {
    record->lPendingEvents |= record->lNetworkEvents & events;
}

// Removes the socket, which would wake the event again and again, from the set.
void leaveSet(const WSASockData *record, const ObjectRecord *event) {
    if (!vlliLeaveSocketSet(record)) {
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

// Makes all selected events pending, with the error; but a reset is a way to close, and leaves the error codes alone.
void processError(WSASockData *record) {
    const int error = takeSocketError(record->socket);
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
    } else if (errno == ENOTCONN || isListening(record->socket)) {
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
        const int error = takeSocketError(record->socket);
        if (error != 0) {
            processFailedConnect(record, event, error);
            return;
        }
        record->state = SOCK_STATE_CONNECTED;
        flag(record, FD_CONNECT);
    }
    flag(record, FD_WRITE);
    // Write readiness is reported once.
    if (vlliChangeSocketReadiness(event, record, vlliReadReadiness(record)) == -1) {
        vlliLogError(
            "VLLI: WsaProcessNetworkEvents: epoll_ctl( vevent->efd = %d, EPOLL_CTL_MOD, "
            "pWsaSockData->socket = %d, EPOLLIN ) = %d, errno = %d\n",
            event->efd, record->socket, -1, errno);
    }
}

}  // namespace

uint32_t vlliReadReadiness(const WSASockData *record) {
    return (record->lNetworkEvents & (FD_READ | FD_ACCEPT)) != 0 ? EPOLLIN : 0U;
}

uint32_t vlliInitialReadiness(const WSASockData *record) {
    return vlliReadReadiness(record) |
           ((record->lNetworkEvents & (FD_WRITE | FD_CONNECT)) != 0 ? EPOLLOUT : 0U);
}

void vlliWsaProcessNetworkEvents(WSASockData *record, ObjectRecord *event, uint32_t readiness) {
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

SocketActivity vlliTakeSocketActivity(uint64_t data, ObjectRecord *event, uint32_t readiness) {
    const NoCancel no_cancel;
    const KeepErrno keep_errno;
    WSASockData *record = vlliFindSelectedRecord(event, data);
    if (record == nullptr) {
        return SocketActivity::kUnknown;
    }
    const uint32_t initial = vlliInitialReadiness(record);
    if (record->state == SOCK_STATE_NONE && (readiness & (EPOLLHUP | EPOLLERR)) == EPOLLHUP) {
        const uint32_t now = currentReadiness(record->socket);
        if (now == kUnconnected) {
            vlliReportChangesOnly(event, record, initial);
            return SocketActivity::kNone;
        }
        // It may just have begun to connect.
        readiness = now & (initial | EPOLLERR | EPOLLHUP);
        if (readiness == 0) {
            return SocketActivity::kNone;
        }
    }
    vlliWsaProcessNetworkEvents(record, event, readiness);
    vlliRestoreReadiness(event, record, initial);
    return SocketActivity::kDelivered;
}
