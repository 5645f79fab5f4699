// Handles, events, waits and threads beside the system calls that they are made of. The raw side of a wait polls the
// same kinds of descriptors as the library.

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cstdlib>
#include <vector>

#include "base/descriptor.h"
#include "core/objmem.h"
#include "core/ref.h"
#include "pair.h"
#include "vwincompat.h"

namespace {

// Ends the run when an operation fails: the time of a failure means nothing.
void require(bool condition) {
    if (!condition) {
        abort();
    }
}

void raise(int fd) {
    const uint64_t one = 1;
    require(write(fd, &one, sizeof one) == sizeof one);
}

void take(int fd) {
    uint64_t counter;
    require(read(fd, &counter, sizeof counter) == sizeof counter);
}

// Auto-reset events, none signalled.
class Events {
  public:
    explicit Events(int64_t count) : handles_(static_cast<size_t>(count)) {
        for (HANDLE &handle : handles_) {
            handle = vllCreateEvent(FALSE, FALSE, nullptr);
            require(handle != 0);
        }
    }
    ~Events() {
        for (const HANDLE handle : handles_) {
            vllCloseHandle(handle);
        }
    }
    Events(const Events &) = delete;
    Events &operator=(const Events &) = delete;

    HANDLE last() const { return handles_.back(); }
    DWORD wait(DWORD timeout_ms) const {
        return vllWaitForMultipleObjects(static_cast<int32_t>(handles_.size()), handles_.data(), timeout_ms);
    }

  private:
    std::vector<HANDLE> handles_;
};

// The descriptors of one event.
struct RawEvent {
    Fd fd = Fd(eventfd(0, EFD_NONBLOCK));
    Fd efd = Fd(epoll_create(1));
};

class RawEvents {
  public:
    RawEvents(int64_t count, bool with_sockets) : events_(static_cast<size_t>(count)) {
        for (const RawEvent &event : events_) {
            require(event.fd && event.efd);
            if (with_sockets) {
                polled_.push_back({event.efd.get(), POLLIN, 0});
            }
            polled_.push_back({event.fd.get(), POLLIN, 0});
        }
    }
    int last() const { return events_.back().fd.get(); }
    int pollAll() { return poll(polled_.data(), polled_.size(), 0); }

  private:
    std::vector<RawEvent> events_;
    std::vector<pollfd> polled_;
};

void setResetEvent(benchmark::State &state) {
    const Events events(1);
    for (auto _ : state) {
        vllSetEvent(events.last());
        vllResetEvent(events.last());
    }
}

void setResetRaw(benchmark::State &state) {
    const RawEvent event;
    for (auto _ : state) {
        raise(event.fd.get());
        take(event.fd.get());
    }
}

void setAndWaitForLast(benchmark::State &state) {
    const Events events(state.range(0));
    const DWORD expected = WAIT_OBJECT_0 + static_cast<DWORD>(state.range(0)) - 1;
    for (auto _ : state) {
        vllSetEvent(events.last());
        require(events.wait(INFINITE) == expected);
    }
}

void setAndWaitForLastRaw(benchmark::State &state, bool with_sockets) {
    RawEvents events(state.range(0), with_sockets);
    for (auto _ : state) {
        raise(events.last());
        require(events.pollAll() == 1);
        take(events.last());
    }
}

void setAndWaitForLastRawNoSockets(benchmark::State &state) {
    setAndWaitForLastRaw(state, false);
}

void setAndWaitForLastRawWithSockets(benchmark::State &state) {
    setAndWaitForLastRaw(state, true);
}

void setAndWaitForLastWithSockets(benchmark::State &state) {
    const Fd socket(::socket(AF_UNIX, SOCK_DGRAM, 0));
    const HANDLE selected = vllCreateEvent(TRUE, FALSE, nullptr);
    WSASockData record = {};
    require(vllWSAEventSelect(socket.get(), selected, FD_READ, &record) == 0);
    vllCloseHandle(selected);
    setAndWaitForLast(state);
}

void setAndWaitForSingle(benchmark::State &state) {
    const Events events(1);
    for (auto _ : state) {
        vllSetEvent(events.last());
        require(vllWaitForSingleObject(events.last(), INFINITE) == WAIT_OBJECT_0);
    }
}

void waitForNothing(benchmark::State &state) {
    const Events events(state.range(0));
    for (auto _ : state) {
        require(events.wait(0) == WAIT_TIMEOUT);
    }
}

void pollNothingRaw(benchmark::State &state) {
    RawEvents events(state.range(0), false);
    for (auto _ : state) {
        require(events.pollAll() == 0);
    }
}

// Two threads that signal each other in turn; the other one answers until it has to stop.
template <typename Side>
void handOver(benchmark::State &state) {
    Side side;
    pthread_t other;
    const auto echo = [](void *argument) -> void * {
        auto *const echoing = static_cast<Side *>(argument);
        do {
            echoing->wait(0);
            echoing->signal(1);
        } while (!__atomic_load_n(&echoing->stopping, __ATOMIC_ACQUIRE));
        return nullptr;
    };
    require(pthread_create(&other, nullptr, echo, &side) == 0);
    for (auto _ : state) {
        side.signal(0);
        side.wait(1);
    }
    __atomic_store_n(&side.stopping, true, __ATOMIC_RELEASE);
    side.signal(0);
    pthread_join(other, nullptr);
}

struct EventSide {
    bool stopping = false;
    Events there{1};
    Events back{1};

    void signal(int way) const { vllSetEvent(way == 0 ? there.last() : back.last()); }
    void wait(int way) const { require((way == 0 ? there : back).wait(INFINITE) == WAIT_OBJECT_0); }
};

// The least that a blocking wait on one event needs: a set of both descriptors.
struct RawSide {
    bool stopping = false;
    RawEvent events[2];

    void signal(int way) const { raise(events[way].fd.get()); }
    void wait(int way) const {
        const RawEvent &event = events[way];
        const Fd set(epoll_create(1));
        epoll_event ready = {};
        ready.events = EPOLLIN;
        require(epoll_ctl(set.get(), EPOLL_CTL_ADD, event.efd.get(), &ready) == 0);
        require(epoll_ctl(set.get(), EPOLL_CTL_ADD, event.fd.get(), &ready) == 0);
        require(epoll_wait(set.get(), &ready, 1, -1) == 1);
        take(event.fd.get());
    }
};

void createCloseEvent(benchmark::State &state) {
    for (auto _ : state) {
        const HANDLE event = vllCreateEvent(TRUE, FALSE, nullptr);
        require(event != 0);
        vllCloseHandle(event);
    }
}

void createCloseRaw(benchmark::State &state) {
    for (auto _ : state) {
        const int fd = eventfd(0, 0);
        fcntl(fd, F_SETFL, O_NONBLOCK);
        const int efd = epoll_create(2);
        require(fd != -1 && efd != -1);
        close(efd);
        close(fd);
    }
}

uint32_t doNothing(LPVOID) {
    return 0;
}

void runThread(benchmark::State &state) {
    for (auto _ : state) {
        const HANDLE thread = vllCreateThread(0, doNothing, nullptr, nullptr, 0);
        require(vllWaitForSingleObject(thread, INFINITE) == WAIT_OBJECT_0);
        vllCloseHandle(thread);
    }
}

void *raiseAtEnd(void *argument) {
    raise(*static_cast<const int *>(argument));
    return nullptr;
}

void runThreadRaw(benchmark::State &state) {
    for (auto _ : state) {
        const int fd = eventfd(0, EFD_NONBLOCK);
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
        pthread_t thread;
        require(pthread_create(&thread, &attributes, raiseAtEnd, const_cast<int *>(&fd)) == 0);
        pthread_attr_destroy(&attributes);
        pollfd end = {fd, POLLIN, 0};
        require(poll(&end, 1, -1) == 1);
        close(fd);
    }
}

void openCloseHandle(benchmark::State &state) {
    const Events events(1);
    for (auto _ : state) {
        const ObjectRef event(events.last());
        benchmark::DoNotOptimize(event.get());
    }
}

pthread_mutex_t raw_mutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;

void lockUnlockTwice(benchmark::State &state) {
    for (auto _ : state) {
        pthread_mutex_lock(&raw_mutex);
        pthread_mutex_unlock(&raw_mutex);
        pthread_mutex_lock(&raw_mutex);
        pthread_mutex_unlock(&raw_mutex);
    }
}

}  // namespace

void bench::registerPairs() {
    const auto cpu = Clock::cpu;
    const auto wall = Clock::wall;
    addPair({"open and close a handle", 2, openCloseHandle, lockUnlockTwice, cpu});
    addPair({"set and reset an event", 1.3, setResetEvent, setResetRaw, cpu});
    addPair({"create and close an event", 1.2, createCloseEvent, createCloseRaw, cpu});

    const Body set_wait = setAndWaitForLast;
    const Body set_wait_raw = setAndWaitForLastRawNoSockets;
    addPair({"set and wait, 1 event", 1.5, set_wait, set_wait_raw, cpu, 1, 1});
    addPair({"set and wait for a single object", 1.5, setAndWaitForSingle, set_wait_raw, cpu, 1, 1});
    addPair({"set and wait, the last of 8 events", 1.5, set_wait, set_wait_raw, cpu, 1, 8});
    addPair({"set and wait, the last of 64 events", 1.4, set_wait, set_wait_raw, cpu, 1, 64});
    addPair({"set and wait, the last of 64, a socket was selected", 1.3, setAndWaitForLastWithSockets,
             setAndWaitForLastRawWithSockets, cpu, 1, 64});
    addPair({"time-out 0, 1 event", 1.4, waitForNothing, pollNothingRaw, cpu, 1, 1});
    addPair({"time-out 0, 8 events", 1.4, waitForNothing, pollNothingRaw, cpu, 1, 8});
    addPair({"time-out 0, 64 events", 1.4, waitForNothing, pollNothingRaw, cpu, 1, 64});

    addPair({"set and wait, 1 event each, 4 threads", 1.5, set_wait, set_wait_raw, wall, 4, 1});
    addPair({"set and wait, the last of 8 events each, 4 threads", 1.5, set_wait, set_wait_raw, wall, 4, 8});
    addPair({"blocking hand-over between two threads and back", 1.2, handOver<EventSide>, handOver<RawSide>,
             wall, 1, 0, 101, true});
    addPair({"thread created, run, waited for, closed", 1.3, runThread, runThreadRaw, Clock::process, 1, 0,
             61, true});
}
