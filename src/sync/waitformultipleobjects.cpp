// Waiting on several objects.
//
// Building an epoll set costs many times what asking costs, so a wait first asks all descriptors with one poll()
// of no time-out, in the order in which the set would hold them (a fresh set over ready descriptors reports
// the first added, too). Only when nothing is ready, or something is odd (a handle that does not open, a
// console, whose descriptor the set may refuse), it builds the set.
//
// One signal of an auto-reset object releases one waiter: whoever reads its counter. A waiter whose read finds
// it gone goes on waiting for the rest of its time.

#include "sync/waitformultipleobjects.h"

#include <poll.h>
#include <sys/epoll.h>
#include <time.h>
#include <cstring>
#include <memory>
#include <optional>

#include "base/internal_blocking.h"
#include "net/wsasockets.h"
#include "process/thread.h"

namespace {

// When a wait ends. A negative time-out never does.
class Deadline {
  public:
    explicit Deadline(int32_t timeout_ms) : timeout_ms_(timeout_ms) { restart(); }

    void restart() {
        if (timeout_ms_ > 0) {
            end_ns_ = nowNs() + timeout_ms_ * kNanosecondsPerMs;
        }
    }
    // Rounded up, so that no wait ends early.
    int32_t remainingMs() const {
        if (timeout_ms_ <= 0) {
            return timeout_ms_;
        }
        const int64_t left_ns = end_ns_ - nowNs();
        return left_ns > 0 ? static_cast<int32_t>((left_ns + kNanosecondsPerMs - 1) / kNanosecondsPerMs) : 0;
    }

  private:
    static constexpr int64_t kNanosecondsPerMs = 1000000;

    static int64_t nowNs() {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
    }

    int32_t timeout_ms_;
    int64_t end_ns_ = 0;
};

// The objects of one wait. The first `opened` records are referenced; those of a wait that borrows its
// reference are not its to drop.
class WaitObjects {
  public:
    WaitObjects(int32_t n, const HANDLE *array, ObjectRecord **record_array, bool borrowed)
        : count(n), opened(borrowed ? n : 0), handles(array), records(record_array), borrowed_(borrowed) {}
    ~WaitObjects() {
        if (!borrowed_) {
            vlliCloseEvents(opened, handles);
        }
    }
    WaitObjects(const WaitObjects &) = delete;
    WaitObjects &operator=(const WaitObjects &) = delete;

    bool isEvent(int32_t i) const { return vlliGetObjectType(handles[i]) == OBJ_EVENT; }
    // Asking is sound for what the set would surely take.
    bool canAsk() const {
        for (int32_t i = 0; i < count; ++i) {
            const uint32_t type = vlliGetObjectType(handles[i]);
            if (!vlliIsDescriptorType(type) || type == OBJ_CONSOLE) {
                return false;
            }
        }
        return opened == count;
    }

    const int32_t count;
    int32_t opened;
    const HANDLE *const handles;
    ObjectRecord **const records;

  private:
    const bool borrowed_;
};

// What a ready descriptor says of its object.
enum class Report { signalled, taken, failed };

// A counter was ready. An auto-reset object is consumed, unless another waiter was faster.
Report consumeCounter(const ObjectRecord *record) {
    if ((record->flags & OBJF_AUTO_RESET) != 0 && vlliTakeCounter(record->fd) == -1 && errno == EAGAIN) {
        return Report::taken;
    }
    return Report::signalled;
}

// An event's socket set was ready. The activity becomes pending in the socket's selection record; a manual-reset
// event ends up signalled, an auto-reset one not.
Report deliverSocketActivity(HANDLE handle, ObjectRecord *event) {
    const NoCancel no_cancel;
    epoll_event ready = {};
    int found;
    do {
        found = epoll_wait(event->efd, &ready, 1, 0);
    } while (found == -1 && errno == EINTR);
    if (found == -1) {
        return Report::failed;
    }
    if (found > 0) {
        vlliWsaProcessNetworkEvents(static_cast<WSASockData *>(ready.data.ptr), event, ready.events);
    } else {
        vlliLogNotice("VLL: WaitForMultipleObjects: False alarm, E%08X\n", handle);
    }
    if ((event->flags & OBJF_AUTO_RESET) != 0) {
        vlliTakeCounter(event->fd);
    } else {
        vlliRaiseCounter(event->fd);
    }
    return Report::signalled;
}

// Handles the descriptor with the set's data d: an object's counter below count, its socket set above.
// The wait's result, or nothing when the signal was taken.
std::optional<DWORD> handleReady(const WaitObjects &wait, int32_t d) {
    const bool socket_set = d >= wait.count;
    const int32_t i = socket_set ? d - wait.count : d;
    const Report report = socket_set ? deliverSocketActivity(wait.handles[i], wait.records[i])
                                     : consumeCounter(wait.records[i]);
    if (report == Report::taken) {
        return std::nullopt;
    }
    vlliAnnotateAcquire();
    return report == Report::signalled ? WAIT_OBJECT_0 + static_cast<DWORD>(i) : WAIT_FAILED;
}

// Asks all descriptors at once. True when that settled the matter: nothing is odd, and `result` is the wait's
// result, or nothing when no object is signalled.
bool askOnce(const WaitObjects &wait, std::optional<DWORD> *result) {
    pollfd fds[2 * MAXIMUM_WAIT_OBJECTS];
    uint8_t data[2 * MAXIMUM_WAIT_OBJECTS];
    // Asking an empty socket set costs as much as asking the event itself.
    const bool sockets = vlliSocketsSelected();
    nfds_t n = 0;
    for (int32_t i = 0; i < wait.count; ++i) {
        const ObjectRecord *record = wait.records[i];
        // Of a thread the answer is often known.
        if (vlliGetObjectType(wait.handles[i]) == OBJ_THREAD && vlliThreadRuns(record)) {
            continue;
        }
        if (sockets && wait.isEvent(i)) {
            data[n] = static_cast<uint8_t>(wait.count + i);
            fds[n++] = {record->efd, POLLIN, 0};
        }
        data[n] = static_cast<uint8_t>(i);
        fds[n++] = {record->fd, POLLIN, 0};
    }
    int ready = 0;
    if (n > 0) {
        do {
            ready = poll(fds, n, 0);
        } while (ready == -1 && errno == EINTR);
    }
    if (ready == -1) {
        return false;
    }
    for (nfds_t k = 0; ready > 0 && k < n; ++k) {
        if ((fds[k].revents & POLLNVAL) != 0) {
            return false;
        }
        if (fds[k].revents != 0) {
            --ready;
            *result = handleReady(wait, data[k]);
            if (result->has_value()) {
                return true;
            }
        }
    }
    return true;
}

bool addToSet(const Fd &set, int fd, int32_t data) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = static_cast<uint32_t>(data);
    // A handle that is listed twice keeps the data of its first listing.
    return epoll_ctl(set.get(), EPOLL_CTL_ADD, fd, &event) == 0 || errno == EEXIST;
}

// Adds one object to the set; its reference is held. False with errno.
bool addObject(const Fd &set, const WaitObjects &wait, int32_t i) {
    const ObjectRecord *record = wait.records[i];
    if (wait.isEvent(i) && !addToSet(set, record->efd, wait.count + i)) {
        vlliLogError(
            "VLL: WaitForMultipleObjects: epoll_ctl( efd, EPOLL_CTL_ADD, events[%d]->efd = %d ) = %d, "
            "errno = %d\n",
            i, record->efd, -1, errno);
        return false;
    }
    if (!addToSet(set, record->fd, i)) {
        vlliLogError(
            "VLL: WaitForMultipleObjects: epoll_ctl( efd, EPOLL_CTL_ADD, events[%d]->fd  = %d ) = %d, "
            "errno = %d\n",
            i, record->fd, -1, errno);
        return false;
    }
    return true;
}

// Opens the objects that are not open yet, in order, and adds all of them. False with errno.
bool buildSet(const Fd &set, WaitObjects *wait) {
    for (int32_t i = 0; i < wait->count; ++i) {
        if (i >= wait->opened) {
            wait->records[i] = vlliOpenObject(wait->handles[i]);
            if (wait->records[i] == nullptr) {
                return false;
            }
            ++wait->opened;
        }
        if (!vlliIsIssuedType(wait->handles[i]) ||
            !vlliIsDescriptorType(vlliGetObjectType(wait->handles[i]))) {
            errno = EINVAL;
            return false;
        }
        if (!addObject(set, *wait, i)) {
            return false;
        }
    }
    return true;
}

Fd makeSet(int32_t count) {
    Fd set(epoll_create(count));
    if (!set) {
        vlliLogError("VLL: WaitForMultipleObjects: epoll_create( %d ) == -1, errno = %d\n", count, errno);
    }
    return set;
}

DWORD waitOnSet(const Fd &set, const WaitObjects &wait, int32_t timeout_ms) {
    Deadline deadline(timeout_ms);
    for (;;) {
        epoll_event ready = {};
        const int found = vlliBlockInEpollWait(set.get(), &ready, 1, deadline.remainingMs());
        if (found == 0) {
            return WAIT_TIMEOUT;
        }
        if (found > 0) {
            const std::optional<DWORD> result = handleReady(wait, static_cast<int32_t>(ready.data.u32));
            if (result.has_value()) {
                return *result;
            }
        } else if (errno == EINTR) {
            deadline.restart();
        } else {
            return WAIT_FAILED;
        }
    }
}

DWORD waitOnObjects(WaitObjects *wait, int32_t timeout_ms) {
    std::optional<DWORD> result;
    if (wait->canAsk() && askOnce(*wait, &result)) {
        if (result.has_value()) {
            return *result;
        }
        if (timeout_ms == 0) {
            return WAIT_TIMEOUT;
        }
    }
    const Fd set = makeSet(wait->count);
    if (!set || !buildSet(set, wait)) {
        return WAIT_FAILED;
    }
    return waitOnSet(set, *wait, timeout_ms);
}

// A wait that did not fail leaves the last error as it was.
DWORD keepErrnoUnlessFailed(DWORD result, int saved_errno) {
    if (result != WAIT_FAILED) {
        errno = saved_errno;
    }
    return result;
}

}  // namespace

bool vlliIsDescriptorType(uint32_t type) {
    return type == OBJ_EVENT || type == OBJ_WAITABLE_TIMER || type == OBJ_CONSOLE || type == OBJ_THREAD;
}

DWORD vlliWaitForRecord(HANDLE handle, ObjectRecord *record, DWORD timeout_ms) {
    const int saved_errno = errno;
    WaitObjects wait(1, &handle, &record, true);
    return keepErrnoUnlessFailed(waitOnObjects(&wait, static_cast<int32_t>(timeout_ms)), saved_errno);
}

DWORD vllWaitForMultipleObjects(int32_t nCount, const HANDLE *lpHandles, DWORD dwMilliseconds) {
    if (nCount < 1 || nCount > MAXIMUM_WAIT_OBJECTS || lpHandles == nullptr) {
        errno = EINVAL;
        return WAIT_FAILED;
    }
    const int saved_errno = errno;
    const size_t size = static_cast<size_t>(nCount) * sizeof(HANDLE);
    const std::unique_ptr<HANDLE, FreeDeleter> copy(static_cast<HANDLE *>(malloc(size)));
    if (copy == nullptr) {
        errno = ENOMEM;
        return WAIT_FAILED;
    }
    memcpy(copy.get(), lpHandles, size);
    ObjectRecord *records[MAXIMUM_WAIT_OBJECTS];
    WaitObjects wait(nCount, copy.get(), records, false);
    if (vlliOpenObjects(nCount, copy.get(), records)) {
        wait.opened = nCount;
    }
    return keepErrnoUnlessFailed(waitOnObjects(&wait, static_cast<int32_t>(dwMilliseconds)), saved_errno);
}

DWORD vllMsgWaitForMultipleObjectsEx(int32_t nCount, const HANDLE *lpHandles, DWORD dwMilliseconds) {
    return vllWaitForMultipleObjects(nCount, lpHandles, dwMilliseconds);
}
