// Descriptor sharing: a registry of open descriptors by name, and a server thread that hands them to other
// processes over a socket in the abstract name space.
//
// lifecycle_mutex is taken first: it keeps a new server from starting before the old one has freed the address.
// list_mutex guards the registry and the server's identity. The server holds it while it searches the list, and while it
// ends. The publisher opens the server's socket, so that a lookup finds it as soon as the publication has returned.

#include "sharing/shared_descriptor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <array>
#include <cstddef>
#include <cstring>
#include <memory>

#include "base/allocate.h"
#include "base/blocking.h"
#include "base/descriptor.h"
#include "base/failure.h"
#include "base/guards.h"
#include "core/objmem.h"
#include "vwincompat/sharing.h"
#include "vwincompat/thread.h"
#include "vwincompat/wait.h"

SharedFdEntry *shared_fd_list = nullptr;
pthread_mutex_t list_mutex = PTHREAD_MUTEX_INITIALIZER;
uintptr_t server_thread_id = static_cast<uintptr_t>(-1);

namespace {

constexpr uintptr_t kNoServer = static_cast<uintptr_t>(-1);
constexpr size_t kRequestSize = 1024;  // the name and its terminator
constexpr int kBacklog = 5;
constexpr int kBindTries = 100;
constexpr int kBindPauseMs = 10;

enum Status : int32_t { kFound = 0, kIncomplete = 1, kUnknown = 2 };

pthread_mutex_t lifecycle_mutex = PTHREAD_MUTEX_INITIALIZER;
HANDLE server_handle = 0;   // guarded by list_mutex
int listening_socket = -1;  // the server's, which a child of fork() closes; guarded by list_mutex
bool had_address = false;   // true once a server of this process had the address; guarded by list_mutex

// The first byte of the path is replaced by the NUL that marks the abstract name space.
socklen_t makeAddress(sockaddr_un *address) {
    static constexpr char kStoredName[] = "zSHARING_FD_SERVER";
    *address = {};
    address->sun_family = AF_UNIX;
    memcpy(address->sun_path, kStoredName, sizeof kStoredName);
    address->sun_path[0] = '\0';
    return offsetof(sockaddr_un, sun_path) + sizeof kStoredName - 1;
}

Fd makeSocket(int flags) {
    return Fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
}

void freeList() {
    while (shared_fd_list != nullptr) {
        SharedFdEntry *entry = shared_fd_list;
        shared_fd_list = entry->next;
        vlliFreeMemory(2, entry->name, entry);
    }
}

// Needs list_mutex.
void closeListeningSocket() {
    if (listening_socket != -1) {
        vlliCloseFd(listening_socket);
        listening_socket = -1;
    }
}

void lockForFork() {
    pthread_mutex_lock(&lifecycle_mutex);
    pthread_mutex_lock(&list_mutex);
}

void unlockAfterFork() {
    pthread_mutex_unlock(&list_mutex);
    pthread_mutex_unlock(&lifecycle_mutex);
}

// The child has no server thread, and must not keep the parent's address in use.
void forgetServerInChild() {
    pthread_mutex_init(&list_mutex, nullptr);
    pthread_mutex_init(&lifecycle_mutex, nullptr);
    closeListeningSocket();
    had_address = false;
    freeList();
    server_thread_id = kNoServer;
    if (server_handle != 0) {
        vllCloseHandle(server_handle);
        server_handle = 0;
    }
}

// Opens the server's socket: false with errno. The lock keeps a fork away until listening_socket is set, so that the
// child closes its copy.
bool tryToListen() {
    const MutexLock lock(&list_mutex);
    Fd fd = makeSocket(SOCK_NONBLOCK);
    sockaddr_un address;
    const socklen_t length = makeAddress(&address);
    if (!fd || bind(fd.get(), reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        listen(fd.get(), kBacklog) != 0) {
        return false;
    }
    listening_socket = fd.release();
    had_address = true;
    return true;
}

bool mayBeOwnAddress() {
    const MutexLock lock(&list_mutex);
    return had_address;
}

// Opens the server's socket unless another process has the address. A child that this process is starting holds a copy
// of an earlier socket, and with it the address, until its fork handlers or its exec have closed the copy.
void startToListen() {
    const KeepErrno keep_errno;
    for (int tries = 1; !tryToListen() && errno == EADDRINUSE && tries < kBindTries && mayBeOwnAddress();
         ++tries) {
        vlliBlockInPoll(nullptr, 0, kBindPauseMs);
    }
}

// What the server's thread leaves when it ends: the address is free, and a server that ended by itself has no identity.
struct ServerEnd {
    ServerEnd() = default;
    ~ServerEnd() {
        const NoCancel no_cancel;
        const MutexLock lock(&list_mutex);
        closeListeningSocket();
        if (server_thread_id == vllGetCurrentThreadId()) {
            server_thread_id = kNoServer;
        }
    }
    ServerEnd(const ServerEnd &) = delete;
    ServerEnd &operator=(const ServerEnd &) = delete;
};

// The next client, or nothing when accept() failed for good. Blocks in poll(), so that a cancelled server
// cannot lose a connection that was just accepted.
Fd acceptClient(int listening) {
    for (;;) {
        pollfd ready = {listening, POLLIN, 0};
        if (vlliBlockInPoll(&ready, 1, -1) == -1 && errno != EINTR) {
            return Fd();
        }
        const NoCancel no_cancel;
        Fd client(accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
        if (client || (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED)) {
            return client;
        }
    }
}

// Receives up to size bytes: how many, 0 at the end, or -1 with errno.
ssize_t receive(int socket, char *bytes, size_t size) {
    iovec part = {bytes, size};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    return vlliRetryOnEintr([&] { return vlliBlockInRecvmsg(socket, &message, 0); });
}

// Reads a request byte by byte up to its NUL: true when the NUL came and the request fits. A longer request is read to
// its end all the same: closing a socket with unread bytes makes the client lose the answer.
bool readRequest(int socket, std::array<char, kRequestSize> *request) {
    for (char &byte : *request) {
        if (receive(socket, &byte, 1) != 1) {
            return false;
        }
        if (byte == '\0') {
            return true;
        }
    }
    ssize_t received;
    do {
        received = receive(socket, request->data(), request->size());
    } while (received > 0 && memchr(request->data(), '\0', static_cast<size_t>(received)) == nullptr);
    return false;
}

// The descriptor that was published first under a name, or -1.
int findPublished(const char *name) {
    const MutexLock lock(&list_mutex);
    for (const SharedFdEntry *entry = shared_fd_list; entry != nullptr; entry = entry->next) {
        if (strcmp(entry->name, name) == 0) {
            return entry->fd;
        }
    }
    return -1;
}

// True if the entry is the first one.
bool appendEntry(SharedFdEntry *entry) {
    const MutexLock lock(&list_mutex);
    SharedFdEntry **link = &shared_fd_list;
    while (*link != nullptr) {
        link = &(*link)->next;
    }
    *link = entry;
    return shared_fd_list == entry;
}

// A control buffer for exactly one descriptor. The kernel closes any further ones that a peer sends.
union Control {
    cmsghdr header;
    char bytes[CMSG_SPACE(sizeof(int32_t))];
};
constexpr size_t kControlLength = CMSG_LEN(sizeof(int32_t));

int errorOfStatus(int32_t status) {
    switch (status) {
        case kIncomplete:
            return EBADE;
        case kUnknown:
            return ENOENT;
        default:
            return EAGAIN;
    }
}

bool connectToServer(int socket) {
    sockaddr_un address;
    const socklen_t length = makeAddress(&address);
    const int result = vlliRetryOnEintr(
        [&] { return vlliBlockInConnect(socket, reinterpret_cast<sockaddr *>(&address), length); });
    return result == 0 || errno == EISCONN;
}

// Sends a name and its NUL, one byte per call.
bool sendRequest(int socket, const char *name) {
    const auto sendByte = [&](size_t offset, size_t) {
        iovec part = {const_cast<char *>(name + offset), 1};
        msghdr message = {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        return vlliBlockInSendmsg(socket, &message, MSG_NOSIGNAL);
    };
    return vlliTransferFully(strlen(name) + 1, sendByte) != -1;
}

// The descriptor that a response carries, or -1.
int findDescriptor(msghdr *message) {
    for (cmsghdr *header = CMSG_FIRSTHDR(message); header != nullptr; header = CMSG_NXTHDR(message, header)) {
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS &&
            header->cmsg_len >= kControlLength) {
            int descriptor;
            memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
            return descriptor;
        }
    }
    return -1;
}

}  // namespace

const ForkHandlers kDescriptorServerForkHandlers = {lockForFork, unlockAfterFork, forgetServerInChild};

BOOL vlliSendFileDescriptor(int socket, int descriptor, int32_t status) {
    iovec part = {&status, sizeof status};
    Control control = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (status == kFound) {
        message.msg_control = &control;
        message.msg_controllen = kControlLength;
        cmsghdr *header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = kControlLength;
        memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    }
    return vlliRetryOnEintr([&] { return vlliBlockInSendmsg(socket, &message, MSG_NOSIGNAL); }) != -1;
}

// Blocks in poll(), so that a cancelled caller cannot lose a descriptor that was just received.
int vlliReceiveFileDescriptor(int socket) {
    int32_t status = kFound;
    iovec part = {&status, sizeof status};
    Control control = {};
    msghdr message = {};
    ssize_t received;
    do {
        pollfd ready = {socket, POLLIN, 0};
        vlliBlockInPoll(&ready, 1, -1);
        const NoCancel no_cancel;
        message = {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = &control;
        message.msg_controllen = kControlLength;
        received = recvmsg(socket, &message, MSG_DONTWAIT);
    } while (received == -1 && (errno == EINTR || errno == EAGAIN));
    if (received == -1) {
        return -1;
    }
    const int descriptor = findDescriptor(&message);
    return descriptor != -1 ? descriptor : Fail(errorOfStatus(status), -1);
}

BOOL vlliProcessClient(int socket) {
    std::array<char, kRequestSize> request = {};
    if (!readRequest(socket, &request)) {
        return vlliSendFileDescriptor(socket, -1, kIncomplete);
    }
    const int descriptor = findPublished(request.data());
    return vlliSendFileDescriptor(socket, descriptor, descriptor == -1 ? kUnknown : kFound);
}

uint32_t vlliServerFunction(LPVOID) {
    const ServerEnd end;
    int listening;
    {
        const MutexLock lock(&list_mutex);
        listening = listening_socket;
    }
    while (listening != -1) {
        const Fd client = acceptClient(listening);
        if (!client) {
            break;
        }
        vlliProcessClient(client.get());
    }
    return 0;
}

BOOL vlliStartSharingFdServer() {
    startToListen();
    const MutexLock lock(&list_mutex);
    server_handle = vllCreateThread(0, vlliServerFunction, nullptr, &server_thread_id, 0);
    return server_handle != 0;
}

BOOL vllSetSharedFileDescriptor(int32_t descriptor, const char *name) {
    if (name == nullptr) {
        return Fail(EINVAL);
    }
    if (strlen(name) >= kRequestSize) {
        return Fail(ENAMETOOLONG);
    }
    if (fcntl(descriptor, F_GETFD) == -1 && errno == EBADF) {
        return FALSE;
    }
    HeapBlock<SharedFdEntry> entry = vlliAllocate<SharedFdEntry>();
    HeapBlock<char> copy = vlliCopyString(name);
    if (entry == nullptr || copy == nullptr) {
        return FALSE;
    }
    *entry = {nullptr, copy.release(), descriptor};

    const NoCancel no_cancel;
    MutexLock lifecycle(&lifecycle_mutex);
    if (appendEntry(entry.release()) && !vlliStartSharingFdServer()) {
        const KeepErrno keep_errno;
        lifecycle.unlock();
        vllDeallocateSharedFdList();
        return FALSE;
    }
    return TRUE;
}

int32_t vllGetSharedFileDescriptor(const char *name) {
    if (name == nullptr) {
        return Fail(EINVAL, -1);
    }
    const Fd socket = makeSocket(0);
    if (!socket || !connectToServer(socket.get()) || !sendRequest(socket.get(), name)) {
        return -1;
    }
    return vlliReceiveFileDescriptor(socket.get());
}

int32_t vllDeallocateSharedFdList() {
    const NoCancel no_cancel;
    const MutexLock lifecycle(&lifecycle_mutex);
    MutexLock lock(&list_mutex);
    freeList();
    const bool running = server_thread_id != kNoServer;
    const HANDLE handle = server_handle;
    server_thread_id = kNoServer;
    server_handle = 0;
    lock.unlock();
    int32_t result = 0;
    if (handle != 0) {
        if (running && !vllTerminateThread(handle, 0) && errno != ESRCH) {
            result = errno;
        }
        // The thread's handle is signalled after its frames have been unwound, which closes its sockets.
        vllWaitForSingleObject(handle, INFINITE);
        vllCloseHandle(handle);
    }
    const MutexLock again(&list_mutex);
    closeListeningSocket();  // of a server whose thread was not started, or was cancelled before it ran
    return result;
}
