// Sending from and receiving into several buffers.

#include <sys/socket.h>
#include <sys/uio.h>
#include <cstddef>

#include "base/blocking.h"
#include "vwincompat/socket.h"

// Callers' buffers go to the system as they are.
static_assert(sizeof(WSABUF) == sizeof(iovec) && offsetof(WSABUF, buf) == offsetof(iovec, iov_base) &&
              offsetof(WSABUF, len) == offsetof(iovec, iov_len));

namespace {

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
