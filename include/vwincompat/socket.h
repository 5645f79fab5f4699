/**
 * @file
 * Network events of sockets, over event objects.
 *
 * A socket is selected into an event: activity on it then wakes whoever waits on the event, and
 * vllWSAEnumNetworkEvents() tells what occurred. Any other socket operation is the system's own.
 */
#ifndef VWINCOMPAT_SOCKET_H
#define VWINCOMPAT_SOCKET_H

#include <sys/socket.h>

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t SOCKET;
#define SOCKET_ERROR (-1)

/** Network events. The values are the library's own: the bit indexes are 0 to 4 without a gap. */
#define FD_READ 1
#define FD_WRITE 2
#define FD_ACCEPT 4
#define FD_CONNECT 8
#define FD_CLOSE 16
#define FD_MAX_EVENTS 5
#define FD_READ_BIT 0
#define FD_WRITE_BIT 1
#define FD_ACCEPT_BIT 2
#define FD_CONNECT_BIT 3
#define FD_CLOSE_BIT 4

/** Connection states in a selection record. */
enum {
    SOCK_STATE_NONE = 0,          /**< new, or selected afresh */
    SOCK_STATE_NOT_CONNECTED = 1, /**< a listening socket */
    SOCK_STATE_CONNECTED = 2,     /**< data was seen, or the connection was made */
    SOCK_STATE_CLOSED = 3 /**< closed by the peer, hung up, or never made; final until selected again */
};

/**
 * The selection record of one socket. The caller owns it, sets it to zero before its first use and keeps it
 * at its place while the selection lasts, which is until the selection is cancelled, the event's last handle
 * is closed or the socket is closed. One thread at a time may wait on the event or use the record.
 */
typedef struct WSASockData {
    int32_t socket;
    int32_t lNetworkEvents;            /**< the selected events */
    int32_t lPendingEvents;            /**< occurred, and not enumerated yet */
    HANDLE hEventObject;               /**< the event that signals activity */
    int32_t state;                     /**< SOCK_STATE_... */
    int32_t iErrorCode[FD_MAX_EVENTS]; /**< `errno` values by bit index */
} WSASockData;

/** What vllWSAEnumNetworkEvents() reports. */
typedef struct WSANETWORKEVENTS {
    int32_t lNetworkEvents;
    int32_t iErrorCode[FD_MAX_EVENTS];
} WSANETWORKEVENTS;

/** One buffer of a scatter or gather call, laid out as struct iovec. */
typedef struct WSABUF {
    LPVOID buf;
    SIZE_T len;
} WSABUF;

/**
 * Selects the network events of a socket that signal an event, or cancels the selection.
 *
 * The socket becomes non-blocking (its other status flags are cleared). Selecting a socket again with its
 * record keeps what is pending; a record that selects another socket loses that selection silently. Cancel the
 * selection before closing a socket that its peer has not closed: the next socket may get its number.
 * Data to read and connections to accept are reported as long as they last; the room to write once, until
 * vllWSAEnableWriteEvent(). A connection attempt that failed reports FD_CONNECT and FD_CLOSE, with the
 * error in the slot of FD_CONNECT. After FD_CLOSE the socket no longer wakes the event; data that are
 * still unread are reported before FD_CLOSE or with it. A peer's close is seen where FD_READ or FD_ACCEPT is
 * selected, too; with FD_CLOSE alone only a connection that is down in both directions reports it.
 *
 * @param hEventObject   an event.
 * @param lNetworkEvent  the FD_... values to select; 0 cancels.
 * @param record         the socket's selection record.
 * @return 0, or -1: EINVAL (unknown events, no open event, a null record), or an error of fcntl(2) or
 *         epoll_ctl(2) (EBADF, EEXIST for a socket that another record selects into the event, EPERM).
 */
VLL_API int32_t vllWSAEventSelect(SOCKET socket, HANDLE hEventObject, int32_t lNetworkEvent,
                                  WSASockData *record);

/**
 * Hands over the network events that are selected and pending, with their errors, clears them and resets
 * the event.
 *
 * @param hEventObject  the event that @p record selects into; a handle of another type is accepted, and
 *                      nothing is then reset.
 * @param events        receives the events.
 * @return 0, or -1: EINVAL for an event that is not open or not the record's, or a null argument.
 */
VLL_API int32_t vllWSAEnumNetworkEvents(WSASockData *record, HANDLE hEventObject, WSANETWORKEVENTS *events);

/** Asks for the next FD_WRITE (or FD_CONNECT) after the application found the socket full. Faults are logged. */
VLL_API void vllWSAEnableWriteEvent(WSASockData *record);

/** Does nothing; kept for programs that call it. */
VLL_API void vllWSAReactivate(WSASockData *record);

/**
 * Sends from several buffers: sendmsg(2) with flags 0, which blocks on a blocking socket and raises SIGPIPE
 * as it does.
 *
 * @param lpBuffers            the buffers; handed to the system as they are.
 * @param dwBufferCount        how many.
 * @param lpNumberOfBytesSent  receives the number of bytes.
 * @return 0, or -1 with the error of sendmsg(2).
 */
VLL_API int32_t vllWSASend(SOCKET socket, const WSABUF *lpBuffers, DWORD dwBufferCount,
                           LPDWORD lpNumberOfBytesSent);

/**
 * Receives into several buffers: recvmsg(2) with flags 0.
 *
 * @param lpNumberOfBytesRecvd  receives the number of bytes.
 * @param lpFrom, lpFromlen     receive the sender's address and its actual length; on entry the length
 *                              is that of the buffer. Both may be null.
 * @return 0, or -1 with the error of recvmsg(2).
 */
VLL_API int32_t vllWSARecvFrom(SOCKET socket, const WSABUF *lpBuffers, DWORD dwBufferCount,
                               LPDWORD lpNumberOfBytesRecvd, struct sockaddr *lpFrom, int32_t *lpFromlen);

/** vllWSASend() to the address @p lpTo of @p iTolen bytes. */
VLL_API int32_t vllWSASendTo(SOCKET socket, const WSABUF *lpBuffers, DWORD dwBufferCount,
                             LPDWORD lpNumberOfBytesSent, const struct sockaddr *lpTo, int32_t iTolen);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_SOCKET_H */
