// Network events of sockets: what a wait found an event's set of sockets ready for becomes pending in the records.

#include <sys/epoll.h>

#include "base/failure.h"
#include "base/guards.h"
#include "base/log.h"
#include "net/wsasockets.h"

namespace {

int controlSet(const ObjectRecord *event, int operation, int socket, uint32_t readiness,
               WSASockData *record) {
    epoll_event change = {};
    change.events = readiness;
    change.data.ptr = record;
    return epoll_ctl(event->efd, operation, socket, &change);
}

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

// Makes those of the events pending that are selected.
void flag(WSASockData *record, int32_t events) {
    record->lPendingEvents |= record->lNetworkEvents & events;
}

// Removes the socket, which would wake the event again and again, from the set.
void leaveSet(const WSASockData *record, const ObjectRecord *event) {
    if (!vlliRemoveFromSocketSet(event, record->socket)) {
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
    if (vlliChangeInSocketSet(event, record->socket, vlliReadReadiness(record), record) == -1) {
        vlliLogError(
            "VLLI: WsaProcessNetworkEvents: epoll_ctl( vevent->efd = %d, EPOLL_CTL_MOD, "
            "pWsaSockData->socket = %d, EPOLLIN ) = %d, errno = %d\n",
            event->efd, record->socket, -1, errno);
    }
}

}  // namespace

int vlliAddToSocketSet(const ObjectRecord *event, int socket, uint32_t readiness, WSASockData *record) {
    return controlSet(event, EPOLL_CTL_ADD, socket, readiness, record);
}

int vlliChangeInSocketSet(const ObjectRecord *event, int socket, uint32_t readiness, WSASockData *record) {
    return controlSet(event, EPOLL_CTL_MOD, socket, readiness, record);
}

bool vlliRemoveFromSocketSet(const ObjectRecord *event, int socket) {
    return controlSet(event, EPOLL_CTL_DEL, socket, 0, nullptr) == 0 || errno == ENOENT;
}

uint32_t vlliReadReadiness(const WSASockData *record) {
    return (record->lNetworkEvents & (FD_READ | FD_ACCEPT)) != 0 ? EPOLLIN : 0U;
}

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
