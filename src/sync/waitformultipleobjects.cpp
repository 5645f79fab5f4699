// Waiting on several objects.
//
// A wait first polls all descriptors once, because building an epoll set costs many times as much. It polls them in
// the order in which the set would report them. It builds the set when nothing is ready, and when the poll cannot
// know the set's result: a handle cannot be opened, or a console's descriptor is one that the set may refuse.
//
// One signal of an auto-reset object releases one waiter, the one that reads the counter. A waiter that finds the
// counter read already continues waiting for the rest of its time.

#include "sync/waitformultipleobjects.h"

#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <cstring>
#include <optional>

#include "base/allocate.h"
#include "base/blocking.h"
#include "base/counter.h"
#include "base/descriptor.h"
#include "base/failure.h"
#include "base/guards.h"
#include "base/log.h"
#include "core/objmem_types.h"
#include "core/ref.h"
#include "sync/event.h"
#include "sync/wait_deadline.h"

namespace {

// How an object is waited for, whose reference is held. kNone when the handle's type code is not that of the record.
WaitKind kindOf(HANDLE handle) {
    const ObjectType *type = vlliIssuedType(handle);
    return type != nullptr && type->code == vlliGetObjectType(handle) ? type->wait : WaitKind::kNone;
}

// The objects of one wait. It holds references on the first `opened` records and drops them at the end, unless it has
// borrowed the caller's reference.
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

    bool isEvent(int32_t i) const { return kindOf(handles[i]) == WaitKind::kEvent; }

    // True when poll() reports what an epoll set would: all records are open, and the set would accept every
    // descriptor.
    bool canPoll() const {
        for (int32_t i = 0; i < opened; ++i) {
            const WaitKind kind = kindOf(handles[i]);
            if (kind != WaitKind::kDescriptor && kind != WaitKind::kEvent) {
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

// What came of a ready descriptor: its object is signalled; or it is not after all, since another waiter has taken the
// signal or nothing occurred on a socket; or a call failed.
enum class Report { kSignalled, kUnsignalled, kFailed };

// Handles a ready counter. That of an auto-reset object is read.
Report consumeCounter(const ObjectRecord *record) {
    if ((record->flags & OBJF_AUTO_RESET) != 0 && vlliTakeCounter(record->fd) == -1 && errno == EAGAIN) {
        return Report::kUnsignalled;
    }
    return Report::kSignalled;
}

// Handles the ready set of sockets of an event. The handler for sockets gets the activity; then a manual-reset event
// is left signalled, an auto-reset one unsignalled.
Report deliverSocketActivity(HANDLE handle, ObjectRecord *event) {
    const NoCancel no_cancel;
    const SocketActivityHandler deliver = vlliSocketActivityHandler();
    SocketActivity activity = SocketActivity::kUnknown;
    do {
        epoll_event ready = {};
        const int found = vlliRetryOnEintr([&] { return epoll_wait(event->efd, &ready, 1, 0); });
        if (found == -1) {
            return Report::kFailed;
        }
        if (found == 0 && activity == SocketActivity::kNone) {
            return Report::kUnsignalled;
        }
        activity = found > 0 && deliver != nullptr ? deliver(ready.data.u64, event, ready.events)
                                                   : SocketActivity::kUnknown;
    } while (activity == SocketActivity::kNone);
    if (activity == SocketActivity::kUnknown) {
        vlliLogNotice("VLL: WaitForMultipleObjects: False alarm, E%08X\n", handle);
    }
    if ((event->flags & OBJF_AUTO_RESET) != 0) {
        vlliTakeCounter(event->fd);
    } else {
        vlliRaiseCounter(event->fd);
    }
    return Report::kSignalled;
}

// Handles a ready descriptor: slot i is the counter of object i, slot count + i the set of sockets of object i.
// Returns the wait's result, or nothing when the object is not signalled after all.
std::optional<DWORD> handleReady(const WaitObjects &wait, int32_t slot) {
    const bool socket_set = slot >= wait.count;
    const int32_t i = socket_set ? slot - wait.count : slot;
    const Report report = socket_set ? deliverSocketActivity(wait.handles[i], wait.records[i])
                                     : consumeCounter(wait.records[i]);
    if (report == Report::kUnsignalled) {
        return std::nullopt;
    }
    vlliAnnotateAcquire();
    return report == Report::kSignalled ? WAIT_OBJECT_0 + static_cast<DWORD>(i) : WAIT_FAILED;
}

// The descriptors that a wait polls, each with its slot.
class PolledDescriptors {
  public:
    explicit PolledDescriptors(const WaitObjects &wait) {
        // Polling an event's set of sockets costs as much as polling its counter. It is left out while no event has
        // one.
        const bool with_sockets = vlliSocketActivityHandler() != nullptr;
        for (int32_t i = 0; i < wait.count; ++i) {
            const ObjectRecord *record = wait.records[i];
            const ObjectType *type = vlliIssuedType(wait.handles[i]);
            if (type->is_unsignalled != nullptr && type->is_unsignalled(record)) {
                continue;
            }
            if (with_sockets && wait.isEvent(i)) {
                add(record->efd, wait.count + i);
            }
            add(record->fd, i);
        }
    }

    // poll(2) without blocking: how many descriptors are ready, or -1.
    int poll() {
        return count_ == 0 ? 0 : vlliRetryOnEintr([&] { return ::poll(fds_, count_, 0); });
    }
    nfds_t count() const { return count_; }
    short readiness(nfds_t k) const { return fds_[k].revents; }
    int32_t slot(nfds_t k) const { return slots_[k]; }

  private:
    void add(int fd, int32_t slot) {
        slots_[count_] = static_cast<uint8_t>(slot);
        fds_[count_++] = {fd, POLLIN, 0};
    }

    pollfd fds_[2 * MAXIMUM_WAIT_OBJECTS];
    uint8_t slots_[2 * MAXIMUM_WAIT_OBJECTS];
    nfds_t count_ = 0;
};

// Polls all descriptors once. True when that decides: `result` is the wait's result, or nothing when no object is
// signalled. False when the wait has to build a set.
bool pollOnce(const WaitObjects &wait, std::optional<DWORD> *result) {
    PolledDescriptors polled(wait);
    int ready = polled.poll();
    if (ready == -1) {
        return false;
    }
    for (nfds_t k = 0; ready > 0 && k < polled.count(); ++k) {
        if ((polled.readiness(k) & POLLNVAL) != 0) {
            return false;
        }
        if (polled.readiness(k) != 0) {
            --ready;
            *result = handleReady(wait, polled.slot(k));
            if (result->has_value()) {
                return true;
            }
        }
    }
    return true;
}

bool addToSet(const Fd &set, int fd, int32_t slot) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = static_cast<uint32_t>(slot);
    // EEXIST: the handle is listed twice, and keeps the slot of its first listing.
    return epoll_ctl(set.get(), EPOLL_CTL_ADD, fd, &event) == 0 || errno == EEXIST;
}

// Adds one object, whose reference is held, to the set. False with errno.
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
        if (!vlliHasDescriptor(kindOf(wait->handles[i]))) {
            return Fail(EINVAL);
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
    WaitDeadline deadline(timeout_ms);
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
    if (wait->canPoll() && pollOnce(*wait, &result)) {
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

DWORD vlliWaitForRecord(HANDLE handle, ObjectRecord *record, DWORD timeout_ms) {
    const int saved_errno = errno;
    WaitObjects wait(1, &handle, &record, true);
    return keepErrnoUnlessFailed(waitOnObjects(&wait, static_cast<int32_t>(timeout_ms)), saved_errno);
}

DWORD vllWaitForMultipleObjects(int32_t nCount, const HANDLE *lpHandles, DWORD dwMilliseconds) {
    if (nCount < 1 || nCount > MAXIMUM_WAIT_OBJECTS || lpHandles == nullptr) {
        return Fail(EINVAL, WAIT_FAILED);
    }
    pthread_testcancel();  // a wait for threads that run may get by without a system call
    const int saved_errno = errno;
    const auto count = static_cast<size_t>(nCount);
    const HeapBlock<HANDLE> copy = vlliAllocate<HANDLE>(count);
    if (copy == nullptr) {
        return WAIT_FAILED;
    }
    memcpy(copy.get(), lpHandles, count * sizeof(HANDLE));
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
