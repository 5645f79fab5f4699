// The asynchronous descriptor service. Its one thread serves all transfers, so nothing in it may block: a
// descriptor that is ready for a byte is not ready for a megabyte.
//
// The service sleeps in poll() on its set and takes events out only under transfer_mutex, which it holds until
// they are all dealt with. Whoever has removed a descriptor from the set under that lock knows that neither its
// record nor its buffer is in use, or waiting to be.

#include "core/internal_async.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdio>

#include "base/blocking.h"
#include "base/counter.h"
#include "base/descriptor.h"
#include "base/failure.h"
#include "base/guards.h"
#include "core/ref.h"

int32_t epoll_fd = -1;
epoll_event async_events[64];
pthread_mutex_t async_mutex =
    PTHREAD_MUTEX_INITIALIZER;  // ready before the service is: registrars may come first
int32_t async_io_thread_handle = -1;

#if !defined(__LP64__)
static_assert(sizeof(OverlappedRecord) == 72 && offsetof(OverlappedRecord, buffer) == 4 &&
              offsetof(OverlappedRecord, event) == 8 && offsetof(OverlappedRecord, requested) == 12 &&
              offsetof(OverlappedRecord, result) == 16 && offsetof(OverlappedRecord, transferred) == 20 &&
              offsetof(OverlappedRecord, mask) == 24 && offsetof(OverlappedRecord, eventMask) == 28 &&
              offsetof(OverlappedRecord, mutex) == 32 && offsetof(OverlappedRecord, dataThread) == 56 &&
              offsetof(OverlappedRecord, modemThread) == 60 &&
              offsetof(OverlappedRecord, dataTrigger) == 64 &&
              offsetof(OverlappedRecord, modemTrigger) == 68);
#endif
static_assert(offsetof(OverlappedRecord, fd) == 0);

namespace {

// The size hint of the set.
constexpr int kSetHint = 64;

// In the event data, beside the record's address: a hang-up alone does not tell which way a transfer goes.
constexpr uintptr_t kWriteTag = 1;
static_assert(alignof(OverlappedRecord) > kWriteTag);

// Taken after async_mutex, never before.
pthread_mutex_t transfer_mutex = PTHREAD_MUTEX_INITIALIZER;

int loadSet() {
    return __atomic_load_n(&epoll_fd, __ATOMIC_ACQUIRE);
}

void publishSet(int fd) {
    __atomic_store_n(&epoll_fd, fd, __ATOMIC_RELEASE);
}

int control(int operation, int fd, bool write, OverlappedRecord *record) {
    epoll_event event = {};
    event.events = (write ? EPOLLOUT : EPOLLIN) | EPOLLONESHOT;
    event.data.ptr = reinterpret_cast<char *>(record) + (write ? kWriteTag : 0);
    vlliAnnotateRelease();
    return epoll_ctl(loadSet(), operation, fd, &event);
}

// The flags of the open file are shared with whoever else has it: non-blocking only for the one call.
template <typename Call>
ssize_t callNonBlocking(int fd, int flags, Call call) {
    const bool blocks = flags != -1 && (flags & O_NONBLOCK) == 0;
    if (blocks) {
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    }
    const ssize_t result = call();
    if (blocks) {
        const KeepErrno keep_errno;
        fcntl(fd, F_SETFL, flags);
    }
    return result;
}

// Pipes and terminals can be opened once more. With other devices that may do something, and what /dev/tty,
// /dev/console and the masters of pseudo-terminals stand for is another terminal for another opener.
bool canBeReopened(int fd, const struct stat &status) {
    constexpr unsigned kRenamedTerminals = 5;
    return S_ISFIFO(status.st_mode) ||
           (S_ISCHR(status.st_mode) && major(status.st_rdev) != kRenamedTerminals && isatty(fd) == 1);
}

// A non-blocking open file of our own on the same pipe or terminal, or none.
Fd openOwn(int fd) {
    struct stat status;
    if (fstat(fd, &status) == -1 || !canBeReopened(fd, status)) {
        return Fd();
    }
    char path[32];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    return Fd(open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

ssize_t writeNow(int fd, const void *bytes, size_t size) {
    const ssize_t sent = send(fd, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent != -1 || errno != ENOTSOCK) {
        return sent;
    }
    const int flags = fcntl(fd, F_GETFL);
    const Fd own = flags != -1 && (flags & O_NONBLOCK) == 0 ? openOwn(fd) : Fd();
    return own ? write(own.get(), bytes, size)
               : callNonBlocking(fd, flags, [=] { return write(fd, bytes, size); });
}

ssize_t readNow(int fd, void *buffer, size_t size) {
    const ssize_t received = recv(fd, buffer, size, MSG_DONTWAIT);
    if (received != -1 || errno != ENOTSOCK) {
        return received;
    }
    // A terminal that is ready with one byte may wait for more, unless no more are asked for. Where nothing is counted
    // the end has come, or somebody has taken what was there.
    int there = 0;
    if (ioctl(fd, FIONREAD, &there) == 0 && there > 0) {
        return read(fd, buffer, std::min(size, static_cast<size_t>(there)));
    }
    return callNonBlocking(fd, fcntl(fd, F_GETFL), [=] { return read(fd, buffer, size); });
}

// The descriptor leaves the set first, so that the waiter can register it again at once. The record is the
// waiter's once the event is signalled.
void complete(OverlappedRecord *record) {
    epoll_ctl(loadSet(), EPOLL_CTL_DEL, record->fd, nullptr);
    const Ref<OBJ_EVENT> event(record->event, Refusal::kUnchanged);
    if (event) {
        vlliRaiseCounter(event->fd);
    }
}

void processReady() {
    const NoCancel no_cancel;
    const MutexLock lock(&transfer_mutex);
    const int count = epoll_wait(loadSet(), async_events, sizeof async_events / sizeof *async_events, 0);
    for (int i = 0; i < count; ++i) {
        vlliProcessFd(&async_events[i]);
    }
}

// The set, its descriptors and whoever held a lock are the parent's.
void forgetInChild() {
    pthread_mutex_init(&async_mutex, nullptr);
    pthread_mutex_init(&transfer_mutex, nullptr);
    const int fd = loadSet();
    publishSet(-1);
    if (fd != -1) {
        vlliCloseFd(fd);
    }
}

BOOL startService() {
    const NoCancel no_cancel;
    const MutexLock lock(&async_mutex);
    if (loadSet() != -1) {
        return Fail(EBUSY);
    }
    const int fd = epoll_create(kSetHint);
    if (fd == -1) {
        return FALSE;
    }
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    publishSet(fd);
    return TRUE;
}

void serve(void *) {
    sigset_t broken_pipe;
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);
    for (;;) {
        pollfd set = {loadSet(), POLLIN, 0};
        if (vlliBlockInPoll(&set, 1, -1) == 1) {
            processReady();
        }
    }
}

// When the thread is cancelled.
void endService(void *) {
    const NoCancel no_cancel;
    const MutexLock lock(&async_mutex);
    const Fd fd(loadSet());
    publishSet(-1);
}

}  // namespace

const ForkHandlers kAsyncServiceForkHandlers = {nullptr, nullptr, forgetInChild};

DWORD vlliAsyncIo(LPVOID) {
    if (startService()) {
        vlliCallWithCleanup(serve, endService, nullptr);
    }
    return 0;
}

int32_t vlliProcessFd(epoll_event *event) {
    const bool tagged = (reinterpret_cast<uintptr_t>(event->data.ptr) & kWriteTag) != 0;
    auto *record =
        reinterpret_cast<OverlappedRecord *>(static_cast<char *>(event->data.ptr) - (tagged ? kWriteTag : 0));
    const bool write = tagged || (event->events & (EPOLLIN | EPOLLOUT)) == EPOLLOUT;
    char *position = static_cast<char *>(record->buffer) + record->transferred;
    const size_t size = record->requested - record->transferred;

    const ssize_t bytes = write ? writeNow(record->fd, position, size) : readNow(record->fd, position, size);
    const auto result = static_cast<int32_t>(bytes);
    record->result = result;
    if (result > 0) {
        // Atomic for those who watch the progress; what was transferred is theirs to see.
        const uint32_t transferred = record->transferred + static_cast<uint32_t>(result);
        __atomic_store_n(&record->transferred, transferred, __ATOMIC_RELEASE);
    }
    // An error or hang-up that comes without readiness would wake the service again and again.
    const bool was_ready = (event->events & (write ? EPOLLOUT : EPOLLIN)) != 0;
    const bool again = result == -1 && (errno == EINTR || (errno == EAGAIN && was_ready));
    const bool more = result > 0 && record->transferred < record->requested;
    if ((again || more) && control(EPOLL_CTL_MOD, record->fd, write, record) == 0) {
        return result;
    }
    if (again || more) {
        record->result = -1;  // closed under the transfer
    }
    complete(record);
    return result;
}

BOOL vlliRegisterTransfer(OverlappedRecord *record, bool write) {
    if (loadSet() != -1) {
        const MutexLock lock(&async_mutex);
        // A registration that would outlive the service has no set to go to.
        if (loadSet() != -1) {
            return control(EPOLL_CTL_ADD, record->fd, write, record) == 0;
        }
    }
    return Fail(EBADF);
}

BOOL vlliCancelTransfer(int fd) {
    if (loadSet() != -1) {
        const MutexLock lock(&async_mutex);
        const MutexLock quiet(&transfer_mutex);
        if (loadSet() != -1) {
            return epoll_ctl(loadSet(), EPOLL_CTL_DEL, fd, nullptr) == 0;
        }
    }
    return Fail(EBADF);
}
