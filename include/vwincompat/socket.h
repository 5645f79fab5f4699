/**
 * @file
 * Network events of sockets, over event objects.
 *
 * A socket is selected into an event: activity on it then wakes whoever waits on the event, and
 * vllWSAEnumNetworkEvents() reports what occurred. Any other socket operation is the system's own.
 *
 * Example: wait for data, or for the end of the connection, for 5 seconds at most.
 *
 * @code{.c}
 * // The record was set to zero before its first use. Returns the network events, or -1.
 * int32_t waitForNetwork(SOCKET socket, HANDLE event, WSASockData *record) {
 *     WSANETWORKEVENTS occurred;
 *     if (vllWSAEventSelect(socket, event, FD_READ | FD_CLOSE, record) != 0 ||
 *         vllWaitForSingleObject(event, 5000) != WAIT_OBJECT_0 ||
 *         vllWSAEnumNetworkEvents(record, event, &occurred) != 0) {
 *         return -1;
 *     }
 *     return occurred.lNetworkEvents;
 * }
 * @endcode
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
 * at its place while the selection lasts: until it is cancelled, or the last handle of the event is closed.
 * Closing the socket alone does not end the selection while a duplicate of the socket, or a child process,
 * keeps it open: so cancel it first, always. One thread at a time may wait on the event or use the record.
 *
 * After fork(2) a child has copies of the records, but shares the events and their sockets with its parent:
 * only one of them may wait on such an event or change its selections.
 */
typedef struct WSASockData {
    int32_t socket;
    int32_t lNetworkEvents; /**< the selected events */
    int32_t lPendingEvents; /**< occurred, and not enumerated yet */
    HANDLE hEventObject;    /**< the event that signals activity */
    int32_t state;          /**< SOCK_STATE_... */
    /** `errno` values by bit index. A value stays until its event is enumerated or the record is zeroed. */
    int32_t iErrorCode[FD_MAX_EVENTS];
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
 * record keeps what is pending; a record that selects another socket loses that selection silently.
 *
 * Cancel the selection before the socket is closed and before the record is freed. Any handle of an event
 * will do, also when the one that was given at first is closed and a duplicate of it is not. A record ends
 * only the selection that was made with it, not that of another record whose socket has got the same number
 * since.
 *
 * A socket may be selected before it connects or listens: nothing is reported before the connection or the
 * first client comes. An AF_UNIX socket that was waited on before its connect(2) is an exception: it reports
 * its connection with the first data, or after vllWSAEnableWriteEvent().
 *
 * Data to read and connections to accept are reported as long as they last; that the socket can be written to
 * is reported once, until vllWSAEnableWriteEvent(). A connection attempt that failed reports FD_CONNECT and
 * FD_CLOSE, with the error in the slot of FD_CONNECT. After FD_CLOSE the socket no longer wakes the event;
 * data that are still unread are reported before FD_CLOSE or with it. A peer's close is seen where FD_READ or
 * FD_ACCEPT is selected, too; with FD_CLOSE alone only a connection that is down in both directions reports
 * it.
 *
 * Faults are logged, but for a null record.
 *
 * @param socket         the socket.
 * @param hEventObject   the event, also when the selection is cancelled.
 * @param lNetworkEvent  the FD_... values to select; 0 cancels.
 * @param record         the socket's selection record; not null.
 * @return  0, or -1. When the event or the socket was refused, an earlier selection of the record has ended
 *          all the same.
 * @error EINVAL  there are no such events, hEventObject is no open event, or the record is null.
 * @error EBADF  socket is no open descriptor.
 * @error EEXIST  another record selects the socket into the event.
 * @error EPERM  the descriptor is a regular file or a directory, which cannot be polled.
 * @error ENOMEM, ENOSPC  the system cannot watch one more descriptor.
 * @error others  as fcntl(2) and epoll_ctl(2) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. A record is used by one thread at a time, a thread that waits on its event
 *          included.
 */
VLL_API int32_t vllWSAEventSelect(SOCKET socket, HANDLE hEventObject, int32_t lNetworkEvent,
                                  WSASockData *record);

/**
 * Hands over the network events that are selected and pending, with their errors, clears them and resets the
 * event.
 *
 * @param record        the socket's selection record; not null.
 * @param hEventObject  the event that the record selects into. A handle of another type is accepted, and
 *                      nothing is then reset.
 * @param events        receives the events; not null. Cleared when the event is refused.
 * @return  0, or -1.
 * @error EINVAL  an argument is null, or hEventObject is an event that is not open or not the record's.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. A record is used by one thread at a time, a thread that waits on its event
 *          included.
 */
VLL_API int32_t vllWSAEnumNetworkEvents(WSASockData *record, HANDLE hEventObject, WSANETWORKEVENTS *events);

/**
 * Asks for the next FD_WRITE (or FD_CONNECT) after the application found the socket full. Faults are logged.
 *
 * @param record  the socket's selection record. A null record is only logged.
 * @error EINVAL  the record's event is not open.
 * @error ENOENT  the socket has left the event's set, as it does with FD_CLOSE and when the selection is
 *                cancelled.
 * @error EBADF  the record's socket is no open descriptor.
 * @error others  as epoll_ctl(2) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. A record is used by one thread at a time, a thread that waits on its event
 *          included.
 */
VLL_API void vllWSAEnableWriteEvent(WSASockData *record);

/**
 * Does nothing; kept for programs that call it.
 *
 * @param record  not used. May be null.
 * @error none  the operation cannot fail and leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Async-signal-safe.
 */
VLL_API void vllWSAReactivate(WSASockData *record);

/**
 * Sends from several buffers with one sendmsg(2) and flags 0, which blocks on a blocking socket and raises
 * SIGPIPE as it does.
 *
 * @param socket               the socket.
 * @param lpBuffers            the buffers; handed to the system as they are.
 * @param dwBufferCount        the number of buffers, 1024 at most.
 * @param lpNumberOfBytesSent  receives the number of bytes, which may be fewer than given. May be null.
 *                             Untouched when the operation fails.
 * @return  0, or -1.
 * @error EBADF, ENOTSOCK  socket is no open descriptor, or no socket.
 * @error EAGAIN  a non-blocking socket can take nothing at present.
 * @error EINTR  a signal interrupted the call before a byte was sent.
 * @error EPIPE, ECONNRESET  the connection is closed.
 * @error ENOTCONN, EDESTADDRREQ  the socket is not connected.
 * @error EMSGSIZE  there are too many buffers, or their bytes are too many for one datagram.
 * @error others  as sendmsg(2) gives them.
 * @cancel  A cancellation point while it blocks: the library keeps nothing, and how much was sent is unknown.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API int32_t vllWSASend(SOCKET socket, const WSABUF *lpBuffers, DWORD dwBufferCount,
                           LPDWORD lpNumberOfBytesSent);

/**
 * Receives into several buffers with one recvmsg(2) and flags 0, which blocks on a blocking socket. The end
 * of a datagram that does not fit is lost.
 *
 * @param socket                the socket.
 * @param lpBuffers             the buffers; handed to the system as they are.
 * @param dwBufferCount         the number of buffers, 1024 at most.
 * @param lpNumberOfBytesRecvd  receives the number of bytes; 0 from a stream is its end. May be null.
 *                              Untouched when the operation fails.
 * @param lpFrom                receives the sender's address, when lpFromlen is not null. May be null.
 * @param lpFromlen             in: the size of the address buffer in bytes; out: the actual length of the
 *                              address, 0 for none. May be null. Untouched when the operation fails.
 * @return  0, or -1.
 * @error EBADF, ENOTSOCK  socket is no open descriptor, or no socket.
 * @error EAGAIN  a non-blocking socket has nothing at present.
 * @error EINTR  a signal interrupted the call before a byte was received.
 * @error ECONNRESET  the peer reset the connection.
 * @error ENOTCONN  the stream socket is not connected.
 * @error EMSGSIZE  there are too many buffers.
 * @error others  as recvmsg(2) gives them.
 * @cancel  A cancellation point while it blocks: the library keeps nothing, and the outputs are untouched.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API int32_t vllWSARecvFrom(SOCKET socket, const WSABUF *lpBuffers, DWORD dwBufferCount,
                               LPDWORD lpNumberOfBytesRecvd, struct sockaddr *lpFrom, int32_t *lpFromlen);

/**
 * Sends from several buffers to an address, as vllWSASend() does.
 *
 * @param socket               the socket.
 * @param lpBuffers            the buffers; handed to the system as they are.
 * @param dwBufferCount        the number of buffers, 1024 at most.
 * @param lpNumberOfBytesSent  receives the number of bytes, which may be fewer than given. May be null.
 *                             Untouched when the operation fails.
 * @param lpTo                 the address. May be null for a connected socket.
 * @param iTolen               the length of the address in bytes.
 * @return  0, or -1.
 * @error EBADF, ENOTSOCK  socket is no open descriptor, or no socket.
 * @error EAGAIN  a non-blocking socket can take nothing at present.
 * @error EINTR  a signal interrupted the call before a byte was sent.
 * @error EPIPE, ECONNRESET  the connection is closed.
 * @error ENOTCONN, EDESTADDRREQ  no address is given, and the socket is not connected.
 * @error EMSGSIZE  there are too many buffers, or their bytes are too many for one datagram.
 * @error others  as sendmsg(2) gives them.
 * @cancel  A cancellation point while it blocks: the library keeps nothing, and how much was sent is unknown.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API int32_t vllWSASendTo(SOCKET socket, const WSABUF *lpBuffers, DWORD dwBufferCount,
                             LPDWORD lpNumberOfBytesSent, const struct sockaddr *lpTo, int32_t iTolen);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_SOCKET_H */
