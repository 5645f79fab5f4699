// The asynchronous descriptor service. One thread carries out all transfers, so no call on a transfer's descriptor
// may block: a descriptor that is ready for one byte need not be ready for all that are requested.
//
// The thread sleeps in poll() on its epoll set. It takes events out of the set only while it holds transfer_mutex,
// and holds it until it has handled all of them. So after a descriptor has been removed from the set under
// transfer_mutex, the service uses neither the transfer's record nor its buffer any more.

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
// Initialised statically: a transfer may be registered before the service runs.
pthread_mutex_t async_mutex = PTHREAD_MUTEX_INITIALIZER;
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

// The size hint of the service's set.
constexpr int kSetHint = 64;

// Added to the record's address in the event data of a write: an event that reports only a hang-up or an error does
// not say whether the transfer is a read or a write.
constexpr uintptr_t kWriteTag = 1;
static_assert(alignof(OverlappedRecord) > kWriteTag);

// Held while transfers are carried out. Taken after async_mutex, never before.
pthread_mutex_t transfer_mutex = PTHREAD_MUTEX_INITIALIZER;

int serviceSet() {
    return __atomic_load_n(&epoll_fd, __ATOMIC_ACQUIRE);
}

void publishSet(int fd) {
    __atomic_store_n(&epoll_fd, fd, __ATOMIC_RELEASE);
}

// Adds a transfer's descriptor to the set, or arms it again, for one wake-up.
int armTransfer(int operation, int fd, bool write, OverlappedRecord *record) {
    epoll_event event = {};
    event.events = (write ? EPOLLOUT : EPOLLIN) | EPOLLONESHOT;
    event.data.ptr = reinterpret_cast<char *>(record) + (write ? kWriteTag : 0);
    vlliAnnotateRelease();
    return epoll_ctl(serviceSet(), operation, fd, &event);
}

// Makes a call on a descriptor that is non-blocking during the call only: everyone who shares the open file shares
// its flags.
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

// Pipes and terminals can be opened once more without a side effect. Other devices may not, and opening the devices
// of this major number (/dev/tty, /dev/console, /dev/ptmx) may give another terminal.
bool canBeReopened(int fd, const struct stat &status) {
    constexpr unsigned kTerminalAliases = 5;
    return S_ISFIFO(status.st_mode) ||
           (S_ISCHR(status.st_mode) && major(status.st_rdev) != kTerminalAliases && isatty(fd) == 1);
}

// Opens the same pipe or terminal once more, non-blocking and with flags of its own. An absent descriptor when that
// cannot be done.
Fd reopenNonBlocking(int fd) {
    struct stat status;
    if (fstat(fd, &status) == -1 || !canBeReopened(fd, status)) {
        return Fd();
    }
    char path[32];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    return Fd(open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

// write(2) and read(2) that do not block: EAGAIN instead.

ssize_t writeNow(int fd, const void *bytes, size_t size) {
    const ssize_t sent = send(fd, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent != -1 || errno != ENOTSOCK) {
        return sent;
    }
    const int flags = fcntl(fd, F_GETFL);
    const Fd own = flags != -1 && (flags & O_NONBLOCK) == 0 ? reopenNonBlocking(fd) : Fd();
    return own ? write(own.get(), bytes, size)
               : callNonBlocking(fd, flags, [=] { return write(fd, bytes, size); });
}

ssize_t readNow(int fd, void *buffer, size_t size) {
    const ssize_t received = recv(fd, buffer, size, MSG_DONTWAIT);
    if (received != -1 || errno != ENOTSOCK) {
        return received;
    }
    // A read of no more bytes than are there does not block, even on a terminal that waits for a number of bytes.
    // None are counted at the end of the file, and when another reader has taken them.
    int available = 0;
    if (ioctl(fd, FIONREAD, &available) == 0 && available > 0) {
        return read(fd, buffer, std::min(size, static_cast<size_t>(available)));
    }
    return callNonBlocking(fd, fcntl(fd, F_GETFL), [=] { return read(fd, buffer, size); });
}

// Ends a transfer. The descriptor leaves the set before the event is signalled, so that the waiter can register it
// again at once; and the record is not touched after that, because it is the waiter's again.
void completeTransfer(OverlappedRecord *record) {
    epoll_ctl(serviceSet(), EPOLL_CTL_DEL, record->fd, nullptr);
    const Ref<OBJ_EVENT> event(record->event, Refusal::kUnchanged);
    if (event) {
        vlliRaiseCounter(event->fd);
    }
}

// Handles all transfers that are ready.
void processReady() {
    const NoCancel no_cancel;
    const MutexLock lock(&transfer_mutex);
    const int count = epoll_wait(serviceSet(), async_events, sizeof async_events / sizeof *async_events, 0);
    for (int i = 0; i < count; ++i) {
        vlliProcessFd(&async_events[i]);
    }
}

// A child has neither the service's thread nor those that held its locks. It closes its copy of the parent's set.
void resetAfterFork() {
    pthread_mutex_init(&async_mutex, nullptr);
    pthread_mutex_init(&transfer_mutex, nullptr);
    const int fd = serviceSet();
    publishSet(-1);
    if (fd != -1) {
        vlliCloseFd(fd);
    }
}

BOOL startService() {
    const NoCancel no_cancel;
    const MutexLock lock(&async_mutex);
    if (serviceSet() != -1) {
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
        pollfd set = {serviceSet(), POLLIN, 0};
        if (vlliBlockInPoll(&set, 1, -1) == 1) {
            processReady();
        }
    }
}

// Runs when the thread is cancelled.
void endService(void *) {
    const NoCancel no_cancel;
    const MutexLock lock(&async_mutex);
    const Fd fd(serviceSet());
    publishSet(-1);
}

}  // namespace

const ForkHandlers kAsyncServiceForkHandlers = {nullptr, nullptr, resetAfterFork};

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
        // A release store, so that a thread that watches the progress also sees the bytes.
        const uint32_t transferred = record->transferred + static_cast<uint32_t>(result);
        __atomic_store_n(&record->transferred, transferred, __ATOMIC_RELEASE);
    }
    // Armed again after an event that reports only an error or a hang-up, the transfer would wake the service for
    // ever.
    const bool was_ready = (event->events & (write ? EPOLLOUT : EPOLLIN)) != 0;
    const bool again = result == -1 && (errno == EINTR || (errno == EAGAIN && was_ready));
    const bool more = result > 0 && record->transferred < record->requested;
    if ((again || more) && armTransfer(EPOLL_CTL_MOD, record->fd, write, record) == 0) {
        return result;
    }
    if (again || more) {
        record->result = -1;  // the descriptor was closed during the transfer
    }
    completeTransfer(record);
    return result;
}

BOOL vlliRegisterTransfer(OverlappedRecord *record, bool write) {
    if (serviceSet() != -1) {
        const MutexLock lock(&async_mutex);
        // The service may have ended meanwhile.
        if (serviceSet() != -1) {
            return armTransfer(EPOLL_CTL_ADD, record->fd, write, record) == 0;
        }
    }
    return Fail(EBADF);
}

BOOL vlliCancelTransfer(int fd) {
    if (serviceSet() != -1) {
        const MutexLock lock(&async_mutex);
        const MutexLock no_transfer_runs(&transfer_mutex);
        if (serviceSet() != -1) {
            return epoll_ctl(serviceSet(), EPOLL_CTL_DEL, fd, nullptr) == 0;
        }
    }
    return Fail(EBADF);
}
